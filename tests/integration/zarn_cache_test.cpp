// The read-through cache layer on the sandbox: markers, write-back rules, the multi-field
// read-through and a cache that is not there.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_cache.h"

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

using Text = std::optional<std::string>;
using Texts = std::vector<Text>;
const Text none;

Text take(char *p) {
    Text s = p ? Text(p) : none;
    std::free(p);
    return s;
}
Texts take_all(char **vals, int n) {
    Texts out;
    for (int i = 0; vals && i < n; ++i)
        out.push_back(vals[i] ? Text(vals[i]) : none);
    if (vals) rget_free_vals(n, vals);
    return out;
}

const cache_binding kPrefs[] = {
    {"max_moh", "res:pre:mng:%d", 0, "mmoh"},
    {"max_record", "res:pre:mng:%d", 0, "mrec"},
    {"max_sound", "res:pre:mng:%d", 0, "msnd"},
    {"max_voice", "qxtest:other:%d", 0, "mvoc"},
};
const char kPrefSql[] =
    "SELECT param, value FROM client_prefs WHERE client_id='%s' AND param IN(%s)";

// Each test's ids are fresh; the keys it names are deleted after it. Statements are counted
// through the server's general log (the global counters see the tests running in parallel).
class ZarnCache : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }
    void SetUp() override { id_ = qxtest::fresh_ids(); }
    void TearDown() override {
        for (const auto &k : keys_)
            qxtest::redis({"DEL", k});
        if (!general_log_.empty()) {
            qxtest::sql("SET GLOBAL general_log=" + general_log_[0]);
            qxtest::sql("SET GLOBAL log_output='" + general_log_[1] + "'");
        }
        qxtest::clear_ids(id_);
    }
    std::string key(std::string k) { return keys_.emplace_back(std::move(k)); }
    void log_statements() {
        auto rows = qxtest::sql_rows("SELECT @@global.general_log, @@global.log_output");
        general_log_ = {rows.at(0).at(0).value_or("0"), rows.at(0).at(1).value_or("FILE")};
        qxtest::sql("SET GLOBAL log_output='TABLE'");
        qxtest::sql("SET GLOBAL general_log=1");
    }
    // A tag for statements; split in the counting statement so that it does not count itself.
    static std::string tag(int id) {
        return "qxtag" + std::to_string(getpid()) + "x" + std::to_string(id);
    }
    static long long statements(const std::string &tag) {
        return qxtest::sql_int(
            "SELECT COUNT(*) FROM mysql.general_log WHERE command_type='Query' "
            "AND argument LIKE CONCAT('%', '" +
            tag.substr(0, 3) + "', '" + tag.substr(3) + "', '%')");
    }

    int id_ = 0;
    std::vector<std::string> keys_, general_log_;
};

TEST_F(ZarnCache, BindingsAreFoundIgnoringCase) {
    static const cache_binding table[] = {
        {"call_waiting", "res:po:ext:%s", 0, "cw"}, {"callreturn", "res:cb:ext:%s", 0, "crt"},
        {"Conf", "res:po:ext:%s", 0, "conf"},       {"dnd", "res:po:ext:%s", 0, "dnd"},
        {"text2speach", "system:pbx", 0, "t2s"},
    };
    const std::pair<const char *, Text> rows[] = {
        {"call_waiting", "cw"}, {"CALLRETURN", "crt"}, {"conf", "conf"}, {"DnD", "dnd"},
        {"text2speach", "t2s"}, {"text2speech", none}, {"call", none},   {"", none}};
    for (const auto &[name, field] : rows) {
        const cache_binding *b = get_binding(5, table, name);
        EXPECT_EQ(b ? Text(b->field) : none, field) << name;
    }
    EXPECT_EQ(get_binding(0, table, "dnd"), nullptr);
    EXPECT_EQ(get_binding(5, table, nullptr), nullptr);
}

// One row per kind of database answer: what the caller sees on both lookups, what the cache
// holds, and that the database was asked only once.
TEST_F(ZarnCache, SingleLookupCachesEveryAnswer) {
    log_statements();
    const struct {
        bool row_exists;
        const char *column;  // SQL literal
        int keep;
        Text expected;
        std::string cached;
    } rows[] = {
        {true, "'Acme'", 0, "Acme", "Acme"},
        {true, "NULL", 0, none, "_NL_"},
        {true, "NULL", CACHE_KEEP_NULL, "_NL_", "_NL_"},
        {false, "", 0, none, "_NR_"},
        {false, "", CACHE_KEEP_NOROWS, "_NR_", "_NR_"},
    };
    int id = id_;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.cached + std::to_string(row.keep));
        if (row.row_exists) {
            qxtest::add_account(++id, 0, 10);
            qxtest::sql(std::string("UPDATE client SET name=") + row.column +
                        " WHERE id=" + std::to_string(id));
        } else {
            ++id;
        }
        // An absent-row marker only joins a hash that exists.
        const std::string mng = key("res:inf:mng:" + std::to_string(id));
        qxtest::redis({"HSET", mng, "lvl", "10"});
        const std::string sql = "SELECT name FROM client WHERE id=%d /* " + tag(id) + " */";
        for (int call = 0; call < 2; ++call) {
            EXPECT_EQ(take(drget_hash_by_id(0, "nam", sql.c_str(), "res:inf:mng:%d", id, row.keep)),
                      row.expected);
        }
        EXPECT_EQ(qxtest::redis({"HGET", mng, "nam"}), row.cached);
        EXPECT_EQ(statements(tag(id)), 1);
    }
}

TEST_F(ZarnCache, NoRowsMarkerNeverStartsAVolatileHash) {
    const struct {
        bool hash_exists;
        int persistent;
        const char *value;
        bool written;
    } rows[] = {
        {false, 0, "_NR_", false}, {true, 0, "_NR_", true},   {false, 1, "_NR_", true},
        {false, 0, "_NL_", true},  {false, 0, "_NR_x", true},
    };
    qxtest::LogCapture log;
    int n = 0;
    for (const auto &row : rows) {
        const std::string k = key("qxtest:norows:" + std::to_string(id_ + ++n));
        SCOPED_TRACE(k);
        if (row.hash_exists) qxtest::redis({"HSET", k, "other", "1"});
        EXPECT_EQ(check_add_norows_to_missing_persistent(k.c_str(), row.persistent, row.value),
                  row.written ? 0 : 1);
        EXPECT_EQ(rset_hash_str(row.persistent, "f", row.value, "%s", k.c_str()),
                  row.written ? 0 : -1);
        EXPECT_EQ(qxtest::redis({"HGET", k, "f"}), row.written ? row.value : "(nil)");
        EXPECT_EQ(log.contains("rset_hash_str(" + k + ",f," + row.value +
                               "): error Trying to add NOROWS to nonexistent hash"),
                  !row.written);
    }
}

TEST_F(ZarnCache, MultiLookupAsksTheDatabaseOnlyForWhatTheCacheLacks) {
    log_statements();
    const std::string arg = std::to_string(id_);
    const std::string pre = key("res:pre:mng:" + arg), other = key("qxtest:other:" + arg);
    qxtest::add_account(id_, 0, 10);
    qxtest::add_pref(id_, "max_moh", "100");
    qxtest::add_pref(id_, "max_sound", "300");
    qxtest::sql("UPDATE client_prefs SET value=NULL WHERE param='max_sound' AND client_id=" + arg);
    qxtest::add_pref(id_, "unbound", "u");
    const std::string sql = kPrefSql + std::string(" /* ") + tag(id_) + " */";
    // Runs: (max_moh, max_record), (max_sound) on one key, (max_voice) on another.
    const char *names[] = {"max_moh", "max_record", "unbound", "max_sound", "max_voice"};
    auto lookup = [&](int n, int keep) {
        return take_all(drmget_hash(4, kPrefs, n, names, sql.c_str(), arg.c_str(), 1, 0, keep), n);
    };
    qxtest::LogCapture log;
    EXPECT_EQ(lookup(5, 0), (Texts{"100", none, "u", none, none}));
    // Written back in the order asked: "_NR_" arrives after the value that created the hash;
    // the lone "_NR_" of the other hash is refused.
    EXPECT_EQ(qxtest::redis({"HMGET", pre, "mmoh", "mrec", "msnd"}), "100\n_NR_\n_NL_");
    EXPECT_EQ(qxtest::redis({"EXISTS", other}), "0");
    // Two runs of names sharing a key: one multi-field read each.
    EXPECT_EQ(log.count("cache_hmget(" + pre + ",2X)"), 1u);
    EXPECT_EQ(log.count("cache_hmget(" + pre + ",1X)"), 1u);

    EXPECT_EQ(lookup(5, 3), (Texts{"100", "_NR_", "u", "_NL_", "_NR_"}));
    EXPECT_EQ(statements(tag(id_)), 2);  // the unbound name (and max_voice) asked again
    names[2] = "max_sound";              // all in the cache: no statement
    EXPECT_EQ(lookup(3, 3), (Texts{"100", "_NR_", "_NL_"}));
    EXPECT_EQ(statements(tag(id_)), 2);
}

TEST_F(ZarnCache, ArgumentIsEscapedOnlyInTheMultiLookup) {
    const std::string name = "O'Brien \\\"" + std::to_string(id_);
    qxtest::add_account(id_, 0, 50);
    qxtest::sql("UPDATE client SET name='O\\'Brien \\\\\"" + std::to_string(id_) +
                "' WHERE id=" + std::to_string(id_));
    static const cache_binding columns[] = {
        {"level", "qxtest:byname:%s", 0, "lvl"},
        {"status", "qxtest:byname:%s", 0, "st"},
    };
    const std::string k = key("qxtest:byname:" + name);
    const char *names[] = {"level", "status"};
    const char *by_name = "SELECT %s FROM client WHERE name='%s'";
    qxtest::LogCapture log;
    EXPECT_EQ(take_all(drmget_hash(2, columns, 2, names, by_name, name.c_str(), 0, 1, 0), 2),
              (Texts{"50", "1"}));
    EXPECT_EQ(qxtest::redis({"HGET", k, "lvl"}), "50");
    EXPECT_FALSE(log.contains("-MySQL error"));

    // The single lookup puts the argument in as it is: the statement breaks, and the error is
    // answered like a missing row.
    EXPECT_EQ(take(drget_hash(0, "lv2", "SELECT level FROM client WHERE name='%s'",
                              "qxtest:byname:%s", name.c_str(), CACHE_KEEP_NOROWS)),
              "_NR_");
    EXPECT_TRUE(log.contains("../main/zarn_cache:drget_hash:"));
    EXPECT_TRUE(log.contains("-MySQL error: "));

    // Column mode without a row: every name is a missing row.
    EXPECT_EQ(take_all(drmget_hash(2, columns, 2, names, by_name, "nobody-at-all", 0, 1,
                                   CACHE_KEEP_NOROWS),
                       2),
              (Texts{"_NR_", "_NR_"}));
    // A failing statement fails the whole lookup.
    EXPECT_EQ(drmget_hash(2, columns, 2, names, "SELECT %s FROM no_such_table WHERE x='%s'", "a", 0,
                          1, 0),
              nullptr);
}

TEST_F(ZarnCache, LookupsAnswerFromTheDatabaseWithoutACache) {
    qxtest::add_account(id_, 0, 10, "", "Dead Cache Inc");
    qxtest::add_pref(id_, "max_moh", "7");
    const std::string arg = std::to_string(id_), mng = "res:inf:mng:" + arg;
    qxtest::LogCapture log;
    // The process's cache client points at a server that does not exist.
    vk_client_t *const saved = *ast_cache_handle();
    vk_client_t *const dead = vk_client_create(1, 2, nullptr, nullptr);
    vk_server_add(dead, "/nonexistent/redis.sock", 0, "dead");
    *ast_cache_handle() = dead;
    EXPECT_EQ(take(drget_hash_by_id(0, "nam", "SELECT name FROM client WHERE id=%d",
                                    "res:inf:mng:%d", id_, 0)),
              "Dead Cache Inc");
    EXPECT_TRUE(log.contains("rget_hash_str(" + mng + ",nam): error "));
    EXPECT_TRUE(log.contains("rset_hash_str(" + mng + ",nam,Dead Cache Inc): error "));
    const char *names[] = {"max_moh"};
    EXPECT_EQ(take_all(drmget_hash(4, kPrefs, 1, names, kPrefSql, arg.c_str(), 1, 0, 0), 1),
              (Texts{"7"}));
    const char *fields[] = {"a"}, *values[] = {"b"};
    EXPECT_EQ(rmset_hash(0, 1, fields, values, "qxtest:dead:%d", id_), 0);  // lost, and still 0
    EXPECT_TRUE(log.contains("rmset_hash(qxtest:dead:" + arg + ",X1): error "));
    *ast_cache_handle() = saved;
    vk_client_destroy(dead);
}

TEST_F(ZarnCache, WholeHashReads) {
    key("qxtest:scral:" + std::to_string(id_));
    const char *fields[] = {"100", "200", "300"}, *values[] = {"a", "b", "c"};
    ASSERT_EQ(rmset_hash(0, 3, fields, values, "qxtest:scral:%d", id_), 0);
    const Text joined = take(rgetall_hash_comma(0, "qxtest:scral:%d", id_));
    ASSERT_TRUE(joined);
    std::string sorted = *joined;  // "a,b,c" in the server's order
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, ",,abc");

    qxtest::LogCapture log;
    EXPECT_EQ(rgetall_hash_comma(0, "qxtest:scral:%d", id_ + 1), nullptr);
    EXPECT_TRUE(log.contains("rgetall_hash_comma(qxtest:scral:" + std::to_string(id_ + 1) +
                             "): 0 memberss"));
    EXPECT_EQ(rmset_hash(0, -1, fields, values, "k"), -1);
    EXPECT_EQ(rmset_hash(0, 1, nullptr, values, "k"), -1);
    EXPECT_EQ(rmset_hash(0, 0, fields, values, "k"), 0);
    EXPECT_EQ(rmget_hash(0, 0, fields, "k"), nullptr);
}

}  // namespace
