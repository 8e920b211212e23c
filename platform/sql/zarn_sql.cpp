// libzarn_sql: the process-wide MySQL connection pool.
//
// Each registered shard keeps a free list of sessions. A session owns one connection to the
// shard's master and, once a SELECT has been sent to a slave, one to that slave; both stay open
// while the session sits in the free list, so a process opens a connection once and reuses it.
// Server descriptions are shared by every session of a topology, which is how a slave marked
// down by one session is avoided by all of them.
#include "zarn_sql.h"

#include <errmsg.h>
#include <mysqld_error.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "zarn_base.h"
#include "zarn_sql_config.hpp"

namespace {

constexpr const char *kSrc = "libzarn_sql";
constexpr int kChannel = 3;
constexpr int kPrioError = 3;
constexpr int kPrioWarning = 4;
constexpr int kPrioNotice = 5;
constexpr int kPrioDebug = 7;

constexpr int kConnectTimeoutSec = 2;
constexpr int kReadTimeoutSec = 30;
constexpr int kWriteTimeoutSec = 30;
constexpr int kDefaultDownTimeSec = 30;
constexpr int kLineBytes = 255;
constexpr double kDefaultIdleTimeoutSec = 60.0;
// Connection-opened messages are chatty; only a verbose pool emits them.
constexpr int kVerboseConnects = 100;

constexpr std::string_view kMasterKeyword = "DB_MASTER";
constexpr std::string_view kSlaveKeyword = "DB_SLAVE";

constexpr const char *kMsgConnectFailed = "Cannot connect to SQL %s %s of shard <%s>: %s\n";
constexpr const char *kMsgConnected = "Connected to SQL %s %s of shard <%s>.\n";
constexpr const char *kMsgReconnecting =
    "Lost connection to SQL %s %s of shard <%s> (%s), reconnecting.\n";
constexpr const char *kMsgSlaveDown = "SQL slave %s of shard <%s> is avoided for %d s.\n";
constexpr const char *kMsgMasterDown =
    "SQL master %s of shard <%s> is avoided for %d s after %s: %s\n";
constexpr const char *kMsgInvalidShard =
    "Invalid SQL shard description, expected <shard>:<user>:<password>:<database>.\n";
constexpr const char *kMsgDuplicateShard = "SQL shard <%s> is already registered.\n";
constexpr const char *kMsgNoShard = "No SQL shard with index %d.\n";
constexpr const char *kMsgNoMaster = "No master SQL server for shard <%s>.\n";
constexpr const char *kMsgMissingMaster = "No master SQL server for shard <%s> in <%s>.\n";
constexpr const char *kMsgNoMasterAtAll = "No master SQL server in <%s>.\n";
constexpr const char *kMsgUnknownShard = "SQL shard <%s> is not registered.\n";
constexpr const char *kMsgOpenFailed = "Cannot open SQL server list <%s>: %s.\n";
constexpr const char *kMsgInvalidHost = "Invalid SQL server line [%d] in <%s> (%.*s).\n";
constexpr const char *kMsgOverlong =
    "%.*s line [%d] in <%s> is longer than %d bytes; the rest of it is ignored.\n";

// Statements that read session state (user variables, the last insert id) or take locks must
// run on the connection that owns that state, so they stay on the master although they start
// with SELECT.
constexpr std::string_view kMasterOnlyMarkers[] = {
    "FOR UPDATE", "LOCK IN SHARE MODE", "LAST_INSERT_ID", "FOUND_ROWS",   "ROW_COUNT",
    "GET_LOCK",   "RELEASE_LOCK",       "IS_FREE_LOCK",   "IS_USED_LOCK", "@",
};

using Clock = std::chrono::steady_clock;

struct Server {
    Server(std::string h, int p, bool sock) : host(std::move(h)), port(p), unix_socket(sock) {}
    const std::string host;
    const int port;
    const bool unix_socket;
    // Until when the server is avoided.
    std::atomic<Clock::rep> down_until{0};

    std::string describe() const {
        if (unix_socket) return host;
        if (host.find(':') != std::string::npos) return qx::format("[%s]:%d", host.c_str(), port);
        return qx::format("%s:%d", host.c_str(), port);
    }
    bool is_down(Clock::time_point now) const {
        return now.time_since_epoch().count() < down_until.load(std::memory_order_relaxed);
    }
};
using ServerPtr = std::shared_ptr<Server>;

// The servers of one shard as read from one server list; never modified once published.
struct Topology {
    ServerPtr master;
    std::vector<ServerPtr> slaves;
};
using TopologyPtr = std::shared_ptr<const Topology>;

struct MysqlCloser {
    void operator()(MYSQL *h) const noexcept {
        if (h) mysql_close(h);
    }
};
using MysqlPtr = std::unique_ptr<MYSQL, MysqlCloser>;

// One MySQL connection. The handle outlives a failed connect so its error text stays readable.
struct Link {
    MysqlPtr handle;
    bool connected = false;
    ServerPtr server;
    Clock::time_point last_used{};

    void close() {
        handle.reset();
        connected = false;
        server.reset();
    }
};

struct Shard;

}  // namespace

struct fr_sql_shard {
    qx::sql::ShardInfo info;
};

struct fr_sql_conn {
    std::shared_ptr<Shard> shard;
    TopologyPtr topology;
    Link master;
    Link slave;
    // Which connection ran the last statement, for its error text.
    bool last_on_slave = false;
    // A session that has written reads from the master from then on, so it sees its own
    // writes; reset when the session goes back to the pool.
    bool wrote = false;
    Clock::time_point idle_since{};
};

namespace {

using ConnPtr = std::unique_ptr<fr_sql_conn>;

struct Shard {
    explicit Shard(qx::sql::ShardInfo i) : info(std::move(i)) {}
    const qx::sql::ShardInfo info;
    TopologyPtr topology;      // guarded by Pool::mutex
    std::deque<ConnPtr> idle;  // guarded by Pool::mutex; oldest first
};
using ShardPtr = std::shared_ptr<Shard>;

struct Pool {
    std::mutex mutex;
    // Guarded by mutex: shards in registration order, and every topology read so far by
    // shard name (a shard registered after its servers were read still finds them).
    std::vector<ShardPtr> shards;
    std::map<std::string, TopologyPtr, std::less<>> topologies;

    std::atomic<long long> idle_timeout_ms{static_cast<long long>(kDefaultIdleTimeoutSec * 1000)};
    std::atomic<int> down_time{kDefaultDownTimeSec};
    std::atomic<int> master_down_time{kDefaultDownTimeSec};
    std::atomic<int> connect_timeout{kConnectTimeoutSec};
    std::atomic<int> read_timeout{kReadTimeoutSec};
    std::atomic<int> write_timeout{kWriteTimeoutSec};
    std::atomic<int> verbosity{0};
    std::atomic<unsigned> next_slave{0};
};

// Never destroyed: other threads may still give sessions back while the process exits, and
// the operating system closes whatever is left open then.
Pool &pool() {
    static Pool *const instance = std::make_unique<Pool>().release();
    return *instance;
}

void library_init() {
    static std::once_flag once;
    std::call_once(once, [] { mysql_library_init(0, nullptr, nullptr); });
}

Clock::duration idle_timeout() {
    return std::chrono::milliseconds(pool().idle_timeout_ms.load(std::memory_order_relaxed));
}

const char *role_of(const Link &link, const fr_sql_conn &conn) {
    return &link == &conn.master ? "master" : "slave";
}

// Failures of the server or of the way to it, as opposed to the statement or the login.
bool is_connection_error(unsigned err) {
    switch (err) {
        case CR_SOCKET_CREATE_ERROR:
        case CR_CONNECTION_ERROR:
        case CR_CONN_HOST_ERROR:
        case CR_IPSOCK_ERROR:
        case CR_UNKNOWN_HOST:
        case CR_SERVER_GONE_ERROR:
        case CR_SERVER_HANDSHAKE_ERR:
        case CR_SERVER_LOST:
        case CR_SERVER_LOST_EXTENDED:
        case ER_CONNECTION_KILLED:
        case ER_SERVER_SHUTDOWN:
        case ER_NET_READ_ERROR:
        case ER_NET_READ_INTERRUPTED:
        case ER_NET_ERROR_ON_WRITE:
        case ER_NET_WRITE_INTERRUPTED:
            return true;
        default:
            return false;
    }
}

// statement_error and login_failed come from a server that answered; lost and timed_out say
// the server (or the way to it) failed.
enum class Outcome { ok, statement_error, login_failed, lost, timed_out };

bool server_failed(Outcome outcome) {
    return outcome == Outcome::lost || outcome == Outcome::timed_out;
}

// The client library reports a timeout as a lost connection; the system error it leaves
// behind, or the time the call took, tells the two apart.
Outcome classify_failure(MYSQL *h, int sys_errno, Clock::duration waited) {
    if (!is_connection_error(mysql_errno(h))) return Outcome::statement_error;
    const Pool &p = pool();
    const int shortest = std::min(p.read_timeout.load(std::memory_order_relaxed),
                                  p.write_timeout.load(std::memory_order_relaxed));
    const bool timed_out = sys_errno == ETIMEDOUT || waited >= std::chrono::seconds(shortest);
    return timed_out ? Outcome::timed_out : Outcome::lost;
}

bool iequal_prefix(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
    }
    return true;
}

bool icontains(std::string_view text, std::string_view upper_needle) {
    if (upper_needle.size() > text.size()) return false;
    for (size_t i = 0; i + upper_needle.size() <= text.size(); ++i) {
        if (iequal_prefix(text.substr(i), upper_needle)) return true;
    }
    return false;
}

bool is_select(std::string_view sql) {
    sql = qx::sql::trim(sql);
    if (!iequal_prefix(sql, "SELECT")) return false;
    if (sql.size() == 6) return true;
    const unsigned char next = static_cast<unsigned char>(sql[6]);
    return !std::isalnum(next) && next != '_';
}

bool may_use_slave(std::string_view sql) {
    for (std::string_view marker : kMasterOnlyMarkers) {
        if (icontains(sql, marker)) return false;
    }
    return true;
}

// Opens a fresh connection on link to server, replacing whatever it held.
Outcome open_link(Link &link, const ServerPtr &server, const fr_sql_conn &conn) {
    const qx::sql::ShardInfo &info = conn.shard->info;
    const char *role = role_of(link, conn);
    MYSQL *fresh = mysql_init(nullptr);
    if (!fresh) {
        FR_LOG(kSrc, kChannel, kPrioError, kMsgConnectFailed, role, server->describe().c_str(),
               info.name.c_str(), "out of memory");
        link.connected = false;
        return Outcome::login_failed;
    }
    link.handle.reset(fresh);
    link.connected = false;
    link.server = server;

    const Pool &p = pool();
    const unsigned connect_timeout = static_cast<unsigned>(p.connect_timeout.load());
    const unsigned read_timeout = static_cast<unsigned>(p.read_timeout.load());
    const unsigned write_timeout = static_cast<unsigned>(p.write_timeout.load());
    // Without an explicit protocol the library would turn "localhost" into its default socket.
    const unsigned protocol = server->unix_socket ? MYSQL_PROTOCOL_SOCKET : MYSQL_PROTOCOL_TCP;
    mysql_options(fresh, MYSQL_OPT_CONNECT_TIMEOUT, &connect_timeout);
    mysql_options(fresh, MYSQL_OPT_READ_TIMEOUT, &read_timeout);
    mysql_options(fresh, MYSQL_OPT_WRITE_TIMEOUT, &write_timeout);
    mysql_options(fresh, MYSQL_OPT_PROTOCOL, &protocol);

    const char *host = server->unix_socket ? "localhost" : server->host.c_str();
    const char *socket = server->unix_socket ? server->host.c_str() : nullptr;
    const unsigned port = server->unix_socket ? 0u : static_cast<unsigned>(server->port);
    const char *database = info.database.empty() ? nullptr : info.database.c_str();
    // Stored procedures answer with several result sets; the client must announce it copes.
    if (!mysql_real_connect(fresh, host, info.user.c_str(), info.password.c_str(), database, port,
                            socket, CLIENT_MULTI_RESULTS)) {
        FR_LOG(kSrc, kChannel, kPrioError, kMsgConnectFailed, role, server->describe().c_str(),
               info.name.c_str(), mysql_error(fresh));
        return is_connection_error(mysql_errno(fresh)) ? Outcome::lost : Outcome::login_failed;
    }
    link.connected = true;
    link.last_used = Clock::now();
    if (pool().verbosity.load(std::memory_order_relaxed) >= kVerboseConnects) {
        FR_LOG(kSrc, kChannel, kPrioDebug, kMsgConnected, role, server->describe().c_str(),
               info.name.c_str());
    }
    return Outcome::ok;
}

// Makes link a live connection to server: reuses it when it is fresh, pings it when it has
// been idle long enough for the server to have dropped it, and reconnects once otherwise
// (but not after the ping timed out: the connect would wait on the same stalled server).
Outcome ensure_link(Link &link, const ServerPtr &server, const fr_sql_conn &conn) {
    if (link.connected && link.server == server) {
        const Clock::duration timeout = idle_timeout();
        const Clock::time_point now = Clock::now();
        if (timeout <= Clock::duration::zero() || now - link.last_used <= timeout) {
            return Outcome::ok;
        }
        errno = 0;
        if (mysql_ping(link.handle.get()) == 0) {
            link.last_used = now;
            return Outcome::ok;
        }
        const int sys_errno = errno;
        if (classify_failure(link.handle.get(), sys_errno, Clock::now() - now) ==
            Outcome::timed_out) {
            link.connected = false;
            return Outcome::timed_out;
        }
        FR_LOG(kSrc, kChannel, kPrioNotice, kMsgReconnecting, role_of(link, conn),
               server->describe().c_str(), conn.shard->info.name.c_str(),
               mysql_error(link.handle.get()));
    }
    return open_link(link, server, conn);
}

// Results left over by a multi-result statement would put the connection out of sync.
void drain_pending_results(MYSQL *h) {
    while (mysql_more_results(h)) {
        if (mysql_next_result(h) != 0) break;
        if (MYSQL_RES *extra = mysql_store_result(h)) mysql_free_result(extra);
    }
}

Outcome execute(Link &link, const std::string &sql, int store, MYSQL_RES **result) {
    MYSQL *h = link.handle.get();
    const Clock::time_point start = Clock::now();
    errno = 0;
    drain_pending_results(h);
    if (mysql_real_query(h, sql.data(), sql.size()) != 0) {
        const int sys_errno = errno;
        return classify_failure(h, sys_errno, Clock::now() - start);
    }
    MYSQL_RES *res = store ? mysql_store_result(h) : mysql_use_result(h);
    if (!res && mysql_field_count(h) != 0) {
        const int sys_errno = errno;
        return classify_failure(h, sys_errno, Clock::now() - start);
    }
    if (store) drain_pending_results(h);
    link.last_used = Clock::now();
    if (result) {
        *result = res;
    } else if (res) {
        mysql_free_result(res);
    }
    return Outcome::ok;
}

// Runs once, and once more on a new connection when the first one turned out to be dead (a
// server restarted under an idle link). A statement that timed out is not run again: a
// stalled server would keep the caller waiting twice.
Outcome execute_with_reconnect(Link &link, const fr_sql_conn &conn, const std::string &sql,
                               int store, MYSQL_RES **result) {
    Outcome outcome = execute(link, sql, store, result);
    if (outcome != Outcome::lost) return outcome;
    ServerPtr server = link.server;
    FR_LOG(kSrc, kChannel, kPrioNotice, kMsgReconnecting, role_of(link, conn),
           server->describe().c_str(), conn.shard->info.name.c_str(),
           mysql_error(link.handle.get()));
    const Outcome reopened = open_link(link, server, conn);
    if (reopened != Outcome::ok) return reopened;
    return execute(link, sql, store, result);
}

void mark_slave_down(const ServerPtr &server, const fr_sql_conn &conn) {
    const int seconds = pool().down_time.load(std::memory_order_relaxed);
    const Clock::time_point until = Clock::now() + std::chrono::seconds(seconds);
    server->down_until.store(until.time_since_epoch().count(), std::memory_order_relaxed);
    FR_LOG(kSrc, kChannel, kPrioWarning, kMsgSlaveDown, server->describe().c_str(),
           conn.shard->info.name.c_str(), seconds);
}

// Until the master down time has passed no session of the shard is handed out and statements
// on the master fail at once. Idle sessions of the shard are closed: they would only wait on
// the same server again. Logged once per failure, by the session that marked it.
void mark_master_down(fr_sql_conn &conn, Outcome cause) {
    Link &link = conn.master;
    const ServerPtr server = conn.topology->master;
    const int seconds = pool().master_down_time.load(std::memory_order_relaxed);
    const Clock::time_point now = Clock::now();
    const Clock::rep until = (now + std::chrono::seconds(seconds)).time_since_epoch().count();
    const Clock::rep before = server->down_until.exchange(until, std::memory_order_relaxed);
    // The handle stays: callers read the failure's text through fr_sql_conn_get_mysql.
    link.connected = false;
    std::deque<ConnPtr> idle;
    {
        Pool &p = pool();
        std::lock_guard lock(p.mutex);
        if (conn.shard->topology == conn.topology) idle.swap(conn.shard->idle);
    }
    if (before <= now.time_since_epoch().count()) {
        FR_LOG(kSrc, kChannel, kPrioError, kMsgMasterDown, server->describe().c_str(),
               conn.shard->info.name.c_str(), seconds,
               cause == Outcome::timed_out ? "a timeout" : "a connection failure",
               link.handle ? mysql_error(link.handle.get()) : "");
    }
}

ServerPtr choose_slave(const fr_sql_conn &conn) {
    const Clock::time_point now = Clock::now();
    // Keep the slave this session already talks to: no new connection, same replica view.
    if (conn.slave.connected && conn.slave.server && !conn.slave.server->is_down(now)) {
        return conn.slave.server;
    }
    const std::vector<ServerPtr> &slaves = conn.topology->slaves;
    if (slaves.empty()) return nullptr;
    // Sessions start at different slaves so that the load spreads.
    const size_t start = pool().next_slave.fetch_add(1, std::memory_order_relaxed);
    for (size_t i = 0; i < slaves.size(); ++i) {
        const ServerPtr &candidate = slaves[(start + i) % slaves.size()];
        if (!candidate->is_down(now)) return candidate;
    }
    return nullptr;
}

// 0 when a slave answered; nullopt when the master must run the statement: no slave is
// usable, or the statement failed there (the master's answer is the one that counts).
std::optional<int> run_on_slave(fr_sql_conn &conn, const std::string &sql, int store,
                                MYSQL_RES **result) {
    for (size_t attempt = 0; attempt < conn.topology->slaves.size(); ++attempt) {
        ServerPtr server = choose_slave(conn);
        if (!server) return std::nullopt;
        if (conn.slave.server != server) conn.slave.close();
        Outcome outcome = ensure_link(conn.slave, server, conn);
        if (outcome == Outcome::ok) {
            outcome = execute_with_reconnect(conn.slave, conn, sql, store, result);
        }
        if (outcome == Outcome::ok) {
            conn.last_on_slave = true;
            return 0;
        }
        if (outcome == Outcome::statement_error) return std::nullopt;
        mark_slave_down(server, conn);
        conn.slave.close();
    }
    return std::nullopt;
}

int run_query(fr_sql_conn &conn, const std::string &sql, int store, MYSQL_RES **result) {
    const bool select = is_select(sql);
    if (!select) conn.wrote = true;
    // The marker scan reads the whole statement: only pay for it when a slave could take it.
    if (select && !conn.wrote && !conn.topology->slaves.empty() && may_use_slave(sql)) {
        if (std::optional<int> status = run_on_slave(conn, sql, store, result)) return *status;
    }
    conn.last_on_slave = false;
    const ServerPtr &master = conn.topology->master;
    if (master->is_down(Clock::now())) return -1;
    Outcome outcome = ensure_link(conn.master, master, conn);
    if (outcome == Outcome::ok)
        outcome = execute_with_reconnect(conn.master, conn, sql, store, result);
    if (server_failed(outcome)) mark_master_down(conn, outcome);
    return outcome == Outcome::ok ? 0 : -1;
}

// Takes every shard, topology and idle session out of the pool; they are closed when the
// returned owners go out of scope, after the lock has been released.
struct Detached {
    std::vector<ShardPtr> shards;
    std::deque<ConnPtr> idle;
};

Detached reset_pool() {
    Pool &p = pool();
    Detached out;
    std::lock_guard lock(p.mutex);
    for (auto &shard : p.shards) {
        for (auto &conn : shard->idle)
            out.idle.push_back(std::move(conn));
        shard->idle.clear();
    }
    out.shards.swap(p.shards);
    p.topologies.clear();
    p.down_time.store(kDefaultDownTimeSec);
    p.master_down_time.store(kDefaultDownTimeSec);
    p.connect_timeout.store(kConnectTimeoutSec);
    p.read_timeout.store(kReadTimeoutSec);
    p.write_timeout.store(kWriteTimeoutSec);
    p.verbosity.store(0);
    p.idle_timeout_ms.store(static_cast<long long>(kDefaultIdleTimeoutSec * 1000));
    return out;
}

std::atomic<int> *timeout_slot(fr_sql_timeout_t which) {
    switch (which) {
        case FR_SQL_TIMEOUT_CONNECT:
            return &pool().connect_timeout;
        case FR_SQL_TIMEOUT_READ:
            return &pool().read_timeout;
        case FR_SQL_TIMEOUT_WRITE:
            return &pool().write_timeout;
    }
    return nullptr;
}

struct ParsedServers {
    ServerPtr master;
    std::vector<ServerPtr> slaves;
};

}  // namespace

extern "C" {

int fr_sqlpool_init_api(void *reserved1, void *reserved2, double idle_timeout) {
    (void)reserved1;
    (void)reserved2;
    try {
        library_init();
        Detached old = reset_pool();
        const double ms = std::isfinite(idle_timeout) && idle_timeout > 0 ? idle_timeout * 1000 : 0;
        pool().idle_timeout_ms.store(static_cast<long long>(ms));
        return 0;
    } catch (...) {
        return -1;
    }
}

void fr_sqlpool_verbosity_set(int level) {
    pool().verbosity.store(level);
}

fr_sql_shard_t *fr_sql_shard_parse_info(const char *text) {
    try {
        std::optional<qx::sql::ShardInfo> info =
            text ? qx::sql::parse_shard_info(text) : std::nullopt;
        if (!info) {
            // The description holds a password; the message must not repeat it.
            FR_LOG(kSrc, kChannel, kPrioError, "%s", kMsgInvalidShard);
            return nullptr;
        }
        auto shard = std::make_unique<fr_sql_shard>();
        shard->info = std::move(*info);
        return shard.release();
    } catch (...) {
        return nullptr;
    }
}

int fr_sqlpool_shard_add(fr_sql_shard_t *shard) {
    std::unique_ptr<fr_sql_shard> owned(shard);
    if (!owned) return -1;
    try {
        Pool &p = pool();
        {
            std::lock_guard lock(p.mutex);
            const bool known =
                std::any_of(p.shards.begin(), p.shards.end(),
                            [&](const ShardPtr &s) { return s->info.name == owned->info.name; });
            if (!known) {
                auto added = std::make_shared<Shard>(std::move(owned->info));
                if (auto it = p.topologies.find(added->info.name); it != p.topologies.end()) {
                    added->topology = it->second;
                }
                p.shards.push_back(std::move(added));
                return 0;
            }
        }
        FR_LOG(kSrc, kChannel, kPrioError, kMsgDuplicateShard, owned->info.name.c_str());
        return -1;
    } catch (...) {
        return -1;
    }
}

void fr_sqlpool_down_time_set(int seconds) {
    pool().down_time.store(std::max(seconds, 0));
}

int fr_sqlpool_down_time_get(void) {
    return pool().down_time.load();
}

void fr_sqlpool_master_down_time_set(int seconds) {
    pool().master_down_time.store(std::max(seconds, 0));
}

int fr_sqlpool_master_down_time_get(void) {
    return pool().master_down_time.load();
}

void fr_sqlpool_timeout_set(fr_sql_timeout_t which, int seconds) {
    if (std::atomic<int> *slot = timeout_slot(which)) slot->store(std::max(seconds, 1));
}

int fr_sqlpool_timeout_get(fr_sql_timeout_t which) {
    std::atomic<int> *slot = timeout_slot(which);
    return slot ? slot->load() : -1;
}

int fr_sql_shard_parse_connection_info(const char *path, const char *shard, int required) {
    try {
        if (!path) return -1;
        qx::File fp(std::fopen(path, "r"));
        if (!fp) {
            FR_LOG(kSrc, kChannel, kPrioError, kMsgOpenFailed, path, std::strerror(errno));
            return -1;
        }
        std::map<std::string, ParsedServers, std::less<>> parsed;
        qx::sql::for_each_config_line(fp.get(), [&](const qx::sql::ConfigLine &line) {
            const std::string_view text = line.text;
            for (std::string_view keyword : {kMasterKeyword, kSlaveKeyword}) {
                if (line.overlong && line.whole.find(keyword) != std::string_view::npos) {
                    FR_LOG(kSrc, kChannel, kPrioError, kMsgOverlong,
                           static_cast<int>(keyword.size()), keyword.data(), line.number, path,
                           kLineBytes);
                }
            }
            std::string_view keyword = kMasterKeyword;
            size_t at = text.find(keyword);
            if (at == std::string_view::npos) {
                keyword = kSlaveKeyword;
                at = text.find(keyword);
                if (at == std::string_view::npos) return;
            }
            const bool is_master = keyword == kMasterKeyword;
            std::optional<qx::sql::HostSpec> host_spec =
                qx::sql::parse_host_value(qx::sql::trim(text.substr(at + keyword.size())));
            if (!host_spec) {
                FR_LOG(kSrc, kChannel, kPrioError, kMsgInvalidHost, line.number, path,
                       static_cast<int>(keyword.size()), keyword.data());
                return;
            }
            if (shard && host_spec->shard != shard) return;
            auto server =
                std::make_shared<Server>(host_spec->host, host_spec->port, host_spec->unix_socket);
            ParsedServers &servers = parsed[host_spec->shard];
            if (!is_master) {
                servers.slaves.push_back(std::move(server));
            } else if (!servers.master) {
                servers.master = std::move(server);  // the first master line of a shard wins
            }
        });

        std::vector<std::string> missing;
        bool no_master_at_all = false;
        bool unknown = false;
        Detached stale;
        {
            Pool &p = pool();
            std::lock_guard lock(p.mutex);
            // The list read now replaces what an earlier one said about the same shards.
            if (shard) {
                if (auto it = p.topologies.find(shard); it != p.topologies.end()) {
                    p.topologies.erase(it);
                }
            } else {
                p.topologies.clear();
            }
            for (auto &[name, servers] : parsed) {
                auto topology = std::make_shared<Topology>();
                topology->master = std::move(servers.master);
                topology->slaves = std::move(servers.slaves);
                p.topologies[name] = std::move(topology);
            }
            bool considered = false;
            for (auto &s : p.shards) {
                if (shard && s->info.name != shard) continue;
                considered = true;
                auto it = p.topologies.find(s->info.name);
                TopologyPtr topology = it != p.topologies.end() ? it->second : nullptr;
                if (topology != s->topology) {
                    // Sessions of the old servers are closed rather than reused.
                    for (auto &conn : s->idle)
                        stale.idle.push_back(std::move(conn));
                    s->idle.clear();
                    s->topology = topology;
                }
                if (!topology || !topology->master) missing.push_back(s->info.name);
            }
            if (shard && !considered) unknown = true;
            // With no shard registered yet the list only has to name some master.
            if (!shard && p.shards.empty()) {
                no_master_at_all =
                    std::none_of(p.topologies.begin(), p.topologies.end(),
                                 [](const auto &t) { return t.second->master != nullptr; });
            }
        }
        if (unknown) {
            FR_LOG(kSrc, kChannel, kPrioError, kMsgUnknownShard, shard);
            return -1;
        }
        for (const std::string &name : missing) {
            FR_LOG(kSrc, kChannel, required ? kPrioError : kPrioWarning, kMsgMissingMaster,
                   name.c_str(), path);
        }
        if (no_master_at_all) {
            FR_LOG(kSrc, kChannel, required ? kPrioError : kPrioWarning, kMsgNoMasterAtAll, path);
        }
        return required && (no_master_at_all || !missing.empty()) ? -1 : 0;
    } catch (...) {
        return -1;
    }
}

fr_sql_conn_t *fr_sqlpool_conn_get(int shard_index) {
    try {
        library_init();
        Pool &p = pool();
        ShardPtr shard;
        TopologyPtr topology;
        ConnPtr conn;
        bool master_down = false;
        {
            std::lock_guard lock(p.mutex);
            if (shard_index >= 0 && static_cast<size_t>(shard_index) < p.shards.size()) {
                shard = p.shards[static_cast<size_t>(shard_index)];
                topology = shard->topology;
                master_down =
                    topology && topology->master && topology->master->is_down(Clock::now());
                if (!master_down && !shard->idle.empty()) {
                    conn = std::move(shard->idle.back());
                    shard->idle.pop_back();
                }
            }
        }
        if (!shard) {
            FR_LOG(kSrc, kChannel, kPrioError, kMsgNoShard, shard_index);
            return nullptr;
        }
        if (!topology || !topology->master) {
            FR_LOG(kSrc, kChannel, kPrioError, kMsgNoMaster, shard->info.name.c_str());
            return nullptr;
        }
        if (master_down) return nullptr;
        if (!conn) {
            conn = std::make_unique<fr_sql_conn>();
            conn->shard = shard;
            conn->topology = topology;
        }
        // Connecting here lets callers take their "no session" path at once when the master
        // is unreachable, instead of failing on their first statement.
        if (const Outcome outcome = ensure_link(conn->master, topology->master, *conn);
            outcome != Outcome::ok) {
            if (server_failed(outcome)) mark_master_down(*conn, outcome);
            return nullptr;
        }
        conn->last_on_slave = false;
        conn->wrote = false;
        return conn.release();
    } catch (...) {
        return nullptr;
    }
}

void fr_sqlpool_conn_free(fr_sql_conn_t *raw) {
    ConnPtr conn(raw);
    if (!conn) return;
    std::vector<ConnPtr> expired;
    try {
        Pool &p = pool();
        std::lock_guard lock(p.mutex);
        const bool current = conn->master.connected &&
                             std::any_of(p.shards.begin(), p.shards.end(),
                                         [&](const ShardPtr &s) { return s == conn->shard; }) &&
                             conn->topology == conn->shard->topology;
        if (current) {
            const Clock::time_point now = Clock::now();
            const Clock::duration timeout = idle_timeout();
            std::deque<ConnPtr> &idle = conn->shard->idle;
            // Sessions nobody needed for a whole idle period are surplus: close them.
            while (timeout > Clock::duration::zero() && !idle.empty() &&
                   now - idle.front()->idle_since > timeout) {
                expired.push_back(std::move(idle.front()));
                idle.pop_front();
            }
            conn->idle_since = now;
            conn->last_on_slave = false;
            conn->wrote = false;
            idle.push_back(std::move(conn));
        }
    } catch (...) {
        // Out of memory while pooling: the session is simply closed below.
    }
    // conn (when not pooled) and expired close here, outside the lock.
}

int fr_sqlpool_destroy(void) {
    try {
        Detached old = reset_pool();
        return 0;
    } catch (...) {
        return 0;
    }
}

int fr_sql_conn_query(fr_sql_conn_t *conn, int store, MYSQL_RES **result, const char *fmt, ...) {
    if (result) *result = nullptr;
    if (!conn || !fmt) return -1;
    std::string sql;
    va_list ap;
    va_start(ap, fmt);
    try {
        sql = qx::vformat(fmt, ap);
    } catch (...) {
        va_end(ap);
        return -1;
    }
    va_end(ap);
    try {
        return run_query(*conn, sql, store, result);
    } catch (...) {
        return -1;
    }
}

int fr_sqlpool_forget(void) {
    try {
        Detached old = reset_pool();
        // Closing would send the server a quit on a socket the parent shares: the parent's
        // session would end with it. The handles are leaked instead.
        for (ConnPtr &conn : old.idle) {
            (void)conn->master.handle.release();
            (void)conn->slave.handle.release();
        }
        return 0;
    } catch (...) {
        return 0;
    }
}

MYSQL *fr_sql_conn_get_mysql(fr_sql_conn_t *conn) {
    if (!conn) return nullptr;
    if (conn->last_on_slave && conn->slave.handle) return conn->slave.handle.get();
    return conn->master.handle.get();
}

}  // extern "C"
