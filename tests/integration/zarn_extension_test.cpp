// Extension lookups on the sandbox. Account ids come fresh for every test, so no cache key of a
// test exists before it runs.
#include <ctime>

#include "integration.hpp"
#include "zarn_extension.h"

std::string hget(const std::string &key, const char *field) {
    return qxtest::redis({"HGET", key, field});
}
std::string utc(time_t t) {
    char buf[32];
    struct tm parts {};
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", gmtime_r(&t, &parts));
    return buf;
}

class Extensions : public SqlTest {
  protected:
    void SetUp() override {
        b_ = qxtest::fresh_ids(), client_ = b_ + 1, user_ = b_ + 2, user2_ = b_ + 3;
        full1_ = std::to_string(user_) + "*101", full2_ = std::to_string(user_) + "*102";
        full3_ = std::to_string(user2_) + "*201", unknown_ = std::to_string(b_ + 9) + "*999";
        qxtest::add_account(b_, 0, 10);
        qxtest::add_account(client_, b_, 50);
        qxtest::add_account(user_, client_, 100);
        qxtest::add_account(user2_, client_, 100);
        ext1_ = qxtest::add_extension(user_, "101", full1_);
        qxtest::add_extension(user_, "102", full2_);
        ext3_ = qxtest::add_extension(user2_, "201", full3_);
    }
    void TearDown() override {
        for (const auto &[param, value] : saved_)
            write_param(param, value);
        qxtest::clear_ids(b_);
    }

    // System parameters (rows of misc, their cached copies dropped), put back after the test
    // as every other process saw them.
    void set_param(const std::string &param, const Text &value) {
        if (!saved_.count(param)) {
            auto rows = qxtest::sql_rows("SELECT value FROM misc WHERE param='" + param + "'");
            saved_[param] = rows.empty() ? none : rows[0][0];
        }
        write_param(param, value);
    }
    static void write_param(const std::string &param, const Text &value) {
        value ? qxtest::set_misc(param, *value)
              : qxtest::sql("DELETE FROM misc WHERE param='" + param + "'");
        qxtest::redis({"HDEL", "system:pbx", "extlen", "extsep", "chst"});
    }

    int b_ = 0, client_ = 0, user_ = 0, user2_ = 0, ext1_ = 0, ext3_ = 0;
    std::string full1_, full2_, full3_, unknown_;
    std::map<std::string, Text> saved_;
};

TEST_F(Extensions, FullNumbersSplitAtTheConfiguredSeparatorAndLength) {
    // Length, separator, full number, owner and number (both none: the split fails).
    const std::tuple<Text, Text, const char *, Text, Text> cases[] = {
        {"3", "*", "0003*101", "0003", "101"}, {"3", "*", "7*101", "7", "101"},
        {"3", "*", "0003-101", none, none},    {"3", "*", "*101", none, none},
        {"3", "*", "0003*1011", none, none},   {"4", "#x", "0003#1011", "0003", "1011"},
        {none, "*", "0003*101", none, none},   {"3", none, "0003*101", none, none},
    };
    for (const auto &[length, separator, full, owner, number] : cases) {
        SCOPED_TRACE(full);
        set_param("ext_length", length);
        set_param("ext_separator", separator);
        char *o = nullptr, *n = nullptr;
        EXPECT_EQ(qx_split_full_number(full, &o, &n), owner ? 0 : -1);
        EXPECT_EQ(std::make_pair(take(o), take(n)), std::make_pair(owner, number));
        EXPECT_EQ(take(qx_get_extension_owner_str(full)), owner);
    }

    // Existence is a read of the owner's index hash, keyed by the owner part as a number.
    set_param("ext_length", "3");
    set_param("ext_separator", "*");
    EXPECT_EQ(qx_extension_exists(full1_.c_str()), 0);
    qxtest::redis({"HSET", "res:ind:" + std::to_string(user_) + ":ext", "101", "1"});
    EXPECT_EQ(qx_extension_exists(full1_.c_str()), 1);
    EXPECT_EQ(qx_extension_exists(full2_.c_str()), 0);

    // The parameters are read through the cache: a cached value wins over the table.
    EXPECT_EQ(qx_get_extlen(), 3);
    qxtest::redis({"HSET", "system:pbx", "extlen", "4"});
    EXPECT_EQ(qx_get_extlen(), 4);
    EXPECT_EQ(qx_get_extsep(), '*');
    for (const auto &[value, expected] : {std::pair<Text, int>{"1", 1}, {"2", 0}, {none, 0}}) {
        set_param("billing_disabled", value);
        EXPECT_EQ(qx_billing_disabled(), expected);
    }
}

TEST_F(Extensions, IdsComeFromTheCacheOrFromTheStatementThatFitsTheWantedIds) {
    // Wanted ext, usr, org; only the join knows (and caches) the organisation.
    const bool cases[][3] = {{false, true, false}, {true, true, false}, {false, false, true}};
    const std::string key = "res:inf:ext:" + full1_;
    for (const auto &[want_ext, want_usr, want_org] : cases) {
        SCOPED_TRACE(4 * want_ext + 2 * want_usr + want_org);
        qxtest::redis({"DEL", key});
        int ext = 0, usr = 0, org = 0;
        ASSERT_EQ(qx_get_extension_ids(full1_.c_str(), want_ext ? &ext : nullptr,
                                       want_usr ? &usr : nullptr, want_org ? &org : nullptr),
                  0);
        EXPECT_EQ(
            std::vector<int>({ext, usr, org}),
            std::vector<int>({want_ext ? ext1_ : 0, want_usr ? user_ : 0, want_org ? client_ : 0}));
        EXPECT_EQ(qxtest::redis({"HMGET", key, "extid", "usrid", "orgid"}),
                  std::to_string(ext1_) + "\n" + std::to_string(user_) + "\n" +
                      (want_org ? std::to_string(client_) : "(nil)"));
    }

    // A complete cached answer is used as it stands.
    qxtest::redis({"HSET", key, "usrid", "777"});
    EXPECT_EQ(qx_get_extension_usrid_sess(nullptr, full1_.c_str()), 777);
    EXPECT_EQ(qx_get_extension_id(full1_.c_str()), ext1_);
    EXPECT_EQ(qx_get_extension_owner(full3_.c_str()), client_);
    EXPECT_EQ(qx_get_extension_usrid_from_extid(ext3_), user2_);
    EXPECT_EQ(qx_get_extension_usrid_from_extid(-5), -1);

    // Unknown numbers (a quote included) give -1, leave no trace in the cache and no error.
    qxtest::LogCapture log;
    for (const std::string &f : {unknown_, std::to_string(b_ + 9) + "'*999"}) {
        EXPECT_EQ(qx_get_extension_orgid(f.c_str()), -1);
        EXPECT_EQ(qx_get_extension_usrid(f.c_str()), -1);
        EXPECT_EQ(qxtest::redis({"EXISTS", "res:inf:ext:" + f}), "0");
    }
    EXPECT_FALSE(log.contains("MySQL error"));
}

TEST_F(Extensions, TypeIsMatchedIgnoringCaseAndCachedAsStored) {
    // The column's SQL literal, the type, and what the cache holds (as stored).
    const std::tuple<const char *, int, const char *> cases[] = {
        {"'QUEUE'", 1, "QUEUE"},  {"'term'", 0, "term"}, {"'IvR'", 2, "IvR"},
        {"'bogus'", -1, "bogus"}, {"NULL", -1, "_NL_"},  {"'queuecenter'", 8, "queuecenter"},
    };
    const std::string key = "res:inf:ext:" + full1_;
    for (const auto &[column, expected, cached] : cases) {
        SCOPED_TRACE(column);
        qxtest::sql(std::string("UPDATE extension SET type=") + column +
                    " WHERE id=" + std::to_string(ext1_));
        qxtest::redis({"DEL", key});
        EXPECT_EQ(qx_get_extension_type(full1_.c_str()), expected);
        EXPECT_EQ(hget(key, "typ"), cached);
        EXPECT_EQ(qx_get_extension_type(full1_.c_str()), expected);
    }
    // No row: the absent-row marker may not create the hash.
    EXPECT_EQ(qx_get_extension_type(unknown_.c_str()), -1);
    EXPECT_EQ(qxtest::redis({"EXISTS", "res:inf:ext:" + unknown_}), "0");
}

TEST_F(Extensions, ExpiryNeedsAFutureDateAndAReachableSession) {
    const time_t now = std::time(nullptr);
    const std::string later = utc(now + 3600);
    const std::string quoted = "'" + later + "'", unclosed = "'" + later, past = utc(now - 3600);
    const std::tuple<Text, Text, int> cases[] = {
        {later, "yes", 0}, {quoted, "yes,udp", 0}, {past, "yes", 1}, {later, "no", 1},
        {later, "ye", 1},  {later, "no-yes", 1},   {later, none, 1}, {"tomorrow", "yes", 1},
        {none, none, 1},   {unclosed, "yes", 1},
    };
    const std::string key = "rtl:sipses:ext:" + full1_;
    for (const auto &[expires, reachable, expected] : cases) {
        SCOPED_TRACE(expires.value_or("-") + "/" + reachable.value_or("-"));
        qxtest::redis({"DEL", key});
        if (expires) qxtest::redis({"HSET", key, "expires", *expires});
        if (reachable) qxtest::redis({"HSET", key, "rch", *reachable});
        EXPECT_EQ(qx_extension_expired(full1_.c_str()), expected);
    }

    // A virtual phone is judged by the session of the number it stands for.
    const std::string virt = "v" + std::to_string(b_);
    qxtest::redis({"HSET", "res:ind:vext", virt, full1_});
    qxtest::redis({"HSET", key, "expires", later, "rch", "yes"});
    EXPECT_EQ(qx_extension_expired(virt.c_str()), 0);
    qxtest::redis({"HDEL", "res:ind:vext", virt});

    time_t t = 0;  // session dates are UTC
    EXPECT_EQ(redis_str2time("'2024-01-02 03:04:05'", &t), 0);
    EXPECT_EQ(t, 1704164645);
}

TEST_F(Extensions, CodecsFollowPriorityAndAreServedFromTheCacheAfterwards) {
    const std::string b = std::to_string(b_), e = std::to_string(ext1_);
    for (const auto &[letter, priority] : {std::pair{"b", "2"}, {"a", "1"}, {"c", "3"}}) {
        const std::string name = letter;
        qxtest::sql("INSERT INTO codec (uname) VALUES ('" + name + b + "')");
        qxtest::sql("INSERT INTO extension_codec_rel (extension_id, codec_id, priority) SELECT " +
                    e + ", id, " + priority + " FROM codec WHERE uname='" + name + b + "'");
    }
    const std::string expected = "a" + b + ",b" + b + ",c" + b + ",";
    EXPECT_EQ(take(qx_get_extension_codecs(full1_.c_str())), expected);
    EXPECT_EQ(hget("res:po:ext:" + full1_, "cod"), expected);
    qxtest::sql("UPDATE extension_codec_rel SET priority=4-priority WHERE extension_id=" + e);
    EXPECT_EQ(take(qx_get_extension_codecs(full1_.c_str())), expected);
    EXPECT_EQ(take(qx_get_extension_codecs(full2_.c_str())), none);
}

TEST_F(Extensions, PreferencesAndScreeningReadThroughTheirHashes) {
    const std::string e = std::to_string(ext1_);
    qxtest::sql("INSERT INTO extension_prefs (extension_id, param, value) VALUES (" + e +
                ",'dnd','1'),(" + e + ",'callreturn','555'),(" + e + ",'voicemail',NULL),(" + e +
                ",'screening_behaviour','2'),(" + e + ",'screening_allow','100,200'),(" + e +
                ",'screening_deny','300')");
    const char *names[] = {"dnd", "callreturn", "voicemail", "fax", "not_bound"};
    EXPECT_EQ(take_all(qx_extension_get_prefs(full1_.c_str(), 5, names), 5, qx_free_string_array),
              (std::vector<Text>{"1", "555", none, none, none}));
    const std::string po = "res:po:ext:" + full1_;
    EXPECT_EQ(qxtest::redis({"HMGET", po, "dnd", "vm", "fx"}), "1\n_NL_\n_NR_");
    EXPECT_EQ(hget("res:cb:ext:" + full1_, "crt"), "555");
    EXPECT_EQ(take(qx_extension_get_pref_by_id(ext1_, "callreturn")), "555");
    EXPECT_EQ(take(qx_extension_get_pref(full1_.c_str(), "dnd")), "1");

    qxtest::LogCapture log;
    for (int round = 0; round < 2; ++round) {  // the second from the cache
        int behaviour = 0;
        char *allow = nullptr, *deny = nullptr;
        ASSERT_EQ(qx_screening_get_behaviour(full1_.c_str(), &behaviour, &allow, &deny), 0);
        EXPECT_EQ(behaviour, 2);
        const Text allowed = take(allow);  // hash order is the server's
        EXPECT_TRUE(allowed == "100,200" || allowed == "200,100") << allowed.value_or("null");
        EXPECT_EQ(take(deny), "300");
        qxtest::sql("DELETE FROM extension_prefs WHERE extension_id=" + e);
    }
    EXPECT_EQ(log.count("searching for screening params in database ...\n"), 1u);

    int behaviour = -7;  // no screening preferences at all
    char *allow = nullptr, *deny = nullptr;
    EXPECT_EQ(qx_screening_get_behaviour(full2_.c_str(), &behaviour, &allow, &deny), 0);
    EXPECT_EQ(std::make_tuple(behaviour, allow, deny), std::make_tuple(0, nullptr, nullptr));
    EXPECT_EQ(qx_screening_get_behaviour(unknown_.c_str(), &behaviour, &allow, &deny), -1);
}

TEST_F(Extensions, PlainLookupsAnswerFromTheirTablesAndCacheTheAnswerAsStored) {
    // The column, the first and the later answer, and what the cache holds (a cached "2" is
    // taken as it stands).
    const std::tuple<std::string, Text, int, int, const char *> cases[] = {
        {full1_, "1", 1, 1, "1"},
        {full2_, "0", 0, 0, "0"},
        {full3_, "2", 0, 2, "2"},
        {unknown_, none, 0, 0, "(nil)"},
    };
    for (const auto &[full, column, first, later, cached] : cases) {
        SCOPED_TRACE(full);
        if (column)
            qxtest::sql("INSERT INTO ser_subscriber (username, can_register) VALUES ('" + full +
                        "','" + *column + "')");
        EXPECT_EQ(qx_extension_can_register(nullptr, full.c_str()), first);
        EXPECT_EQ(hget("res:sip:ext:" + full, "creg"), cached);
        EXPECT_EQ(qx_extension_can_register(nullptr, full.c_str()), later);
    }

    qxtest::add_pref(user_, "multi_user", "1");
    EXPECT_EQ(qx_is_multiuser_aware(full1_.c_str()), 1);
    EXPECT_EQ(qx_is_multiuser_aware(full3_.c_str()), 0);
    EXPECT_EQ(hget("res:po:ext:" + full1_, "mu") + hget("res:po:ext:" + full3_, "mu"), "10");

    const std::string b = std::to_string(b_), alias = "al" + b, zone = "Zone/" + b,
                      parent = std::to_string(client_), owner = "Account " + std::to_string(user_);
    qxtest::sql("UPDATE extension SET alias='" + alias + "' WHERE id=" + std::to_string(ext1_));
    qxtest::sql("INSERT INTO timezone (name) VALUES ('" + zone + "')");
    qxtest::sql("UPDATE client SET timezone_id=(SELECT MAX(id) FROM timezone WHERE name='" + zone +
                "') WHERE id=" + std::to_string(user_));
    const char *f = full1_.c_str();
    EXPECT_EQ(take(qx_get_full_number(parent.c_str(), "101")), full1_);
    EXPECT_EQ(take(qx_get_full_number(b.c_str(), "101")), none);
    EXPECT_EQ(take(qx_get_extension_from_alias_sess(nullptr, alias.c_str())), full1_);
    EXPECT_EQ(take(qx_get_alias_from_full_number(nullptr, f)), alias);
    EXPECT_EQ(take(qx_get_extension_timezone(ext1_)), zone);
    EXPECT_EQ(take(qx_get_user_name_from_number(nullptr, f)), owner);
    EXPECT_EQ(hget("res:cid:ext:" + full1_, "ownona"), owner);
}

TEST_F(Extensions, ExtensionOwnersOfASubtreeAreFoundLevelByLevel) {
    const int client2 = b_ + 4, user3 = b_ + 5;
    qxtest::add_account(client2, b_, 50);
    qxtest::add_account(user3, client2, 100);
    const std::tuple<int, int, std::vector<int>> cases[] = {
        {b_, 0, {user_, user2_, user3}},
        {b_, 1, {b_, client_, user_, user2_, client2, user3}},
        {client_, 1, {client_, user_, user2_}},
        {user_, 0, {user_}},
        {b_ + 9, 0, {}},
    };
    for (const auto &[account, flag, expected] : cases) {
        SCOPED_TRACE(std::to_string(account) + "/" + std::to_string(flag));
        size_t count = 99;
        int *ids = qx_get_extensions_of(account, flag, &count);
        std::vector<int> got(ids, ids + (ids ? count : 0));
        std::free(ids);
        std::sort(got.begin(), got.end());
        EXPECT_EQ(got, expected);
    }
}
