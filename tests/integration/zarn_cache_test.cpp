// The read-through cache layer on the sandbox: markers, write-back rules, the multi-field
// read-through and a cache that is not there.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_cache.h"

namespace {

static auto *const sandbox_env = qxtest::register_sandbox();

// Set up after the sandbox: the layer takes its sessions from the process's pool.
struct SqlPool : ::testing::Environment {
    void SetUp() override { qx_sql_pool_init(); }
};
static auto *const pool_env = ::testing::AddGlobalTestEnvironment(new SqlPool);

// Counts the statements the database received that carry a tag, through the server's general
// log; unlike the global counters this is not disturbed by tests running in parallel.
class StatementLog {
  public:
    StatementLog() {
        auto rows = qxtest::sql_rows("SELECT @@global.general_log, @@global.log_output");
        was_on_ = rows.at(0).at(0).value_or("0");
        output_ = rows.at(0).at(1).value_or("FILE");
        qxtest::sql("SET GLOBAL log_output='TABLE'");
        qxtest::sql("SET GLOBAL general_log=1");
    }
    ~StatementLog() {
        qxtest::sql("SET GLOBAL general_log=" + was_on_);
        qxtest::sql("SET GLOBAL log_output='" + output_ + "'");
    }
    // The tag is split in the counting statement so that it does not count itself.
    static long long count(const std::string &tag) {
        return qxtest::sql_int(
            "SELECT COUNT(*) FROM mysql.general_log WHERE command_type='Query' AND argument LIKE "
            "CONCAT('%', '" +
            tag.substr(0, 3) + "', '" + tag.substr(3) + "', '%')");
    }

  private:
    std::string was_on_;
    std::string output_;
};

std::string tag_for(int id) {
    return "qxtag" + std::to_string(getpid()) + "x" + std::to_string(id);
}

std::optional<std::string> take(char *p) {
    if (!p) return std::nullopt;
    std::string s(p);
    std::free(p);
    return s;
}

std::optional<std::string> expect_of(const char *s) {
    return s ? std::optional<std::string>(s) : std::nullopt;
}

struct Keys {
    std::vector<std::string> keys;
    ~Keys() {
        for (const auto &k : keys)
            qxtest::redis({"DEL", k});
    }
    const std::string &add(std::string k) { return keys.emplace_back(std::move(k)); }
};

std::string mng(int id) {
    return "res:inf:mng:" + std::to_string(id);
}

// Points the process's cache client at a server that does not exist for its lifetime.
class DeadCache {
  public:
    DeadCache() : saved_(*ast_cache_handle()), dead_(vk_client_create(1, 2, nullptr, nullptr)) {
        vk_server_add(dead_, "/nonexistent/redis.sock", 0, "dead");
        *ast_cache_handle() = dead_;
    }
    ~DeadCache() {
        *ast_cache_handle() = saved_;
        vk_client_destroy(dead_);
    }

  private:
    vk_client_t *saved_;
    vk_client_t *dead_;
};

TEST(ZarnCache, BindingsAreFoundIgnoringCase) {
    static const cache_binding table[] = {
        {"call_waiting", "res:po:ext:%s", 0, "cw"}, {"callreturn", "res:cb:ext:%s", 0, "crt"},
        {"Conf", "res:po:ext:%s", 0, "conf"},       {"dnd", "res:po:ext:%s", 0, "dnd"},
        {"text2speach", "system:pbx", 0, "t2s"},
    };
    const struct {
        const char *name;
        const char *field;
    } rows[] = {{"call_waiting", "cw"}, {"CALLRETURN", "crt"},    {"conf", "conf"},  {"DnD", "dnd"},
                {"text2speach", "t2s"}, {"text2speech", nullptr}, {"call", nullptr}, {"", nullptr}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const cache_binding *b = get_binding(5, table, row.name);
        EXPECT_EQ(b ? std::optional<std::string>(b->field) : std::nullopt, expect_of(row.field));
    }
    EXPECT_EQ(get_binding(0, table, "dnd"), nullptr);
    EXPECT_EQ(get_binding(5, table, nullptr), nullptr);
}

// One row per kind of database answer: what the caller sees on the first and the second
// lookup, what the cache holds, and that the database was asked only once.
TEST(ZarnCache, SingleLookupCachesEveryAnswer) {
    StatementLog log;
    const struct {
        const char *name;
        bool row_exists;
        std::optional<std::string> column;
        int keep;
        std::optional<std::string> expected;
        std::string cached;
    } rows[] = {
        {"value", true, "Acme", 0, "Acme", "Acme"},
        {"null column", true, std::nullopt, 0, std::nullopt, "_NL_"},
        {"null column kept", true, std::nullopt, CACHE_KEEP_NULL, "_NL_", "_NL_"},
        {"missing row", false, std::nullopt, 0, std::nullopt, "_NR_"},
        {"missing row kept", false, std::nullopt, CACHE_KEEP_NOROWS, "_NR_", "_NR_"},
    };
    int id = qxtest::fresh_ids();
    Keys keys;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ++id;
        if (row.row_exists) {
            qxtest::add_account(id, 0, 10, "", "x");
            qxtest::sql("UPDATE client SET name=" +
                        (row.column ? "'" + *row.column + "'" : std::string("NULL")) +
                        " WHERE id=" + std::to_string(id));
        }
        // An absent-row marker only joins a hash that exists.
        qxtest::redis({"HSET", keys.add(mng(id)), "lvl", "10"});
        const std::string tag = tag_for(id);
        const std::string sql = "SELECT name FROM client WHERE id=%d /* " + tag + " */";
        for (int call = 0; call < 2; ++call) {
            EXPECT_EQ(take(drget_hash_by_id(0, "nam", sql.c_str(), "res:inf:mng:%d", id, row.keep)),
                      row.expected);
        }
        EXPECT_EQ(qxtest::redis({"HGET", mng(id), "nam"}), row.cached);
        EXPECT_EQ(StatementLog::count(tag), 1);
    }
}

TEST(ZarnCache, NoRowsMarkerNeverStartsAVolatileHash) {
    const struct {
        const char *name;
        bool hash_exists;
        int persistent;
        const char *value;
        bool written;
    } rows[] = {
        {"volatile, new hash", false, 0, "_NR_", false},
        {"volatile, existing hash", true, 0, "_NR_", true},
        {"persistent, new hash", false, 1, "_NR_", true},
        {"null marker, new hash", false, 0, "_NL_", true},
        {"longer value, new hash", false, 0, "_NR_x", true},
    };
    int id = qxtest::fresh_ids();
    Keys keys;
    qxtest::LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const std::string key = keys.add("qxtest:norows:" + std::to_string(++id));
        if (row.hash_exists) qxtest::redis({"HSET", key, "other", "1"});
        EXPECT_EQ(check_add_norows_to_missing_persistent(key.c_str(), row.persistent, row.value),
                  row.written ? 0 : 1);
        EXPECT_EQ(rset_hash_str(row.persistent, "f", row.value, "%s", key.c_str()),
                  row.written ? 0 : -1);
        EXPECT_EQ(qxtest::redis({"HGET", key, "f"}), row.written ? row.value : "(nil)");
        EXPECT_EQ(log.contains("rset_hash_str(" + key + ",f," + row.value +
                               "): error Trying to add NOROWS to nonexistent hash"),
                  !row.written);
    }
}

const cache_binding kPrefs[] = {
    {"max_moh", "res:pre:mng:%d", 0, "mmoh"},
    {"max_record", "res:pre:mng:%d", 0, "mrec"},
    {"max_sound", "res:pre:mng:%d", 0, "msnd"},
    {"max_voice", "qxtest:other:%d", 0, "mvoc"},
};
constexpr int kPrefRows = 4;

std::vector<std::optional<std::string>> take_all(char **vals, int n) {
    std::vector<std::optional<std::string>> out;
    if (!vals) return out;
    for (int i = 0; i < n; ++i)
        out.push_back(vals[i] ? std::optional<std::string>(vals[i]) : std::nullopt);
    rget_free_vals(n, vals);
    return out;
}

TEST(ZarnCache, MultiLookupAsksTheDatabaseOnlyForWhatTheCacheLacks) {
    StatementLog statements;
    const int id = qxtest::fresh_ids();
    Keys keys;
    keys.add("res:pre:mng:" + std::to_string(id));
    keys.add("qxtest:other:" + std::to_string(id));
    qxtest::add_account(id, 0, 10);
    qxtest::add_pref(id, "max_moh", "100");
    qxtest::add_pref(id, "max_sound", "300");
    qxtest::sql("UPDATE client_prefs SET value=NULL WHERE param='max_sound' AND client_id=" +
                std::to_string(id));
    qxtest::add_pref(id, "unbound", "u");
    const std::string tag = tag_for(id);
    const std::string sql =
        "SELECT param, value FROM client_prefs WHERE client_id='%s' AND param IN(%s) /* " + tag +
        " */";
    // Runs: (max_moh, max_record), (max_sound) on one key, (max_voice) on another.
    const char *names[] = {"max_moh", "max_record", "unbound", "max_sound", "max_voice"};
    const std::string arg = std::to_string(id);

    qxtest::LogCapture log;
    using V = std::vector<std::optional<std::string>>;
    const V plain{"100", std::nullopt, "u", std::nullopt, std::nullopt};
    const V kept{"100", "_NR_", "u", "_NL_", "_NR_"};
    EXPECT_EQ(
        take_all(drmget_hash(kPrefRows, kPrefs, 5, names, sql.c_str(), arg.c_str(), 1, 0, 0), 5),
        plain);
    // Written back in the order asked: "_NR_" arrives after the value that created the hash;
    // the lone "_NR_" of the other hash is refused.
    EXPECT_EQ(qxtest::redis({"HMGET", keys.keys[0], "mmoh", "mrec", "msnd"}), "100\n_NR_\n_NL_");
    EXPECT_EQ(qxtest::redis({"EXISTS", keys.keys[1]}), "0");
    // Two runs of names sharing a key: one multi-field read each.
    EXPECT_EQ(log.count("cache_hmget(" + keys.keys[0] + ",2X)"), 1u);
    EXPECT_EQ(log.count("cache_hmget(" + keys.keys[0] + ",1X)"), 1u);

    EXPECT_EQ(
        take_all(drmget_hash(kPrefRows, kPrefs, 5, names, sql.c_str(), arg.c_str(), 1, 0, 3), 5),
        kept);
    EXPECT_EQ(StatementLog::count(tag), 2);  // the unbound name (and max_voice) asked again

    const char *cached[] = {"max_moh", "max_record", "max_sound"};
    EXPECT_EQ(
        take_all(drmget_hash(kPrefRows, kPrefs, 3, cached, sql.c_str(), arg.c_str(), 1, 0, 3), 3),
        (V{"100", "_NR_", "_NL_"}));
    EXPECT_EQ(StatementLog::count(tag), 2);  // all in the cache: no statement
}

TEST(ZarnCache, ArgumentIsEscapedOnlyInTheMultiLookup) {
    const int id = qxtest::fresh_ids();
    const std::string name = "O'Brien \\\"" + std::to_string(id);
    qxtest::add_account(id, 0, 50, "", "x");
    qxtest::sql("UPDATE client SET name='O\\'Brien \\\\\"" + std::to_string(id) +
                "' WHERE id=" + std::to_string(id));
    static const cache_binding columns[] = {
        {"level", "qxtest:byname:%s", 0, "lvl"},
        {"status", "qxtest:byname:%s", 0, "st"},
    };
    Keys keys;
    keys.add("qxtest:byname:" + name);
    const char *names[] = {"level", "status"};
    qxtest::LogCapture log;
    EXPECT_EQ(take_all(drmget_hash(2, columns, 2, names, "SELECT %s FROM client WHERE name='%s'",
                                   name.c_str(), 0, 1, 0),
                       2),
              (std::vector<std::optional<std::string>>{"50", "1"}));
    EXPECT_EQ(qxtest::redis({"HGET", keys.keys[0], "lvl"}), "50");
    EXPECT_FALSE(log.contains("-MySQL error"));

    // The single lookup puts the argument in as it is: the statement breaks, and the error is
    // answered like a missing row.
    EXPECT_EQ(take(drget_hash(0, "lv2", "SELECT level FROM client WHERE name='%s'",
                              "qxtest:byname:%s", name.c_str(), CACHE_KEEP_NOROWS)),
              "_NR_");
    EXPECT_TRUE(log.contains("../main/zarn_cache:drget_hash:"));
    EXPECT_TRUE(log.contains("-MySQL error: "));

    // Column mode without a row: every name is a missing row.
    EXPECT_EQ(take_all(drmget_hash(2, columns, 2, names, "SELECT %s FROM client WHERE name='%s'",
                                   "nobody-at-all", 0, 1, CACHE_KEEP_NOROWS),
                       2),
              (std::vector<std::optional<std::string>>{"_NR_", "_NR_"}));
    // A failing statement fails the whole lookup.
    EXPECT_EQ(drmget_hash(2, columns, 2, names, "SELECT %s FROM no_such_table WHERE x='%s'", "a", 0,
                          1, 0),
              nullptr);
}

TEST(ZarnCache, LookupsAnswerFromTheDatabaseWithoutACache) {
    const int id = qxtest::fresh_ids();
    qxtest::add_account(id, 0, 10, "", "Dead Cache Inc");
    qxtest::add_pref(id, "max_moh", "7");
    qxtest::LogCapture log;
    DeadCache dead;
    EXPECT_EQ(take(drget_hash_by_id(0, "nam", "SELECT name FROM client WHERE id=%d",
                                    "res:inf:mng:%d", id, 0)),
              "Dead Cache Inc");
    const std::string key = mng(id);
    EXPECT_TRUE(log.contains("rget_hash_str(" + key + ",nam): error "));
    EXPECT_TRUE(log.contains("rset_hash_str(" + key + ",nam,Dead Cache Inc): error "));

    const char *names[] = {"max_moh"};
    const std::string arg = std::to_string(id);
    EXPECT_EQ(
        take_all(drmget_hash(
                     kPrefRows, kPrefs, 1, names,
                     "SELECT param, value FROM client_prefs WHERE client_id='%s' AND param IN(%s)",
                     arg.c_str(), 1, 0, 0),
                 1),
        (std::vector<std::optional<std::string>>{"7"}));
    const char *fields[] = {"a"};
    const char *values[] = {"b"};
    EXPECT_EQ(rmset_hash(0, 1, fields, values, "qxtest:dead:%d", id), 0);  // lost, and still 0
    EXPECT_TRUE(log.contains("rmset_hash(qxtest:dead:" + arg + ",X1): error "));
}

TEST(ZarnCache, WholeHashReads) {
    const int id = qxtest::fresh_ids();
    Keys keys;
    keys.add("qxtest:scral:" + std::to_string(id));
    const char *fields[] = {"100", "200", "300"};
    const char *values[] = {"a", "b", "c"};
    ASSERT_EQ(rmset_hash(0, 3, fields, values, "qxtest:scral:%d", id), 0);
    auto joined = take(rgetall_hash_comma(0, "qxtest:scral:%d", id));
    ASSERT_TRUE(joined);
    EXPECT_EQ(joined->size(), 5u);
    for (const char *v : values)
        EXPECT_NE(joined->find(v), std::string::npos);

    qxtest::LogCapture log;
    EXPECT_EQ(rgetall_hash_comma(0, "qxtest:scral:%d", id + 1), nullptr);
    EXPECT_TRUE(log.contains("rgetall_hash_comma(qxtest:scral:" + std::to_string(id + 1) +
                             "): 0 memberss"));

    EXPECT_EQ(rmset_hash(0, -1, fields, values, "k"), -1);
    EXPECT_EQ(rmset_hash(0, 1, nullptr, values, "k"), -1);
    EXPECT_EQ(rmset_hash(0, 0, fields, values, "k"), 0);
    EXPECT_EQ(rmget_hash(0, 0, fields, "k"), nullptr);
}

}  // namespace
