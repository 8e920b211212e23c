// The SQL pool on the sandbox MariaDB; shard, host and server-list lines are parsed without a
// database in the unit tests.
#include <mysql.h>

#include "integration.hpp"
#include "sql_util.hpp"

const std::string kCreds = "DB_CREDENTIALS main:quorvex:sandbox:quorvex\n";

// First column of the first row ("" for none), or nullopt when the statement failed.
Text value(SessionHandle *sess, const char *statement = "SELECT CONNECTION_ID()") {
    MYSQL_RES *raw = nullptr;
    if (fr_sql_conn_query(sess, 1, &raw, "%s", statement) != 0) return std::nullopt;
    qx::Result result(raw);
    MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    return row && row[0] ? row[0] : "";
}

class SqlPool : public ::testing::Test {
  protected:
    void TearDown() override { qx_sql_pool_destroy(); }

    // nullopt: the file does not exist.
    int init(const Text &creds, const Text &servers) {
        return qx_sql_pool_init_from_config_files(file("pbx.conf", creds).c_str(),
                                                  file("sqldbase.conf", servers).c_str());
    }
    std::string file(const std::string &name, const Text &text) const {
        std::filesystem::remove(dir_ + name);
        if (text) qxtest::put(dir_ + name, *text);
        return dir_ + name;
    }

    const std::string dir_ = qxtest::path("/tmp/sqlsession/");
    const std::string master_ = "DB_MASTER main:" + qxtest::path("/run/mysqld.sock") + ":0\n";
};

TEST_F(SqlPool, SetUpFollowsTheConfigurationLines) {
    // Why, the two files, the status, down times slave, master and timeouts connect, read,
    // write, whether a working session can be taken, the complaint ("": none about lines).
    using Row = std::tuple<const char *, Text, Text, int, std::string, bool, std::string>;
    const std::string C = kCreds, M = master_, L(300, 'x');
    const std::string d = "30 30 2 30 30", in = " line [1] in <",
                      no_master = "Failed to find at least one master SQL server in <" + dir_ +
                                  "sqldbase.conf>. Invalid configuration, cannot start.\n\n";
    const Row rows[] = {
        // A comment line, the keyword inside a word, a comment after the value.
        {"comments and keyword anywhere",
         "#DB_CREDENTIALS main:quorvex:wrong:quorvex\n MY_" + C.substr(0, C.size() - 1) + " # u\n",
         M, 0, d, true, ""},
        {"no credentials needs only a master", "# DB_CREDENTIALS main:x\n", M, 0, d, false, ""},
        {"invalid credentials abort", "DB_CREDENTIALS main:quorvex\n" + C, M, -1, d, false,
         "Invalid DB_CREDENTIALS" + in},
        // Read in pieces, the tail would be an invalid line of its own and abort the set-up.
        {"credentials past the line buffer", C + L + "DB_CREDENTIALS main:x\n", M, 0, d, true,
         "DB_CREDENTIALS line [2] in <"},
        {"every directive, the second down time wins", C,
         "SLAVE_DOWN_TIME 5\nSLAVE_DOWN_TIME 7\nDB_CONNECT_TIMEOUT 3\nDB_READ_TIMEOUT 4 # s\n"
         "XDB_WRITE_TIMEOUT 5\nMASTER_DOWN_TIME 6\n" +
             M,
         0, "7 6 3 4 5", true, ""},
        {"non-numeric down time is 0", C, "SLAVE_DOWN_TIME soon\n" + M, 0, "0 30 2 30 30", true,
         "Invalid SLAVE_DOWN_TIME" + in},
        // 0 would let a stalled server block for ever.
        {"zero timeout, malformed master down time", C,
         "DB_READ_TIMEOUT 0\nMASTER_DOWN_TIME 5s\n" + M, 0, d, true,
         "Invalid DB_READ_TIMEOUT" + in},
        // A keyword at the very end of the file leaves no value; the bytes of the longer line
        // before it must not be taken for one.
        {"bare credentials keyword at end",
         "XXXXXXXXXXXXXXXmain:quorvex:sandbox:quorvex\nDB_CREDENTIALS", M, -1, d, false,
         "Invalid DB_CREDENTIALS line [2] in <"},
        {"slave but no master", C, "DB_SLAVE main:" + qxtest::path("/run/mysqld.sock:0\n"), -1, d,
         false, no_master},
        {"no credentials file", none, M, -1, d, false, ":condition failed\n"},
        {"no servers file", C, none, -1, d, false, ""},
    };
    for (const auto &[why, creds, servers, status, want, session, logged] : rows) {
        SCOPED_TRACE(why);
        qxtest::LogCapture log;
        ASSERT_EQ(status, init(creds, servers));
        char times[64];
        std::snprintf(times, sizeof times, "%d %d %d %d %d", fr_sqlpool_down_time_get(),
                      fr_sqlpool_master_down_time_get(),
                      fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_CONNECT),
                      fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_READ),
                      fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_WRITE));
        EXPECT_EQ(status == 0 ? want : times, times);
        EXPECT_EQ(logged.empty() ? log.contains("Invalid") || log.contains("longer")
                                 : !log.contains(logged),
                  false)
            << logged;
        SessionHandle *sess = sess_init();
        EXPECT_EQ(session, sess && value(sess, "SELECT 1") == "1");
        sess_destroy(sess);
        qx_sql_pool_destroy();
    }
    EXPECT_EQ(-1, qx_sql_pool_init_from_config_files(nullptr, nullptr));
}

TEST_F(SqlPool, OneConnectionIsReusedALostOneReplacedAndErrorsLeftToTheCaller) {
    ASSERT_EQ(0, init(kCreds, master_));
    std::set<Text> ids;
    for (int i = 0; i < 20; ++i)
        ids.insert(value(qx::SessionGuard().get()));
    EXPECT_EQ(ids.size() == 1 && *ids.begin(), true);
    sess_destroy(nullptr);  // legal, and harmless

    // Killed while the caller holds the session, and while the session sits in the pool.
    for (bool held : {true, false}) {
        SCOPED_TRACE(held ? "held" : "pooled");
        qxtest::LogCapture log;
        SessionHandle *sess = sess_init();
        const Text before = value(sess);
        if (!held) sess_destroy(sess);
        qxtest::sql("KILL " + before.value_or("0"));
        if (!held) sess = sess_init();
        const Text after = value(sess);
        EXPECT_TRUE(after && after != before) << after.value_or("failed");
        EXPECT_FALSE(log.contains("is avoided"));  // a restart is no reason to avoid the master
        sess_destroy(sess);
    }

    // A statement error is left to the caller; neither marks the master down.
    qx::SessionGuard sess;
    qxtest::LogCapture log;
    MYSQL_RES *result = reinterpret_cast<MYSQL_RES *>(1);
    EXPECT_NE(0, fr_sql_conn_query(sess.get(), 1, &result, "SELEC %d", 1));
    EXPECT_EQ(nullptr, result);
    EXPECT_NE(std::string(), sess.error());
    EXPECT_TRUE(log.lines().empty());
    // A statement without result set gives a null result, and the session stays usable.
    EXPECT_EQ(0, fr_sql_conn_query(sess.get(), 1, &result, "DO %d", 1));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ("1", value(sess.get(), "SELECT 1"));

    // A session held across a new set-up is closed, not handed out again.
    SessionHandle *old = sess_init();
    const Text old_id = value(old);
    ASSERT_EQ(0, init(kCreds, master_));
    sess_destroy(old);
    qx::SessionGuard again;
    EXPECT_NE(old_id, value(again.get()));
}

TEST_F(SqlPool, IdleConnectionIsCheckedBeforeReuse) {
    ASSERT_EQ(0, init(kCreds, master_));
    // Set the pool up again by hand with a short idle time so the ping path is taken.
    ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 0.2));
    ASSERT_EQ(0, fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:quorvex:sandbox:quorvex")));
    ASSERT_EQ(0, fr_sql_shard_parse_connection_info((dir_ + "sqldbase.conf").c_str(), nullptr, 1));
    const unsigned long killed = mysql_thread_id(fr_sql_conn_get_mysql(qx::SessionGuard().get()));
    qxtest::sql("KILL " + std::to_string(killed));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    qx::SessionGuard again;  // already replaced when handed out, before any statement ran
    ASSERT_TRUE(again);
    EXPECT_NE(killed, mysql_thread_id(fr_sql_conn_get_mysql(again.get())));
    EXPECT_EQ("1", value(again.get(), "SELECT 1"));
}

TEST_F(SqlPool, UnreachableMasterIsTriedOnceThenAvoided) {
    const StalledServer stalled(qxtest::path("/tmp/sqlsession-stalled.sock"));
    const std::pair<std::string, int> rows[] = {
        {qxtest::path("/run/no-such-mysqld.sock:0"), 0},
        {"127.0.0.1:1", 0},
        {stalled.path + ":0", 1},
    };
    for (const auto &[server, tries] : rows) {
        SCOPED_TRACE(server);
        ASSERT_EQ(0, init(kCreds, "DB_CONNECT_TIMEOUT 1\nDB_READ_TIMEOUT 1\nDB_MASTER main:" +
                                      server + "\n"));
        qxtest::LogCapture log;
        EXPECT_EQ(nullptr, sess_init());
        EXPECT_EQ(tries, stalled.connections());
        // Marked down: the next session is refused without another attempt.
        EXPECT_EQ(nullptr, sess_init());
        EXPECT_EQ(0, stalled.connections());
        EXPECT_EQ(1u, log.count("Cannot connect to SQL master"));
        EXPECT_EQ(1u, log.count("is avoided for 30 s"));
    }
}

TEST_F(SqlPool, StalledMasterIsAvoidedForTheDownTimeThenTriedAgain) {
    ASSERT_EQ(
        0, init(kCreds, "DB_READ_TIMEOUT 1\nDB_CONNECT_TIMEOUT 1\nMASTER_DOWN_TIME 2\n" + master_));
    SessionHandle *held = sess_init();
    sess_destroy(sess_init());  // an idle session in the pool
    ASSERT_NE(nullptr, held);
    qxtest::LogCapture log;
    {
        qxtest::StoppedDatabase stopped;
        ASSERT_TRUE(stopped.stopped());
        EXPECT_EQ(std::nullopt, value(held, "SELECT 1"));
        // Timed out once; no reconnect that would wait on the stalled server again.
        EXPECT_EQ(1u, log.count("is avoided for 2 s after a timeout"));
        EXPECT_EQ(0u, log.count("reconnecting"));
        // Refused at once: neither the idle session nor a new connection is tried.
        EXPECT_EQ(nullptr, sess_init());
        EXPECT_EQ(std::nullopt, value(held, "SELECT 1"));
        EXPECT_EQ(0u, log.count("Cannot connect"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    qx::SessionGuard sess;
    ASSERT_TRUE(sess);
    EXPECT_EQ("1", value(sess.get(), "SELECT 1"));
    EXPECT_EQ("1", value(held, "SELECT 1"));
    EXPECT_EQ(1u, log.count("is avoided"));
    sess_destroy(held);
}

TEST_F(SqlPool, DownSlaveIsAvoidedForTheDownTime) {
    ASSERT_EQ(0, init(kCreds, "SLAVE_DOWN_TIME 1\n" + master_ + "DB_SLAVE main:" +
                                  qxtest::path("/run/no-such-slave.sock") + ":0\n"));
    qxtest::LogCapture log;
    for (int i = 0; i < 4; ++i) {
        if (i == 3) std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        qx::SessionGuard sess;
        EXPECT_EQ("1", value(sess.get(), "SELECT 1"));
        // Tried again once the down time was over.
        EXPECT_EQ(i < 3 ? 1u : 2u, log.count("Cannot connect to SQL slave"));
    }
}

TEST_F(SqlPool, OnlyPlainSelectsGoToTheSlave) {
    // The sandbox server stands in for a slave: the slave connection is a second one.
    ASSERT_EQ(0, init(kCreds, master_ + "DB_SLAVE main:" + qxtest::path("/run/mysqld.sock:0\n")));
    const std::pair<std::vector<const char *>, bool> rows[] = {
        {{"  select\t1"}, true},
        {{"SELECTED 1"}, false},
        {{"DO 1"}, false},
        {{"SELECT LAST_INSERT_ID()"}, false},
        {{"SELECT @x"}, false},
        {{"DO 1", "SELECT 1"}, false},             // a session that wrote reads its writes
        {{"SELECT * FROM no_such_table"}, false},  // the master's answer is the one returned
        {{"SELECT * FROM no_such_table", "SELECT 1"}, true},  // and the slave is not marked down
    };
    for (const auto &[statements, on_slave] : rows) {
        SCOPED_TRACE(statements.back());
        qx::SessionGuard sess;
        ASSERT_TRUE(sess);
        MYSQL *master = fr_sql_conn_get_mysql(sess.get());
        for (const char *statement : statements)
            value(sess.get(), statement);
        EXPECT_EQ(on_slave, fr_sql_conn_get_mysql(sess.get()) != master);
    }
}

TEST_F(SqlPool, ConcurrentThreadsShareThePool) {
    ASSERT_EQ(0, init(kCreds, master_));
    std::mutex ids_mutex;
    std::set<std::string> ids;  // connection ids, "failed" for a failure
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                const Text id = value(qx::SessionGuard().get());
                std::lock_guard lock(ids_mutex);
                ids.insert(id.value_or("failed"));
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(0u, ids.count("failed"));
    EXPECT_LE(ids.size(), 4u);
}
