// The SQL pool on the sandbox MariaDB: set-up from real files, session reuse, recovery of lost
// connections, unreachable servers and slave routing.
#include <mysql.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qxtest.hpp"
#include "sql_util.hpp"
#include "sqlsession.h"

namespace {

static auto *const sandbox_env = qxtest::register_sandbox();

const char kCredentials[] = "DB_CREDENTIALS main:quorvex:sandbox:quorvex\n";

std::string socket_path() {
    return qxtest::path("/run/mysqld.sock");
}
std::string master_line() {
    return "DB_MASTER main:" + socket_path() + ":0\n";
}

// A private directory for the test's configuration files, removed afterwards.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/qx-sqlsession-XXXXXX";
        if (mkdtemp(tmpl)) dir_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    std::string write(const std::string &name, const std::string &content) const {
        std::string file = dir_ + "/" + name;
        std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
        return file;
    }
    std::string file(const std::string &name) const { return dir_ + "/" + name; }

  private:
    std::string dir_;
};

// First column of the first row, or nullopt when the statement failed.
std::optional<std::string> query_value(SessionHandle *sess, const char *statement) {
    MYSQL_RES *raw = nullptr;
    if (fr_sql_conn_query(sess, 1, &raw, "%s", statement) != 0) return std::nullopt;
    qx::Result result(raw);
    MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    if (!row || !row[0]) return std::string();
    return std::string(row[0]);
}

std::string connection_id(SessionHandle *sess) {
    return query_value(sess, "SELECT CONNECTION_ID()").value_or("failed");
}

class SqlSessionTest : public ::testing::Test {
  protected:
    void TearDown() override { qx_sql_pool_destroy(); }

    int init(const std::string &creds, const std::string &servers) {
        return qx_sql_pool_init_from_config_files(dir_.write("pbx.conf", creds).c_str(),
                                                  dir_.write("sqldbase.conf", servers).c_str());
    }

    TempDir dir_;
};

TEST_F(SqlSessionTest, SetUpFollowsTheConfigurationLines) {
    struct Times {  // seconds; checked when the set-up succeeded
        int slave = 30, master = 30, connect = 2, read = 30, write = 30;
    };
    struct Row {
        const char *name;
        std::string creds;
        std::string servers;
        int status;
        Times times;
        bool session;                  // whether a working session can be taken afterwards
        const char *logged = nullptr;  // the complaint expected; none about lines otherwise
    };
    const std::string master = master_line();
    const std::string overlong(300, 'x');
    const Row rows[] = {
        {"valid", kCredentials, master, 0, {}, true},
        {"commented-out line ignored",
         "#DB_CREDENTIALS main:quorvex:wrong:quorvex\n" + std::string(kCredentials),
         master,
         0,
         {},
         true},
        {"no credentials still needs only a master",
         "# DB_CREDENTIALS main:broken\n",
         master,
         0,
         {},
         false},
        {"hash after the value cuts it",
         "DB_CREDENTIALS main:quorvex:sandbox:quorvex # pool user\n",
         master,
         0,
         {},
         true},
        {"keyword anywhere in the line",
         "  MY_DB_CREDENTIALS main:quorvex:sandbox:quorvex\n",
         master,
         0,
         {},
         true},
        {"invalid credentials abort",
         "DB_CREDENTIALS main:quorvex\n" + std::string(kCredentials),
         master,
         -1,
         {},
         false,
         "Invalid DB_CREDENTIALS line [1] in <"},
        // Read in pieces, the tail would be an invalid line of its own and abort the set-up.
        {"credentials past the line buffer are no line of their own",
         kCredentials + overlong + "DB_CREDENTIALS main:broken\n",
         master,
         0,
         {},
         true,
         "DB_CREDENTIALS line [2] in <"},
        {"second down time wins",
         kCredentials,
         "SLAVE_DOWN_TIME 5\nSLAVE_DOWN_TIME 7\n" + master,
         0,
         {.slave = 7},
         true},
        {"non-numeric down time is 0",
         kCredentials,
         "SLAVE_DOWN_TIME soon\n" + master,
         0,
         {.slave = 0},
         true,
         "Invalid SLAVE_DOWN_TIME line [1] in <"},
        {"commented-out down time ignored",
         kCredentials,
         "#SLAVE_DOWN_TIME 5\n" + master,
         0,
         {},
         true},
        {"down time past the line buffer ignored",
         kCredentials,
         master + overlong + "SLAVE_DOWN_TIME 5\n",
         0,
         {},
         true,
         "SLAVE_DOWN_TIME line [2] in <"},
        {"timeouts and master down time",
         kCredentials,
         "DB_CONNECT_TIMEOUT 3\nDB_READ_TIMEOUT 4 # s\nXDB_WRITE_TIMEOUT 5\nMASTER_DOWN_TIME 6\n" +
             master,
         0,
         {.master = 6, .connect = 3, .read = 4, .write = 5},
         true},
        // 0 would let a stalled server block for ever.
        {"zero timeout keeps the default",
         kCredentials,
         "DB_READ_TIMEOUT 0\n" + master,
         0,
         {},
         true,
         "Invalid DB_READ_TIMEOUT line [1] in <"},
        {"malformed master down time keeps the default",
         kCredentials,
         "MASTER_DOWN_TIME 5s\n" + master,
         0,
         {},
         true,
         "Invalid MASTER_DOWN_TIME line [1] in <"},
        {"malformed server line",
         kCredentials,
         "DB_SLAVE main:\n" + master,
         0,
         {},
         true,
         "Invalid SQL server line [1] in <"},
        // A keyword at the very end of the file leaves no value; the bytes of the longer line
        // before it must not be taken for one.
        {"bare credentials keyword at end of file",
         "XXXXXXXXXXXXXXXmain:quorvex:sandbox:quorvex\nDB_CREDENTIALS",
         master,
         -1,
         {},
         false,
         "Invalid DB_CREDENTIALS line [2] in <"},
        {"bare down time keyword at end of file",
         kCredentials,
         master + "XXXXXXXXXXXXXXXX42\nSLAVE_DOWN_TIME",
         0,
         {.slave = 0},
         true,
         "Invalid SLAVE_DOWN_TIME line [3] in <"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        qxtest::LogCapture log;
        ASSERT_EQ(row.status, init(row.creds, row.servers));
        if (row.status == 0) {
            const Times &t = row.times;
            EXPECT_EQ(t.slave, fr_sqlpool_down_time_get());
            EXPECT_EQ(t.master, fr_sqlpool_master_down_time_get());
            EXPECT_EQ(t.connect, fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_CONNECT));
            EXPECT_EQ(t.read, fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_READ));
            EXPECT_EQ(t.write, fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_WRITE));
        }
        if (row.logged) {
            EXPECT_TRUE(log.contains(row.logged));
        } else {
            EXPECT_FALSE(log.contains("Invalid") || log.contains("longer than"));
        }
        SessionHandle *sess = sess_init();
        EXPECT_EQ(row.session, sess && query_value(sess, "SELECT 1") == "1");
        sess_destroy(sess);
        qx_sql_pool_destroy();
    }
}

TEST_F(SqlSessionTest, MissingMasterIsReportedWithTheServersFile) {
    qxtest::LogCapture log;
    ASSERT_EQ(-1, init(kCredentials, "SLAVE_DOWN_TIME 5\nDB_SLAVE main:" + socket_path() + ":0\n"));
    const std::string expected = "Failed to find at least one master SQL server in <" +
                                 dir_.file("sqldbase.conf") +
                                 ">. Invalid configuration, cannot start.\n\n";
    const auto &lines = log.lines();
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), expected));
}

TEST_F(SqlSessionTest, UnreadableFilesFailTheSetUp) {
    qxtest::LogCapture log;
    EXPECT_EQ(
        -1, qx_sql_pool_init_from_config_files(dir_.file("absent.conf").c_str(),
                                               dir_.write("sqldbase.conf", master_line()).c_str()));
    EXPECT_TRUE(log.contains(":condition failed\n"));
    EXPECT_EQ(-1, qx_sql_pool_init_from_config_files(dir_.write("pbx.conf", kCredentials).c_str(),
                                                     dir_.file("absent.conf").c_str()));
    EXPECT_EQ(-1, qx_sql_pool_init_from_config_files(nullptr, nullptr));
}

TEST_F(SqlSessionTest, SessionIsReusedAcrossCalls) {
    ASSERT_EQ(0, init(kCredentials, master_line()));
    std::set<std::string> ids;
    for (int i = 0; i < 20; ++i) {
        SessionHandle *sess = sess_init();
        ASSERT_NE(nullptr, sess);
        ids.insert(connection_id(sess));
        sess_destroy(sess);
    }
    EXPECT_EQ(1u, ids.size());
    EXPECT_EQ(0u, ids.count("failed"));
    sess_destroy(nullptr);  // legal, and harmless
}

TEST_F(SqlSessionTest, KilledConnectionIsRecoveredTransparently) {
    ASSERT_EQ(0, init(kCredentials, master_line()));
    // Killed while the caller holds the session, and while the session sits in the pool.
    for (bool held : {true, false}) {
        SCOPED_TRACE(held ? "held" : "pooled");
        qxtest::LogCapture log;
        SessionHandle *sess = sess_init();
        ASSERT_NE(nullptr, sess);
        const std::string before = connection_id(sess);
        if (!held) sess_destroy(sess);
        qxtest::sql("KILL " + before);
        if (!held) sess = sess_init();
        ASSERT_NE(nullptr, sess);
        const std::string after = connection_id(sess);
        EXPECT_NE("failed", after);
        EXPECT_NE(before, after);
        EXPECT_FALSE(log.contains("is avoided"));  // a restart is no reason to avoid the master
        sess_destroy(sess);
    }
}

TEST_F(SqlSessionTest, IdleConnectionIsCheckedBeforeReuse) {
    ASSERT_EQ(0, init(kCredentials, master_line()));
    // Set the pool up again by hand with a short idle time so the ping path is taken.
    ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 0.2));
    ASSERT_EQ(0, fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:quorvex:sandbox:quorvex")));
    ASSERT_EQ(0,
              fr_sql_shard_parse_connection_info(dir_.file("sqldbase.conf").c_str(), nullptr, 1));
    SessionHandle *sess = sess_init();
    ASSERT_NE(nullptr, sess);
    const unsigned long killed = mysql_thread_id(fr_sql_conn_get_mysql(sess));
    sess_destroy(sess);
    qxtest::sql("KILL " + std::to_string(killed));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sess = sess_init();
    ASSERT_NE(nullptr, sess);
    // Already replaced when handed out, before any statement ran on it.
    EXPECT_NE(killed, mysql_thread_id(fr_sql_conn_get_mysql(sess)));
    EXPECT_EQ("1", query_value(sess, "SELECT 1"));
    sess_destroy(sess);
}

TEST_F(SqlSessionTest, StatementErrorIsLeftToTheCaller) {
    ASSERT_EQ(0, init(kCredentials, master_line()));
    SessionHandle *sess = sess_init();
    ASSERT_NE(nullptr, sess);
    qxtest::LogCapture log;
    MYSQL_RES *result = reinterpret_cast<MYSQL_RES *>(1);
    // Neither marks the master down: the server answered.
    EXPECT_NE(0, fr_sql_conn_query(sess, 1, &result, "SELECT * FROM no_such_table"));
    EXPECT_NE(0, fr_sql_conn_query(sess, 1, &result, "SELEC %d", 1));
    EXPECT_EQ(nullptr, result);
    EXPECT_NE(std::string(), mysql_error(fr_sql_conn_get_mysql(sess)));
    EXPECT_TRUE(log.lines().empty());
    // A statement without result set gives a null result, and the session stays usable.
    EXPECT_EQ(0, fr_sql_conn_query(sess, 1, &result, "DO %d", 1));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ("1", query_value(sess, "SELECT 1"));
    sess_destroy(sess);
}

TEST_F(SqlSessionTest, UnreachableMasterFailsQuickly) {
    const std::string rows[] = {
        "DB_MASTER main:" + qxtest::path("/run/no-such-mysqld.sock") + ":0\n",
        "DB_MASTER main:127.0.0.1:1\n",
        "DB_MASTER main:10.255.255.1:3306\n",  // nothing answers there: the connect timeout
    };
    for (const std::string &servers : rows) {
        SCOPED_TRACE(servers);
        ASSERT_EQ(0, init(kCredentials, servers));
        qxtest::LogCapture log;
        const auto start = std::chrono::steady_clock::now();
        SessionHandle *sess = sess_init();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(nullptr, sess);
        sess_destroy(sess);
        EXPECT_LT(elapsed, std::chrono::milliseconds(3500));
        EXPECT_TRUE(log.contains("Cannot connect to SQL master"));
        // Marked down: the next session is refused without another attempt.
        EXPECT_EQ(nullptr, sess_init());
        EXPECT_EQ(1u, log.count("Cannot connect to SQL master"));
        EXPECT_EQ(1u, log.count("is avoided for 30 s"));
    }
}

TEST_F(SqlSessionTest, StalledMasterIsAvoidedForTheDownTimeThenTriedAgain) {
    ASSERT_EQ(
        0, init(kCredentials,
                "DB_READ_TIMEOUT 1\nDB_CONNECT_TIMEOUT 1\nMASTER_DOWN_TIME 2\n" + master_line()));
    SessionHandle *held = sess_init();
    sess_destroy(sess_init());  // an idle session in the pool
    ASSERT_NE(nullptr, held);
    qxtest::LogCapture log;
    {
        qxtest::StoppedDatabase stopped;
        ASSERT_TRUE(stopped.stopped());
        EXPECT_EQ(std::nullopt, query_value(held, "SELECT 1"));
        // Timed out once; no reconnect that would wait on the stalled server again.
        EXPECT_EQ(1u, log.count("is avoided for 2 s after a timeout"));
        EXPECT_EQ(0u, log.count("reconnecting"));
        // Refused at once: neither the idle session nor a new connection is tried.
        EXPECT_EQ(nullptr, sess_init());
        EXPECT_EQ(std::nullopt, query_value(held, "SELECT 1"));
        EXPECT_EQ(0u, log.count("Cannot connect"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    SessionHandle *sess = sess_init();
    ASSERT_NE(nullptr, sess);
    EXPECT_EQ("1", query_value(sess, "SELECT 1"));
    EXPECT_EQ("1", query_value(held, "SELECT 1"));
    EXPECT_EQ(1u, log.count("is avoided"));
    sess_destroy(sess);
    sess_destroy(held);
}

TEST_F(SqlSessionTest, DownSlaveIsAvoidedForTheDownTime) {
    ASSERT_EQ(0, init(kCredentials, "SLAVE_DOWN_TIME 1\n" + master_line() + "DB_SLAVE main:" +
                                        qxtest::path("/run/no-such-slave.sock") + ":0\n"));
    qxtest::LogCapture log;
    const char failed[] = "Cannot connect to SQL slave";
    for (int i = 0; i < 3; ++i) {
        SessionHandle *sess = sess_init();
        ASSERT_NE(nullptr, sess);
        EXPECT_EQ("1", query_value(sess, "SELECT 1"));
        sess_destroy(sess);
    }
    EXPECT_EQ(1u, log.count(failed));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    SessionHandle *sess = sess_init();
    ASSERT_NE(nullptr, sess);
    EXPECT_EQ("1", query_value(sess, "SELECT 1"));
    EXPECT_EQ(2u, log.count(failed));  // tried again once the down time was over
    sess_destroy(sess);
}

TEST_F(SqlSessionTest, OnlyPlainSelectsGoToTheSlave) {
    // The sandbox server stands in for a slave: the slave connection is a second one.
    ASSERT_EQ(0, init(kCredentials, master_line() + "DB_SLAVE main:" + socket_path() + ":0\n"));
    struct Row {
        std::vector<const char *> statements;  // the last one is checked
        bool on_slave;
    };
    const Row rows[] = {
        {{"SELECT 1"}, true},
        {{"  select\t1"}, true},
        {{"SELECTED 1"}, false},
        {{"DO 1"}, false},
        {{"SELECT LAST_INSERT_ID()"}, false},
        {{"SELECT @x"}, false},
        {{"DO 1", "SELECT 1"}, false},             // a session that wrote reads its writes
        {{"SELECT * FROM no_such_table"}, false},  // the master's answer is the one returned
        {{"SELECT * FROM no_such_table", "SELECT 1"}, true},  // and the slave is not marked down
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.statements.back());
        SessionHandle *sess = sess_init();
        ASSERT_NE(nullptr, sess);
        MYSQL *master = fr_sql_conn_get_mysql(sess);
        for (const char *statement : row.statements) {
            MYSQL_RES *raw = nullptr;
            fr_sql_conn_query(sess, 1, &raw, "%s", statement);
            qx::Result drop(raw);
        }
        EXPECT_EQ(row.on_slave, fr_sql_conn_get_mysql(sess) != master);
        sess_destroy(sess);
    }
}

TEST_F(SqlSessionTest, ConcurrentThreadsShareThePool) {
    ASSERT_EQ(0, init(kCredentials, master_line()));
    constexpr int kThreads = 4;
    std::atomic<int> failures{0};
    std::mutex ids_mutex;
    std::set<std::string> ids;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                qx::SessionGuard sess;
                std::optional<std::string> id =
                    sess ? query_value(sess.get(), "SELECT CONNECTION_ID()") : std::nullopt;
                if (!id) {
                    ++failures;
                    continue;
                }
                std::lock_guard lock(ids_mutex);
                ids.insert(*id);
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_LE(ids.size(), static_cast<size_t>(kThreads));
}

TEST_F(SqlSessionTest, SessionHeldAcrossAResetIsNotReused) {
    ASSERT_EQ(0, init(kCredentials, master_line()));
    SessionHandle *old = sess_init();
    ASSERT_NE(nullptr, old);
    const std::string old_id = connection_id(old);
    ASSERT_EQ(0, init(kCredentials, master_line()));
    sess_destroy(old);
    SessionHandle *sess = sess_init();
    ASSERT_NE(nullptr, sess);
    EXPECT_NE(old_id, connection_id(sess));
    sess_destroy(sess);
}

}  // namespace
