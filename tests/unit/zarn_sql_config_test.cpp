// Shard descriptions and server lists of the SQL pool, without a database.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "qxtest.hpp"
#include "zarn_sql.h"
#include "zarn_sql_config.hpp"

namespace {

using qx::sql::HostSpec;
using qx::sql::ShardInfo;

TEST(SqlShardInfo, SplitsAtTheOuterColons) {
    struct Row {
        const char *text;
        bool valid;
        ShardInfo expected;
    };
    const Row rows[] = {
        {"main:quorvex:sandbox:quorvex", true, {"main", "quorvex", "sandbox", "quorvex"}},
        {"main:u:p:a:ss:db", true, {"main", "u", "p:a:ss", "db"}},  // colons in the password
        {"main:u::db", true, {"main", "u", "", "db"}},
        {"main:u:p:", true, {"main", "u", "p", ""}},
        {"main:u:p", false, {}},
        {":u:p:db", false, {}},
        {"main::p:db", false, {}},
        {"", false, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        auto info = qx::sql::parse_shard_info(row.text);
        ASSERT_EQ(row.valid, info.has_value());
        if (!info) continue;
        EXPECT_EQ(row.expected.name, info->name);
        EXPECT_EQ(row.expected.user, info->user);
        EXPECT_EQ(row.expected.password, info->password);
        EXPECT_EQ(row.expected.database, info->database);
    }
}

TEST(SqlHostValue, HostIsEverythingBetweenShardAndPort) {
    struct Row {
        const char *value;
        bool valid;
        HostSpec expected;
    };
    const Row rows[] = {
        {"main:db1:3306", true, {"main", "db1", 3306, false}},
        {"main:fe80::1:5432", true, {"main", "fe80::1", 5432, false}},
        {"main:[::1]:3307", true, {"main", "::1", 3307, false}},
        {"main:/run/mysqld.sock:0", true, {"main", "/run/mysqld.sock", 0, true}},
        {"main:/run/mysqld.sock:3306", true, {"main", "/run/mysqld.sock", 0, true}},
        {"main:/run/mysqld.sock", true, {"main", "/run/mysqld.sock", 0, true}},
        {"main:/run/mysqld.sock:x", true, {"main", "/run/mysqld.sock", 0, true}},
        {"main:db1:65535", true, {"main", "db1", 65535, false}},
        {"main:db1:65536", false, {}},  // beyond the port range
        {"main:db1:33o6", false, {}},   // would silently become the default port
        {"main:db1:", false, {}},
        {"X main:h:1", true, {"X main", "h", 1, false}},
        {"main:dbhost", false, {}},
        {"main::3306", false, {}},
        {":db:3306", false, {}},
        {"main", false, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.value);
        auto host_spec = qx::sql::parse_host_value(row.value);
        ASSERT_EQ(row.valid, host_spec.has_value());
        if (!host_spec) continue;
        EXPECT_EQ(row.expected.shard, host_spec->shard);
        EXPECT_EQ(row.expected.host, host_spec->host);
        EXPECT_EQ(row.expected.port, host_spec->port);
        EXPECT_EQ(row.expected.unix_socket, host_spec->unix_socket);
    }
}

TEST(SqlConfigLines, OverlongLineStaysOneLineCutAtTheBufferAndIsFlagged) {
    const std::string a255(255, 'a');
    const std::string text = std::string(300, 'a') + "\n" +  // its tail is no line of its own
                             a255 + "\n" +                   // fills the buffer, loses nothing
                             std::string(100, 'a') + "#" + a255 + "\n" +  // excess is a comment
                             "DB_MASTER main:h:1 # note\n";
    std::FILE *fp = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    ASSERT_NE(nullptr, fp);
    std::vector<std::tuple<int, std::string, bool>> seen;
    qx::sql::for_each_config_line(fp, [&](const qx::sql::ConfigLine &line) {
        seen.emplace_back(line.number, std::string(line.text), line.overlong);
    });
    std::fclose(fp);
    const std::vector<std::tuple<int, std::string, bool>> expected = {
        {1, a255, true},
        {2, a255, false},
        {3, std::string(100, 'a'), false},
        {4, "DB_MASTER main:h:1 ", false}};
    EXPECT_EQ(expected, seen);
}

class SqlServerList : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qx-sqlservers-XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = tmpl;
    }
    void TearDown() override {
        fr_sqlpool_destroy();
        unlink(path_.c_str());
    }
    std::string path_;
};

TEST_F(SqlServerList, EveryConsideredShardNeedsAMaster) {
    struct Row {
        const char *name;
        std::vector<const char *> shards;
        std::string servers;
        const char *shard;  // NULL: every registered shard
        int required;
        int expected;
    };
    const Row rows[] = {
        {"all have masters",
         {"main", "other"},
         "DB_MASTER main:h:1\nDB_MASTER other:h:2\n",
         nullptr,
         1,
         0},
        {"one lacks its master", {"main", "other"}, "DB_MASTER main:h:1\n", nullptr, 1, -1},
        {"lacking is fine when not required",
         {"main", "other"},
         "DB_MASTER main:h:1\n",
         nullptr,
         0,
         0},
        {"only the named shard counts", {"main", "other"}, "DB_MASTER main:h:1\n", "main", 1, 0},
        {"unknown named shard", {"main"}, "DB_MASTER main:h:1\n", "nope", 1, -1},
        {"a slave is no master", {"main"}, "DB_SLAVE main:h:1\n", nullptr, 1, -1},
        {"commented-out master", {"main"}, "#DB_MASTER main:h:1\n", nullptr, 1, -1},
        {"keyword inside a word", {"main"}, "XDB_MASTER main:h:1\n", nullptr, 1, 0},
        {"invalid line skipped", {"main"}, "DB_MASTER main:h\nDB_MASTER main:h:1\n", nullptr, 1, 0},
        {"no shard yet, some master", {}, "DB_MASTER x:h:1\n", nullptr, 1, 0},
        {"no shard yet, no master", {}, "DB_SLAVE x:h:1\n", nullptr, 1, -1},
        {"master past the line buffer not read",
         {"main"},
         std::string(260, 'x') + " DB_MASTER main:h:1\n",
         nullptr,
         1,
         -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 60.0));
        for (const char *shard : row.shards) {
            std::string text = std::string(shard) + ":u:p:db";
            ASSERT_EQ(0, fr_sqlpool_shard_add(fr_sql_shard_parse_info(text.c_str())));
        }
        std::ofstream(path_, std::ios::trunc) << row.servers;
        EXPECT_EQ(row.expected,
                  fr_sql_shard_parse_connection_info(path_.c_str(), row.shard, row.required));
    }
}

TEST_F(SqlServerList, ProblemsAreLoggedAndNoSessionIsInvented) {
    qxtest::LogCapture log;
    ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 60.0));
    ASSERT_EQ(0, fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:db")));
    EXPECT_EQ(-1, fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u2:p:db")));
    EXPECT_EQ(nullptr, fr_sql_shard_parse_info("main:secret"));
    EXPECT_FALSE(log.contains("secret"));

    std::ofstream(path_, std::ios::trunc) << "DB_SLAVE main:h\n"
                                          << std::string(300, 'x') << "DB_MASTER main:h:1\n";
    EXPECT_NE(0, fr_sql_shard_parse_connection_info(path_.c_str(), nullptr, 1));
    EXPECT_TRUE(log.contains("Invalid SQL server line [1] in <" + path_ + "> (DB_SLAVE)"));
    EXPECT_TRUE(log.contains("DB_MASTER line [2] in <" + path_ + "> is longer than 255 bytes"));
    EXPECT_EQ(nullptr, fr_sqlpool_conn_get(0));  // no master
    EXPECT_EQ(nullptr, fr_sqlpool_conn_get(1));  // no such shard
    EXPECT_NE(0, fr_sql_shard_parse_connection_info((path_ + ".absent").c_str(), nullptr, 1));

    fr_sqlpool_down_time_set(-5);
    EXPECT_EQ(0, fr_sqlpool_down_time_get());
    ASSERT_EQ(0, fr_sqlpool_init_api(nullptr, nullptr, 60.0));
    EXPECT_EQ(30, fr_sqlpool_down_time_get());  // a reset restores the default
}

}  // namespace
