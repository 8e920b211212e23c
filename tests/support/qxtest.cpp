#include "qxtest.hpp"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <mysql.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "qx_paths.h"
#include "zarn_base.h"

extern char **environ;

namespace qxtest {

namespace {

constexpr const char *kRedisKey = "sandbox";
constexpr int kRedisDb = 1;

std::mutex g_mutex;
MYSQL *g_mysql = nullptr;
redisContext *g_redis = nullptr;

std::string sql_escape(const std::string &s) {
    std::string out;
    out.reserve(s.size() + 2);
    for (char c : s) {
        if (c == '\'' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

std::string quoted(const std::string &s) {
    return "'" + sql_escape(s) + "'";
}

MYSQL *admin_connection() {
    if (g_mysql) return g_mysql;
    MYSQL *m = mysql_init(nullptr);
    unsigned timeout = 5;
    mysql_options(m, MYSQL_OPT_CONNECT_TIMEOUT, &timeout);
    std::string sock = path("/run/mysqld.sock");
    if (!mysql_real_connect(m, nullptr, "root", "", "quorvex", 0, sock.c_str(),
                            CLIENT_MULTI_STATEMENTS)) {
        ADD_FAILURE() << "cannot connect to the sandbox MariaDB at " << sock << ": "
                      << mysql_error(m);
        mysql_close(m);
        return nullptr;
    }
    g_mysql = m;
    return g_mysql;
}

// Runs one statement and returns its rows; false on error (already reported).
bool query(const std::string &statement, std::vector<Row> *rows) {
    std::lock_guard lock(g_mutex);
    MYSQL *m = admin_connection();
    if (!m) return false;
    // A test may have restarted the server under this connection.
    if (mysql_real_query(m, statement.data(), statement.size()) != 0 &&
        (mysql_errno(m) == 2006 || mysql_errno(m) == 2013)) {
        mysql_close(m);
        g_mysql = nullptr;
        if (!(m = admin_connection())) return false;
        mysql_real_query(m, statement.data(), statement.size());
    }
    if (mysql_errno(m) != 0) {
        ADD_FAILURE() << "SQL failed: " << statement << ": " << mysql_error(m);
        return false;
    }
    do {
        MYSQL_RES *res = mysql_store_result(m);
        if (res) {
            unsigned n = mysql_num_fields(res);
            while (MYSQL_ROW r = mysql_fetch_row(res)) {
                unsigned long *lens = mysql_fetch_lengths(res);
                Row row;
                for (unsigned i = 0; i < n; ++i) {
                    if (r[i])
                        row.emplace_back(std::string(r[i], lens[i]));
                    else
                        row.emplace_back(std::nullopt);
                }
                if (rows) rows->push_back(std::move(row));
            }
            mysql_free_result(res);
        }
    } while (mysql_next_result(m) == 0);
    return true;
}

redisContext *redis_connection() {
    if (g_redis) return g_redis;
    timeval tv{2, 0};
    std::string sock = path("/run/redis.sock");
    redisContext *c = redisConnectUnixWithTimeout(sock.c_str(), tv);
    if (!c || c->err) {
        ADD_FAILURE() << "cannot connect to the sandbox Redis at " << sock;
        if (c) redisFree(c);
        return nullptr;
    }
    auto *r = static_cast<redisReply *>(redisCommand(c, "AUTH %s", kRedisKey));
    if (r) freeReplyObject(r);
    r = static_cast<redisReply *>(redisCommand(c, "SELECT %d", kRedisDb));
    if (r) freeReplyObject(r);
    g_redis = c;
    return g_redis;
}

std::string render(const redisReply *r) {
    if (!r) return "(error)";
    switch (r->type) {
        case REDIS_REPLY_STRING:
        case REDIS_REPLY_STATUS:
            return std::string(r->str, r->len);
        case REDIS_REPLY_ERROR:
            return "ERR " + std::string(r->str, r->len);
        case REDIS_REPLY_INTEGER:
            return std::to_string(r->integer);
        case REDIS_REPLY_NIL:
            return "(nil)";
        case REDIS_REPLY_ARRAY: {
            std::string out;
            for (size_t i = 0; i < r->elements; ++i) {
                if (i) out += "\n";
                out += render(r->element[i]);
            }
            return out;
        }
        default:
            return "(?)";
    }
}

class SandboxEnv : public ::testing::Environment {
  public:
    void SetUp() override { ensure_sandbox(); }
};

std::mutex g_log_mutex;
std::vector<std::string> g_log_lines;
std::vector<int> g_log_priorities;  // of each line
LogCapture *g_capture = nullptr;

void capture_sink(const char *, int, const char *, int, int priority, const char *message, void *) {
    std::lock_guard lock(g_log_mutex);
    g_log_lines.emplace_back(message ? message : "");
    g_log_priorities.push_back(priority);
}

}  // namespace

std::string root() {
    return QX_ROOT;
}

std::string path(std::string_view rel) {
    return root() + std::string(rel);
}

void ensure_sandbox() {
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] {
        RunResult r = run({std::string(QX_SOURCE_DIR) + "/scripts/sandbox", "start", root()});
        ok = r.status == 0;
        if (!ok) ADD_FAILURE() << "sandbox did not start: " << r.out << r.err;
    });
    ASSERT_TRUE(ok) << "the sandbox is not running";
}

StoppedDatabase::StoppedDatabase(int sig)
    : pid_(std::atoi(read_file(root() + "/var/sandbox/mysqld.pid").value_or("0").c_str())),
      sig_(sig) {
    if (pid_ <= 0 || kill(pid_, sig) != 0) {
        pid_ = 0;
        return;
    }
    // The signal reaches the server's threads asynchronously.
    const std::string stat = "/proc/" + std::to_string(pid_) + "/stat";
    for (int i = 0; i < 100; ++i) {
        const std::string text = read_file(stat).value_or("");
        if (text.empty() || text.find(") T ") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

StoppedDatabase::~StoppedDatabase() {
    if (pid_ <= 0) return;
    if (sig_ == SIGSTOP) {
        kill(pid_, SIGCONT);
        return;
    }
    for (int i = 0; i < 500 && kill(pid_, 0) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    RunResult r = run({std::string(QX_SOURCE_DIR) + "/scripts/sandbox", "start", root()});
    if (r.status != 0) ADD_FAILURE() << "sandbox did not restart: " << r.out << r.err;
}

::testing::Environment *register_sandbox() {
    return ::testing::AddGlobalTestEnvironment(new SandboxEnv);
}

void sql(const std::string &statement) {
    query(statement, nullptr);
}

std::vector<Row> sql_rows(const std::string &q) {
    std::vector<Row> rows;
    query(q, &rows);
    return rows;
}

long long sql_int(const std::string &q) {
    auto rows = sql_rows(q);
    if (rows.empty() || rows[0].empty() || !rows[0][0]) {
        ADD_FAILURE() << "no value from: " << q;
        return -1;
    }
    return std::stoll(*rows[0][0]);
}

long long server_status(const std::string &name) {
    auto rows = sql_rows("SHOW GLOBAL STATUS LIKE " + quoted(name));
    if (rows.empty() || rows[0].size() < 2 || !rows[0][1]) {
        ADD_FAILURE() << "no server status " << name;
        return -1;
    }
    return std::stoll(*rows[0][1]);
}

std::string redis(const std::vector<std::string> &argv) {
    std::lock_guard lock(g_mutex);
    redisContext *c = redis_connection();
    if (!c) return "(error)";
    std::vector<const char *> args;
    std::vector<size_t> lens;
    for (const auto &a : argv) {
        args.push_back(a.data());
        lens.push_back(a.size());
    }
    auto *r = static_cast<redisReply *>(
        redisCommandArgv(c, static_cast<int>(args.size()), args.data(), lens.data()));
    if (!r) {
        // The connection is broken (e.g. the server was restarted): reconnect next time.
        redisFree(g_redis);
        g_redis = nullptr;
        return "(error)";
    }
    std::string out = render(r);
    freeReplyObject(r);
    return out;
}

void clear_ids(int base) {
    const std::string range = std::to_string(base) + " AND " + std::to_string(base + 9);
    const std::string exts = "SELECT id FROM extension WHERE client_id BETWEEN " + range;
    std::string owners;  // full numbers start with their owner's id
    for (int id = base; id < base + 10; ++id)
        owners += (owners.empty() ? "" : "|") + std::to_string(id);
    // Codecs the block's extensions alone use.
    sql("DELETE FROM codec WHERE id IN (SELECT codec_id FROM extension_codec_rel WHERE "
        "extension_id IN (" +
        exts +
        ")) AND id NOT IN (SELECT codec_id FROM extension_codec_rel "
        "WHERE extension_id NOT IN (" +
        exts + "))");
    for (const char *t : {"extension_prefs", "extension_recording", "extension_voicemail",
                          "extension_fax_center", "extension_codec_rel"})
        sql(std::string("DELETE FROM ") + t + " WHERE extension_id IN (" + exts + ")");
    sql("DELETE FROM ser_subscriber WHERE username REGEXP '^(" + owners + ")([^0-9]|$)'");
    sql("DELETE FROM extension WHERE client_id BETWEEN " + range);
    sql("DELETE FROM client_prefs WHERE client_id BETWEEN " + range);
    sql("DELETE FROM hs_account WHERE userID BETWEEN " + range);
    sql("DELETE FROM client WHERE id BETWEEN " + range);
    for (int id = base; id < base + 10; ++id) {
        const std::string i = std::to_string(id);
        redis({"DEL", "res:inf:mng:" + i, "res:pre:mng:" + i, "res:ind:" + i + ":ext"});
        std::vector<std::string> del{"DEL"};
        std::stringstream keys(redis({"KEYS", "res:*:ext:" + i + "[^0-9]*"}));
        for (std::string key; std::getline(keys, key);)
            del.push_back(key);
        if (del.size() > 1) redis(del);
        std::error_code ec;
        std::filesystem::remove_all(path("/var/lib/quorvexquota/") + i, ec);
        std::filesystem::remove_all(path("/var/lib/asterisk/sounds/.") + i, ec);
        std::filesystem::remove_all(path("/var/lib/asterisk/music/") + i, ec);
    }
}

int fresh_ids() {
    sql("CREATE DATABASE IF NOT EXISTS qxtest");
    sql("CREATE TABLE IF NOT EXISTS qxtest.ids (n INT NOT NULL AUTO_INCREMENT PRIMARY KEY)");
    // Stored-file rows of extensions that no longer exist would be counted for a new extension
    // that happens to get the same id.
    static std::once_flag orphans;
    std::call_once(orphans, [] {
        for (const char *t : {"extension_recording", "extension_voicemail", "extension_fax_center"})
            sql(std::string("DELETE t FROM ") + t +
                " t LEFT JOIN extension e ON e.id = t.extension_id WHERE e.id IS NULL");
    });
    long long n;
    {
        std::vector<Row> rows;
        query("INSERT INTO qxtest.ids VALUES (); SELECT LAST_INSERT_ID()", &rows);
        if (rows.empty() || !rows[0][0]) {
            ADD_FAILURE() << "cannot allocate test ids";
            return 9990;
        }
        n = std::stoll(*rows[0][0]);
    }
    // 900 blocks between 1000 and 9999 (the tool cuts longer ids); a long-lived sandbox comes
    // round to a block again, which is then cleared first.
    long long block = (n - 1) % 900;
    long long base = 1000 + block * 10;
    if (n > 900) clear_ids(static_cast<int>(base));
    // A generated benchmark platform owns ids of its own in the same range: then go above it.
    const std::string range = std::to_string(base) + " AND " + std::to_string(base + 9);
    if (sql_int("SELECT COUNT(*) FROM client WHERE id BETWEEN " + range) > 0) {
        long long top = sql_int("SELECT COALESCE(MAX(id), 0) FROM client");
        base = (top / 10 + 1) * 10 + (n - 1) * 10;
    }
    return static_cast<int>(base);
}

void add_account(int id, int parent, int level, const std::string &login, const std::string &name) {
    std::string p = parent > 0 ? std::to_string(parent) : "NULL";
    sql("INSERT INTO client (id, parent_client_id, level, name) VALUES (" + std::to_string(id) +
        ", " + p + ", " + std::to_string(level) + ", " +
        quoted(name.empty() ? "Account " + std::to_string(id) : name) + ")");
    sql("INSERT INTO hs_account (userID, username) VALUES (" + std::to_string(id) + ", " +
        quoted(login.empty() ? "u" + std::to_string(id) : login) + ")");
}

int add_extension(int client_id, const std::string &number, const std::string &full) {
    std::vector<Row> rows;
    query("INSERT INTO extension (client_id, number, extended_number) VALUES (" +
              std::to_string(client_id) + ", " + quoted(number) + ", " + quoted(full) +
              "); SELECT LAST_INSERT_ID()",
          &rows);
    if (rows.empty() || !rows[0][0]) return -1;
    return std::stoi(*rows[0][0]);
}

void add_pref(int client_id, const std::string &param, const std::string &value) {
    sql("INSERT INTO client_prefs (client_id, param, value) VALUES (" + std::to_string(client_id) +
        ", " + quoted(param) + ", " + quoted(value) +
        ") ON DUPLICATE KEY UPDATE value = VALUES(value)");
}

void set_misc(const std::string &param, const std::string &value) {
    sql("INSERT INTO misc (param, value) VALUES (" + quoted(param) + ", " + quoted(value) +
        ") ON DUPLICATE KEY UPDATE value = VALUES(value)");
}

void add_db_file(const std::string &table, int extension_id, long long filesize) {
    sql("INSERT INTO " + table + " (extension_id, filesize) VALUES (" +
        std::to_string(extension_id) + ", " + std::to_string(filesize) + ")");
}

void write_file(const std::string &file, size_t size) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    std::string block(std::min<size_t>(size, 65536), 'x');
    for (size_t left = size; left > 0;) {
        size_t n = std::min(left, block.size());
        out.write(block.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    if (!out) ADD_FAILURE() << "cannot write " << file;
}

LogCapture::LogCapture() {
    {
        std::lock_guard lock(g_log_mutex);
        g_log_lines.clear();
        g_log_priorities.clear();
        g_capture = this;
    }
    fr_log_set_threshold(7);
    fr_log_set_sink(capture_sink, nullptr);
}

LogCapture::~LogCapture() {
    fr_log_set_sink(nullptr, nullptr);
    std::lock_guard lock(g_log_mutex);
    g_capture = nullptr;
}

const std::vector<std::string> &LogCapture::lines() const {
    return g_log_lines;
}

bool LogCapture::contains(std::string_view needle) const {
    return count(needle) > 0;
}

size_t LogCapture::count(std::string_view needle) const {
    std::lock_guard lock(g_log_mutex);
    return static_cast<size_t>(
        std::count_if(g_log_lines.begin(), g_log_lines.end(),
                      [&](const std::string &l) { return l.find(needle) != std::string::npos; }));
}

bool LogCapture::contains_at(int priority, std::string_view needle) const {
    std::lock_guard lock(g_log_mutex);
    for (size_t i = 0; i < g_log_lines.size(); ++i)
        if (g_log_priorities[i] == priority && g_log_lines[i].find(needle) != std::string::npos)
            return true;
    return false;
}

void LogCapture::clear() {
    std::lock_guard lock(g_log_mutex);
    g_log_lines.clear();
    g_log_priorities.clear();
}

RunResult run(const std::vector<std::string> &argv, const std::string &input) {
    RunResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) return result;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid;
    int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (rc != 0) {
        close(in[1]);
        close(out[0]);
        close(err[0]);
        result.err = std::string("cannot start ") + argv[0] + ": " + std::strerror(rc);
        return result;
    }
    size_t written = 0;
    if (input.empty()) {
        close(in[1]);
        in[1] = -1;
    }
    pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
    int open_fds = 2;
    while (open_fds > 0 || fds[2].fd >= 0) {
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[65536];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
        if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            ssize_t n = write(fds[2].fd, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 || written == input.size()) {
                close(fds[2].fd);
                fds[2].fd = -1;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

RunResult spoolcap(const std::vector<std::string> &args) {
    std::vector<std::string> argv{QX_SPOOLCAP};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

std::optional<std::string> read_file(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace qxtest
