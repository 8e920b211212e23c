// The read-through cache layer on the sandbox: markers, write-back rules, the multi-field
// read-through and a cache that is not there.
#include "integration.hpp"
#include "zarn_cache.h"

using Texts = std::vector<Text>;

const cache_binding kPrefs[] = {
    {"max_moh", "res:pre:mng:%d", 0, "mmoh"},
    {"max_record", "res:pre:mng:%d", 0, "mrec"},
    {"max_sound", "res:pre:mng:%d", 0, "msnd"},
    {"max_voice", "qxtest:other:%d", 0, "mvoc"},
};
const char kPrefSql[] =
    "SELECT param, value FROM client_prefs WHERE client_id='%s' AND param IN(%s)";

// Each test's ids are fresh; the keys it names are deleted after it. The database is changed
// between lookups: an answer that did not change came from the cache.
class ZarnCache : public SqlTest {
  protected:
    void SetUp() override { id_ = qxtest::fresh_ids(); }
    void TearDown() override {
        for (const auto &k : keys_)
            qxtest::redis({"DEL", k});
        qxtest::clear_ids(id_);
    }
    std::string key(std::string k) { return keys_.emplace_back(std::move(k)); }

    int id_ = 0;
    std::vector<std::string> keys_;
};

TEST_F(ZarnCache, BindingsAreFoundIgnoringCase) {
    static const cache_binding table[] = {{"callreturn", "res:cb:ext:%s", 0, "crt"},
                                          {"Conf", "res:po:ext:%s", 0, "conf"},
                                          {"dnd", "res:po:ext:%s", 0, "dnd"}};
    const std::pair<const char *, Text> rows[] = {{"CALLRETURN", "crt"}, {"conf", "conf"},
                                                  {"DnD", "dnd"},        {"dnx", none},
                                                  {"call", none},        {"", none}};
    for (const auto &[name, field] : rows) {
        const cache_binding *b = get_binding(3, table, name);
        EXPECT_EQ(b ? Text(b->field) : none, field) << name;
    }
    EXPECT_EQ(get_binding(0, table, "dnd"), nullptr);
    EXPECT_EQ(get_binding(5, table, nullptr), nullptr);
}

// One row per kind of database answer: what the caller sees on both lookups, what the cache
// holds, and that the database was asked only once.
TEST_F(ZarnCache, SingleLookupCachesEveryAnswer) {
    // Row exists, the column's SQL literal, keep flags, the answer, what the cache holds.
    const std::tuple<bool, const char *, int, Text, std::string> rows[] = {
        {true, "'Acme'", 0, "Acme", "Acme"},
        {true, "NULL", 0, none, "_NL_"},
        {true, "NULL", CACHE_KEEP_NULL, "_NL_", "_NL_"},
        {false, nullptr, 0, none, "_NR_"},
        {false, nullptr, CACHE_KEEP_NOROWS, "_NR_", "_NR_"},
    };
    int id = id_;
    for (const auto &[row_exists, column, keep, expected, cached] : rows) {
        SCOPED_TRACE(cached + std::to_string(keep));
        const std::string i = std::to_string(++id);
        if (row_exists) qxtest::add_account(id, 0, 10);
        if (row_exists)
            qxtest::sql(std::string("UPDATE client SET name=") + column + " WHERE id=" + i);
        // An absent-row marker only joins a hash that exists.
        const std::string mng = key("res:inf:mng:" + i);
        qxtest::redis({"HSET", mng, "lvl", "10"});
        const char *sql = "SELECT name FROM client WHERE id=%d";
        EXPECT_EQ(take(drget_hash_by_id(0, "nam", sql, "res:inf:mng:%d", id, keep)), expected);
        if (row_exists) qxtest::sql("UPDATE client SET name='Changed' WHERE id=" + i);
        if (!row_exists) qxtest::add_account(id, 0, 10);
        EXPECT_EQ(take(drget_hash_by_id(0, "nam", sql, "res:inf:mng:%d", id, keep)), expected);
        EXPECT_EQ(qxtest::redis({"HGET", mng, "nam"}), cached);
    }
}

TEST_F(ZarnCache, NoRowsMarkerNeverStartsAVolatileHash) {
    // Hash exists, persistent, value, written.
    const std::tuple<bool, int, const char *, bool> rows[] = {
        {false, 0, "_NR_", false}, {true, 0, "_NR_", true},   {false, 1, "_NR_", true},
        {false, 0, "_NL_", true},  {false, 0, "_NR_x", true},
    };
    qxtest::LogCapture log;
    int n = 0;
    for (const auto &[hash_exists, persistent, value, written] : rows) {
        const std::string k = key("qxtest:norows:" + std::to_string(id_ + ++n));
        SCOPED_TRACE(k);
        if (hash_exists) qxtest::redis({"HSET", k, "other", "1"});
        EXPECT_EQ(check_add_norows_to_missing_persistent(k.c_str(), persistent, value),
                  written ? 0 : 1);
        EXPECT_EQ(rset_hash_str(persistent, "f", value, "%s", k.c_str()), written ? 0 : -1);
        EXPECT_EQ(qxtest::redis({"HGET", k, "f"}), written ? value : "(nil)");
        EXPECT_EQ(log.contains("rset_hash_str(" + k + ",f," + value +
                               "): error Trying to add NOROWS to nonexistent hash"),
                  !written);
    }
}

TEST_F(ZarnCache, MultiLookupAsksTheDatabaseOnlyForWhatTheCacheLacks) {
    const std::string arg = std::to_string(id_), pre = key("res:pre:mng:" + arg),
                      other = key("qxtest:other:" + arg);
    qxtest::add_account(id_, 0, 10);
    for (const auto &[param, value] :
         {std::pair{"max_moh", "100"}, {"max_sound", "300"}, {"unbound", "u"}})
        qxtest::add_pref(id_, param, value);
    qxtest::sql("UPDATE client_prefs SET value=NULL WHERE param='max_sound' AND client_id=" + arg);
    // Runs: (max_moh, max_record), (max_sound) on one key, (max_voice) on another.
    const char *names[] = {"max_moh", "max_record", "unbound", "max_sound", "max_voice"};
    auto lookup = [&](int n, int keep) {
        return take_all(drmget_hash(4, kPrefs, n, names, kPrefSql, arg.c_str(), 1, 0, keep), n);
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

    // Only the unbound name and the refused max_voice are asked again.
    qxtest::sql("UPDATE client_prefs SET value='999' WHERE client_id=" + arg);
    qxtest::add_pref(id_, "max_voice", "5");
    EXPECT_EQ(lookup(5, 3), (Texts{"100", "_NR_", "999", "_NL_", "5"}));
    names[2] = "max_sound";  // all in the cache
    EXPECT_EQ(lookup(3, 3), (Texts{"100", "_NR_", "_NL_"}));
}

TEST_F(ZarnCache, ArgumentIsEscapedOnlyInTheMultiLookup) {
    const std::string name = "O'Brien \\\"" + std::to_string(id_);
    qxtest::add_account(id_, 0, 50);
    qxtest::sql("UPDATE client SET name='O\\'Brien \\\\\"" + std::to_string(id_) +
                "' WHERE id=" + std::to_string(id_));
    static const cache_binding columns[] = {{"level", "qxtest:byname:%s", 0, "lvl"},
                                            {"status", "qxtest:byname:%s", 0, "st"}};
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

// Joining a whole hash is checked through the screening lists of the extension lookups.
TEST_F(ZarnCache, MultiFieldWritesAndEmptyWholeHashes) {
    const std::string k = key("qxtest:scral:" + std::to_string(id_));
    const char *fields[] = {"100", "200", "300"}, *values[] = {"a", "bb", ""};
    ASSERT_EQ(rmset_hash(0, 3, fields, values, "qxtest:scral:%d", id_), 0);
    EXPECT_EQ(qxtest::redis({"HMGET", k, "100", "200", "300"}), "a\nbb\n");
    qxtest::LogCapture log;
    EXPECT_EQ(rgetall_hash_comma(0, "qxtest:scral:%d", id_ + 1), nullptr);
    EXPECT_TRUE(log.contains("rgetall_hash_comma(qxtest:scral:" + std::to_string(id_ + 1) +
                             "): 0 memberss"));
    EXPECT_EQ(rmset_hash(0, -1, fields, values, "k"), -1);
    EXPECT_EQ(rmset_hash(0, 1, nullptr, values, "k"), -1);
    EXPECT_EQ(rmset_hash(0, 0, fields, values, "k"), 0);
    EXPECT_EQ(rmget_hash(0, 0, fields, "k"), nullptr);
}
