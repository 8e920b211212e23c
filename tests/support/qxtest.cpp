#include "qxtest.hpp"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <mysql.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "qx_paths.h"
#include "zarn_base.h"

extern char **environ;

namespace qxtest {

namespace {

namespace fs = std::filesystem;

std::mutex g_mutex, g_log_mutex;
MYSQL *g_mysql = nullptr;
redisContext *g_redis = nullptr;
std::vector<std::pair<int, std::string>> g_log;  // priority, line

std::string quoted(const std::string &s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return out + "'";
}

// Runs one statement and returns its rows; false on error (already reported). A test may have
// restarted the server under the connection: one reconnect.
bool query(const std::string &statement, std::vector<Row> *rows) {
    std::lock_guard lock(g_mutex);
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!g_mysql) {
            g_mysql = mysql_init(nullptr);
            unsigned timeout = 5;
            mysql_options(g_mysql, MYSQL_OPT_CONNECT_TIMEOUT, &timeout);
            if (!mysql_real_connect(g_mysql, nullptr, "root", "", "quorvex", 0,
                                    path("/run/mysqld.sock").c_str(), CLIENT_MULTI_STATEMENTS)) {
                ADD_FAILURE() << "cannot connect to the sandbox MariaDB: " << mysql_error(g_mysql);
                mysql_close(g_mysql);
                return g_mysql = nullptr, false;
            }
        }
        if (mysql_real_query(g_mysql, statement.data(), statement.size()) == 0) break;
        const unsigned err = mysql_errno(g_mysql);
        if (attempt == 0 && (err == 2006 || err == 2013)) {
            mysql_close(g_mysql), g_mysql = nullptr;
            continue;
        }
        ADD_FAILURE() << "SQL failed: " << statement << ": " << mysql_error(g_mysql);
        return false;
    }
    do {
        MYSQL_RES *res = mysql_store_result(g_mysql);
        while (MYSQL_ROW r = res ? mysql_fetch_row(res) : nullptr) {
            const unsigned long *lens = mysql_fetch_lengths(res);
            Row row;
            for (unsigned i = 0; i < mysql_num_fields(res); ++i)
                row.push_back(r[i] ? std::optional<std::string>(std::string(r[i], lens[i]))
                                   : std::nullopt);
            if (rows) rows->push_back(std::move(row));
        }
        mysql_free_result(res);  // takes null
    } while (mysql_next_result(g_mysql) == 0);
    return true;
}

std::string render(const redisReply *r) {
    std::string out = r->type == REDIS_REPLY_ERROR ? "ERR " : "";
    if (r->type == REDIS_REPLY_INTEGER) return std::to_string(r->integer);
    if (r->type == REDIS_REPLY_NIL) return "(nil)";
    for (size_t i = 0; i < r->elements; ++i)
        out += (i ? "\n" : "") + render(r->element[i]);
    return r->str ? out + std::string(r->str, r->len) : out;
}

void start_sandbox() {
    RunResult r = run({std::string(QX_SOURCE_DIR) + "/scripts/sandbox", "start", path("")});
    if (r.status != 0) ADD_FAILURE() << "sandbox did not start: " << r.out << r.err;
}

struct SandboxEnv : ::testing::Environment {
    void SetUp() override { ensure_sandbox(); }
};

void capture_sink(const char *, int, const char *, int, int priority, const char *message, void *) {
    std::lock_guard lock(g_log_mutex);
    g_log.emplace_back(priority, message ? message : "");
}

void remove_all(const std::string &p) {
    std::error_code ec;  // absent is fine
    fs::remove_all(p, ec);
}

// Removes an id's cache entries and media, as an earlier life of the id may have left them.
void forget(int id) {
    const std::string i = std::to_string(id);
    redis({"DEL", "res:inf:mng:" + i, "res:pre:mng:" + i, "res:ind:" + i + ":ext"});
    remove_all(sounds_dir(id));
    remove_all(music_dir(id));
}

// Written beside and renamed over: readers only ever see one version whole.
void replace_file(const std::string &file, const std::string &text) {
    const std::string tmp = file + ".qxtest." + std::to_string(getpid());
    put(tmp, text);
    std::rename(tmp.c_str(), file.c_str());
}

constexpr time_t kAgedMtime = 1000000000;

}  // namespace

std::string path(std::string_view rel) {
    return QX_ROOT + std::string(rel);
}

void ensure_sandbox() {
    static std::once_flag once;
    std::call_once(once, start_sandbox);
}

::testing::Environment *register_sandbox() {
    return ::testing::AddGlobalTestEnvironment(new SandboxEnv);
}

StoppedDatabase::StoppedDatabase(int sig)
    : pid_(std::atoi(read_file(path("/var/sandbox/mysqld.pid")).value_or("0").c_str())), sig_(sig) {
    if (pid_ <= 0 || kill(pid_, sig) != 0) pid_ = 0;
    // The signal reaches the server's threads asynchronously.
    const std::string stat = "/proc/" + std::to_string(pid_) + "/stat";
    for (int i = 0; pid_ > 0 && i < 100; ++i) {
        const std::string text = read_file(stat).value_or("");
        if (text.empty() || text.find(") T ") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

StoppedDatabase::~StoppedDatabase() {
    if (pid_ > 0 && sig_ == SIGSTOP) kill(pid_, SIGCONT);
    if (pid_ <= 0 || sig_ == SIGSTOP) return;
    for (int i = 0; i < 500 && kill(pid_, 0) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    start_sandbox();
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
    if (!rows.empty() && !rows[0].empty() && rows[0][0]) return std::stoll(*rows[0][0]);
    ADD_FAILURE() << "no value from: " << q;
    return -1;
}

long long server_status(const std::string &name) {
    const auto rows = sql_rows("SHOW GLOBAL STATUS LIKE " + quoted(name));
    if (!rows.empty() && rows[0].size() > 1 && rows[0][1]) return std::stoll(*rows[0][1]);
    ADD_FAILURE() << "no server status " << name;
    return -1;
}

std::string redis(const std::vector<std::string> &argv) {
    std::lock_guard lock(g_mutex);
    if (!g_redis) {
        g_redis = redisConnectUnixWithTimeout(path("/run/redis.sock").c_str(), timeval{2, 0});
        if (!g_redis || g_redis->err) ADD_FAILURE() << "cannot connect to the sandbox Redis";
        for (const char *cmd : {"AUTH sandbox", "SELECT 1"})
            if (g_redis && !g_redis->err) freeReplyObject(redisCommand(g_redis, cmd));
    }
    std::vector<const char *> args;
    std::vector<size_t> lens;
    for (const auto &a : argv)
        args.push_back(a.data()), lens.push_back(a.size());
    auto *r = g_redis && !g_redis->err
                  ? static_cast<redisReply *>(redisCommandArgv(
                        g_redis, static_cast<int>(args.size()), args.data(), lens.data()))
                  : nullptr;
    if (!r) {                // broken (e.g. the server was restarted): reconnect next time
        redisFree(g_redis);  // takes null
        return g_redis = nullptr, "(error)";
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
    const std::string codecs = "SELECT codec_id FROM extension_codec_rel WHERE extension_id ";
    sql("DELETE FROM codec WHERE id IN (" + codecs + "IN (" + exts + ")) AND id NOT IN (" + codecs +
        "NOT IN (" + exts + "))");
    for (const char *t : {"extension_prefs", "extension_recording", "extension_voicemail",
                          "extension_fax_center", "extension_codec_rel"})
        sql(std::string("DELETE FROM ") + t + " WHERE extension_id IN (" + exts + ")");
    sql("DELETE FROM ser_subscriber WHERE username REGEXP '^(" + owners + ")([^0-9]|$)'");
    for (const char *t : {"extension WHERE client_id", "client_prefs WHERE client_id",
                          "hs_account WHERE userID", "client WHERE id"})
        sql(std::string("DELETE FROM ") + t + " BETWEEN " + range);
    for (int id = base; id < base + 10; ++id) {
        const std::string i = std::to_string(id);
        std::stringstream keys(redis({"KEYS", "res:*:ext:" + i + "[^0-9]*"}));
        for (std::string key; std::getline(keys, key);)
            redis({"DEL", key});
        forget(id);
        remove_all(path("/var/lib/quorvexquota/") + i);
    }
}

int fresh_ids() {
    sql("CREATE DATABASE IF NOT EXISTS qxtest");
    sql("CREATE TABLE IF NOT EXISTS qxtest.ids (n INT NOT NULL AUTO_INCREMENT PRIMARY KEY)");
    // Stored-file rows of extensions that no longer exist would count for a new extension that
    // happens to get the same id.
    static std::once_flag orphans;
    std::call_once(orphans, [] {
        for (const char *t : {"extension_recording", "extension_voicemail", "extension_fax_center"})
            sql(std::string("DELETE t FROM ") + t +
                " t LEFT JOIN extension e ON e.id = t.extension_id WHERE e.id IS NULL");
    });
    const long long n =
        std::max(1LL, sql_int("INSERT INTO qxtest.ids VALUES (); SELECT LAST_INSERT_ID()"));
    // 900 blocks between 1000 and 9999 (the tool cuts longer ids).
    long long base = 1000 + (n - 1) % 900 * 10;
    if (n > 900) clear_ids(static_cast<int>(base));
    // A generated benchmark platform owns ids in the same range: then go above it.
    const std::string range = std::to_string(base) + " AND " + std::to_string(base + 9);
    if (sql_int("SELECT COUNT(*) FROM client WHERE id BETWEEN " + range) > 0)
        base = (sql_int("SELECT COALESCE(MAX(id), 0) FROM client") / 10 + 1) * 10 + (n - 1) * 10;
    return static_cast<int>(base);
}

void add_account(int id, int parent, int level, const std::string &login, const std::string &name) {
    const std::string i = std::to_string(id);
    sql("INSERT INTO client (id, parent_client_id, level, name) VALUES (" + i + ", " +
        (parent > 0 ? std::to_string(parent) : "NULL") + ", " + std::to_string(level) + ", " +
        quoted(name.empty() ? "Account " + i : name) + ")");
    sql("INSERT INTO hs_account (userID, username) VALUES (" + i + ", " +
        quoted(login.empty() ? "u" + i : login) + ")");
}

int add_extension(int client_id, const std::string &number, const std::string &full) {
    return static_cast<int>(
        sql_int("INSERT INTO extension (client_id, number, extended_number) VALUES (" +
                std::to_string(client_id) + ", " + quoted(number) + ", " + quoted(full) +
                "); SELECT LAST_INSERT_ID()"));
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

void write_file(const std::string &file, size_t size) {
    put(file, std::string(size, 'x'));
}

void put(const std::string &file, const std::string &bytes) {
    std::error_code ec;
    fs::create_directories(fs::path(file).parent_path(), ec);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!(out << bytes)) ADD_FAILURE() << "cannot write " << file;
}

std::optional<std::string> read_file(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream ss;
    return in && (ss << in.rdbuf(), true) ? std::optional(ss.str()) : std::nullopt;
}

bool dirty(const std::string &quota_file) {
    return access((quota_file + ".dirty").c_str(), F_OK) == 0;
}

ConfFile::ConfFile(std::string file, const std::string &text)
    : file_(std::move(file)), saved_(read_file(file_)) {
    replace_file(file_, text);
}

ConfFile::~ConfFile() {
    saved_ ? replace_file(file_, *saved_) : (void)std::remove(file_.c_str());
}

LogCapture::LogCapture() {
    {
        std::lock_guard lock(g_log_mutex);
        g_log.clear();
    }
    fr_log_set_threshold(7);
    fr_log_set_sink(capture_sink, nullptr);
}

LogCapture::~LogCapture() {
    fr_log_set_sink(nullptr, nullptr);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(g_log_mutex);
    std::vector<std::string> out(g_log.size());
    std::transform(g_log.begin(), g_log.end(), out.begin(), [](const auto &l) { return l.second; });
    return out;
}

// Lines at priority (any when -1) that contain needle.
size_t LogCapture::count(std::string_view needle, int priority) const {
    std::lock_guard lock(g_log_mutex);
    return static_cast<size_t>(std::count_if(g_log.begin(), g_log.end(), [&](const auto &l) {
        return (priority < 0 || l.first == priority) && l.second.find(needle) != std::string::npos;
    }));
}

pid_t spawn(const std::vector<std::string> &argv, int out, int err) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, out, 1);
    posix_spawn_file_actions_adddup2(&fa, err, 2);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ) != 0)
        ADD_FAILURE() << "cannot start " << argv[0];
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

namespace {

// The log past offset: the log only grows on the sandbox, and a run must not read it all again.
std::string log_since(const std::string &file, off_t offset) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream ss;
    if (in.seekg(offset)) ss << in.rdbuf();
    return ss.str();
}

}  // namespace

RunResult run(const std::vector<std::string> &argv) {
    // Files, not pipes: no deadlock whatever the child writes; a hung child is killed.
    char names[2][32] = {"/tmp/qxrun-out-XXXXXX", "/tmp/qxrun-err-XXXXXX"};
    const int out = mkstemp(names[0]), err = mkstemp(names[1]);
    const std::string log_file = path("/var/log/quorvex.log");
    struct stat st {};
    const off_t log_before = stat(log_file.c_str(), &st) == 0 ? st.st_size : 0;
    std::vector<std::string> timed{"timeout", "-s", "KILL", "60"};
    timed.insert(timed.end(), argv.begin(), argv.end());
    int status = -1;
    if (const pid_t pid = spawn(timed, out, err); pid > 0) waitpid(pid, &status, 0);
    RunResult result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                     read_file(names[0]).value_or(""), read_file(names[1]).value_or(""),
                     log_since(log_file, log_before)};
    close(out), close(err), unlink(names[0]), unlink(names[1]);
    return result;
}

RunResult spoolcap(const std::vector<std::string> &args) {
    std::vector<std::string> argv{QX_SPOOLCAP};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

std::string sounds_dir(int id) {
    return path("/var/lib/asterisk/sounds/.") + std::to_string(id);
}

std::string music_dir(int id) {
    return path("/var/lib/asterisk/music/") + std::to_string(id);
}

void QuotaTree::add(int id, int parent, int level) {
    forget(id);
    if (level == 10) dir[id] = path("/var/lib/quorvexquota/") + std::to_string(id);
    if (level > 10) dir[id] = dir.at(parent) + "/" + std::to_string(id);
    if (level >= 10) remove_all(dir[id]);
    add_account(id, parent, level);
}

int QuotaTree::ext(int owner, int n, const std::vector<std::pair<const char *, long long>> &rows) {
    const int id =
        add_extension(owner, std::to_string(n), std::to_string(owner) + "*" + std::to_string(n));
    for (const auto &[table, size] : rows)
        sql(std::string("INSERT INTO ") + table + " (extension_id, filesize) VALUES (" +
            std::to_string(id) + ", " + std::to_string(size) + ")");
    return id;
}

std::string QuotaTree::file(int id, int kind) const {
    return dir.at(id) + "/" + kKindFiles[kind] + ".quota";
}

std::vector<std::string> QuotaTree::files() const {
    std::vector<std::string> out;
    for (const auto &[id, d] : dir)
        for (int k = 0; k < kKinds; ++k)
            out.push_back(file(id, k));
    return out;
}

std::map<std::string, std::string> QuotaTree::snapshot() const {
    std::map<std::string, std::string> out;
    for (const auto &f : files())
        out[f] = fs::is_regular_file(f) ? read_file(f).value_or("(missing)") : "(missing)";
    return out;
}

void QuotaTree::age() const {
    const timespec times[2] = {{kAgedMtime, 0}, {kAgedMtime, 0}};
    for (const auto &f : files())
        utimensat(AT_FDCWD, f.c_str(), times, 0);
}

std::set<std::string> QuotaTree::rewritten() const {
    std::set<std::string> out;
    for (const auto &f : files()) {
        struct stat st {};
        if (stat(f.c_str(), &st) != 0 || st.st_mtim.tv_sec != kAgedMtime) out.insert(f);
    }
    return out;
}

std::array<int, 3> QuotaTree::check(const std::map<std::string, std::string> &old) const {
    std::array<int, 3> ways{};
    const auto now = snapshot();
    for (const auto &[id, values] : usage)
        for (int k = 0; k < kKinds; ++k) {
            const std::string f = file(id, k);
            const int way = now.at(f) == exact(id, k) ? 0 : dirty(f) ? 2 : 1;
            EXPECT_TRUE(way != 1 || now.at(f) == old.at(f)) << f << " holds " << now.at(f);
            ++ways[way];
        }
    return ways;
}

void QuotaTree::expect_exact() const {
    for (const auto &[id, values] : usage)
        for (int k = 0; k < kKinds; ++k)
            EXPECT_EQ(
                std::make_pair(read_file(file(id, k)).value_or("(missing)"), dirty(file(id, k))),
                std::make_pair(exact(id, k), false))
                << file(id, k) << " (second: dirty-marked)";
}

}  // namespace qxtest
