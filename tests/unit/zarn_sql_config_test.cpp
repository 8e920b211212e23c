// Shard descriptions and server lists of the SQL pool, without a database.
#include "unit.hpp"
#include "zarn_sql.h"
#include "zarn_sql_config.hpp"

// Fields joined by "|"; "" when rejected. Colons may stand in the password, and in a host
// before the port; a port beyond the range or one atoi would misread is rejected; a socket path
// has no port.
TEST(SqlConfigValues, ShardInfoSplitsAtTheOuterColonsAndHostIsAllBetweenShardAndPort) {
    const std::pair<const char *, const char *> shards[] = {
        {"main:quorvex:sandbox:quorvex", "main|quorvex|sandbox|quorvex"},
        {"main:u:p:a:ss:db", "main|u|p:a:ss|db"},
        {"main:u::db", "main|u||db"},
        {"main:u:p:", "main|u|p|"},
        {"main:u:p", ""},
        {":u:p:db", ""},
        {"main::p:db", ""},
        {"", ""}};
    for (auto [text, want] : shards) {
        const auto i = qx::sql::parse_shard_info(text);
        EXPECT_EQ(i ? i->name + "|" + i->user + "|" + i->password + "|" + i->database : "", want);
    }
    const std::pair<const char *, const char *> hosts[] = {
        {"main:db1:3306", "main|db1|3306|tcp"},
        {"main:fe80::1:5432", "main|fe80::1|5432|tcp"},
        {"main:[::1]:3307", "main|::1|3307|tcp"},
        {"main:/run/my.sock:3306", "main|/run/my.sock|0|unix"},
        {"main:/run/my.sock", "main|/run/my.sock|0|unix"},
        {"main:/run/my.sock:x", "main|/run/my.sock|0|unix"},
        {"main:db1:65535", "main|db1|65535|tcp"},
        {"main:db1:65536", ""},
        {"main:db1:33o6", ""},
        {"main:db1:", ""},
        {"X main:h:1", "X main|h|1|tcp"},
        {"main:dbhost", ""},
        {"main::3306", ""},
        {":db:3306", ""},
        {"main", ""}};
    for (auto [value, want] : hosts) {
        const auto h = qx::sql::parse_host_value(value);
        EXPECT_EQ(h ? h->shard + "|" + h->host + "|" + std::to_string(h->port) +
                          (h->unix_socket ? "|unix" : "|tcp")
                    : "",
                  want)
            << value;
    }
}

class SqlServerList : public ::testing::Test {
  protected:
    void TearDown() override { fr_sqlpool_destroy(); }
    TempDir dir_;
    const string path_ = dir_ / "servers.conf";
};

// A row: the shards registered, the servers file, the shard considered (null: every one),
// whether a master is required, the status. Lines hold 255 bytes; an excess in a comment is
// harmless. A DB_SLAVE alone is the integration tests' case.
TEST_F(SqlServerList, EveryConsideredShardNeedsAMaster) {
    using Shards = std::vector<const char *>;
    const string m1 = "DB_MASTER main:h:1\n";
    const std::tuple<Shards, string, const char *, int, int> rows[] = {
        {{"main", "other"}, m1 + "DB_MASTER other:h:2\n", nullptr, 1, 0},
        {{"main", "other"}, m1, nullptr, 1, -1},
        {{"main", "other"}, m1, nullptr, 0, 0},
        {{"main", "other"}, m1, "main", 1, 0},
        {{"main"}, m1, "nope", 1, -1},
        {{"main"}, "#" + m1, nullptr, 1, -1},
        {{"main"}, "X" + m1, nullptr, 1, 0},  // keyword inside a word
        {{"main"}, "DB_MASTER main:h\n" + m1, nullptr, 1, 0},
        {{}, "DB_MASTER x:h:1\n", nullptr, 1, 0},  // no shard yet, some master
        {{}, "DB_SLAVE x:h:1\n", nullptr, 1, -1},
        {{"main"}, string(237, ' ') + m1, nullptr, 1, 0},  // 255 bytes fill the buffer
        {{"main"}, string(238, ' ') + m1, nullptr, 1, -1},
        {{"main"}, string(260, 'x') + " " + m1, nullptr, 1, -1},  // its tail is no line
        {{"main"}, "DB_MASTER main:h:1 #" + string(300, 'c') + "\n", nullptr, 1, 0}};
    for (const auto &[shards, servers, shard, required, status] : rows) {
        ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 60.0));
        for (const char *name : shards)
            ASSERT_EQ(0, fr_sqlpool_shard_add(
                             fr_sql_shard_parse_info((string(name) + ":u:p:db").c_str())));
        dir_.write("servers.conf", servers);
        EXPECT_EQ(status, fr_sql_shard_parse_connection_info(path_.c_str(), shard, required))
            << servers.substr(0, 40);
    }
}

TEST_F(SqlServerList, ProblemsAreLoggedAndNoSessionIsInvented) {
    qxtest::LogCapture log;
    ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 60.0));
    ASSERT_EQ(0, fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:db")));
    EXPECT_EQ(-1, fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u2:p:db")));
    EXPECT_EQ(nullptr, fr_sql_shard_parse_info("main:secret"));
    EXPECT_FALSE(log.contains("secret"));

    dir_.write("servers.conf", "DB_SLAVE main:h\n" + string(300, 'x') + "DB_MASTER main:h:1\n");
    EXPECT_NE(0, fr_sql_shard_parse_connection_info(path_.c_str(), nullptr, 1));
    EXPECT_TRUE(log.contains("Invalid SQL server line [1] in <" + path_ + "> (DB_SLAVE)"));
    EXPECT_TRUE(log.contains("DB_MASTER line [2] in <" + path_ + "> is longer than 255 bytes"));
    EXPECT_EQ(nullptr, fr_sqlpool_conn_get(0));  // no master
    EXPECT_EQ(nullptr, fr_sqlpool_conn_get(1));  // no such shard
    // 255 bytes before the newline still fit the line buffer; 256 do not.
    string fits = "DB_SLAVE main:h:2", cut = "DB_MASTER main:h:1";
    fits.resize(255, ' '), cut.resize(256, ' ');
    dir_.write("servers.conf", "\n\n" + fits + "\n" + cut + "\n");
    fr_sql_shard_parse_connection_info(path_.c_str(), nullptr, 1);
    EXPECT_FALSE(log.contains("line [3] in <" + path_ + "> is longer"));
    EXPECT_TRUE(log.contains("DB_MASTER line [4] in <" + path_ + "> is longer than 255 bytes"));

    fr_sqlpool_down_time_set(-5);
    EXPECT_EQ(0, fr_sqlpool_down_time_get());
}
