// Extension lookups on the sandbox: number splitting with the system parameters, ids and the
// statement that fetched them, types, registration, codecs, screening and session expiry.
// Account ids come fresh for every test, so no cache key of a test exists before it runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_extension.h"

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

using Text = std::optional<std::string>;
const std::string kNil = "(nil)";

Text take(char *s) {
    Text out = s ? Text(s) : std::nullopt;
    std::free(s);
    return out;
}

std::string hget(const std::string &key, const char *field) {
    return qxtest::redis({"HGET", key, field});
}

std::string utc(time_t t) {
    char buf[32];
    struct tm parts {};
    gmtime_r(&t, &parts);
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &parts);
    return buf;
}

// Sets system parameters (rows of misc; their cached copies dropped) for one test, and puts
// back what every other process saw before.
class SystemParams {
  public:
    ~SystemParams() {
        for (const auto &[param, value] : saved_)
            write(param, value);
    }
    void set(const std::string &param, const Text &value) {
        if (!saved_.count(param)) {
            auto rows = qxtest::sql_rows("SELECT value FROM misc WHERE param='" + param + "'");
            saved_[param] = rows.empty() ? Text() : rows[0][0];
        }
        write(param, value);
    }

  private:
    static void write(const std::string &param, const Text &value) {
        if (value) {
            qxtest::set_misc(param, *value);
        } else {
            qxtest::sql("DELETE FROM misc WHERE param='" + param + "'");
        }
        qxtest::redis({"HDEL", "system:pbx", "extlen", "extsep", "chst"});
    }
    std::map<std::string, Text> saved_;
};

class Extensions : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }

    void SetUp() override {
        b_ = qxtest::fresh_ids();
        qxtest::add_account(b_, 0, 10);
        qxtest::add_account(client(), b_, 50);
        qxtest::add_account(user(), client(), 100);
        qxtest::add_account(user2(), client(), 100);
        ext1_ = qxtest::add_extension(user(), "101", full1());
        qxtest::add_extension(user(), "102", full2());
        ext3_ = qxtest::add_extension(user2(), "201", full3());
    }
    void TearDown() override {
        const std::string b = std::to_string(b_);  // the codecs test's own, linked or not
        qxtest::sql("DELETE FROM codec WHERE uname IN ('a" + b + "','b" + b + "','c" + b + "')");
        qxtest::clear_ids(b_);
    }

    int client() const { return b_ + 1; }
    int user() const { return b_ + 2; }
    int user2() const { return b_ + 3; }
    std::string full1() const { return std::to_string(user()) + "*101"; }
    std::string full2() const { return std::to_string(user()) + "*102"; }
    std::string full3() const { return std::to_string(user2()) + "*201"; }
    std::string unknown() const { return std::to_string(b_ + 9) + "*999"; }

    int b_ = 0, ext1_ = 0, ext3_ = 0;
};

TEST_F(Extensions, FullNumbersSplitAtTheConfiguredSeparatorAndLength) {
    struct Case {
        Text length, separator;
        const char *full;
        Text owner, number;  // both nullopt: the split fails
    };
    const Text none;
    const Case cases[] = {
        {"3", "*", "0003*101", "0003", "101"},   {"3", "*", "7*101", "7", "101"},
        {"3", "*", "0003-101", none, none},      {"3", "*", "*101", none, none},
        {"3", "*", "0003*1011", none, none},     {"3", "*", "", none, none},
        {"4", "-", "0003-1011", "0003", "1011"}, {"4", "#x", "12#1011", "12", "1011"},
        {none, "*", "0003*101", none, none},     {"3", none, "0003*101", none, none},
    };
    SystemParams params;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.full);
        params.set("ext_length", c.length);
        params.set("ext_separator", c.separator);
        char *owner = nullptr;
        char *number = nullptr;
        EXPECT_EQ(qx_split_full_number(c.full, &owner, &number), c.owner ? 0 : -1);
        EXPECT_EQ(take(owner), c.owner);
        EXPECT_EQ(take(number), c.number);
        EXPECT_EQ(take(qx_get_extension_owner_str(c.full)), c.owner);
    }

    // Existence is a read of the owner's index hash, keyed by the owner part as a number.
    params.set("ext_length", "3");
    params.set("ext_separator", "*");
    EXPECT_EQ(qx_extension_exists(full1().c_str()), 0);
    qxtest::redis({"HSET", "res:ind:" + std::to_string(user()) + ":ext", "101", "1"});
    EXPECT_EQ(qx_extension_exists(full1().c_str()), 1);
    EXPECT_EQ(qx_extension_exists(full2().c_str()), 0);

    // The parameters are read through the cache: a cached value wins over the table.
    EXPECT_EQ(qx_get_extlen(), 3);
    qxtest::redis({"HSET", "system:pbx", "extlen", "4"});
    EXPECT_EQ(qx_get_extlen(), 4);
    EXPECT_EQ(qx_get_extsep(), '*');
    for (const auto &[value, expected] : {std::pair<Text, int>{"1", 1}, {"2", 0}, {none, 0}}) {
        params.set("billing_disabled", value);
        EXPECT_EQ(qx_billing_disabled(), expected);
    }
}

TEST_F(Extensions, IdsComeFromTheCacheOrFromTheStatementThatFitsTheWantedIds) {
    struct Case {
        bool ext, usr, org;  // wanted; only the join knows (and caches) the organisation
    };
    const Case cases[] = {{false, true, false}, {true, true, false}, {false, false, true}};
    const std::string key = "res:inf:ext:" + full1();
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.ext) + std::to_string(c.usr) + std::to_string(c.org));
        qxtest::redis({"DEL", key});
        int ext = 0, usr = 0, org = 0;
        ASSERT_EQ(qx_get_extension_ids(full1().c_str(), c.ext ? &ext : nullptr,
                                       c.usr ? &usr : nullptr, c.org ? &org : nullptr),
                  0);
        EXPECT_EQ(ext, c.ext ? ext1_ : 0);
        EXPECT_EQ(usr, c.usr ? user() : 0);
        EXPECT_EQ(org, c.org ? client() : 0);
        EXPECT_EQ(hget(key, "extid"), std::to_string(ext1_));
        EXPECT_EQ(hget(key, "usrid"), std::to_string(user()));
        EXPECT_EQ(hget(key, "orgid"), c.org ? std::to_string(client()) : kNil);
    }

    // A complete cached answer is used as it stands.
    qxtest::redis({"HSET", key, "usrid", "777"});
    EXPECT_EQ(qx_get_extension_usrid_sess(nullptr, full1().c_str()), 777);
    EXPECT_EQ(qx_get_extension_id(full1().c_str()), ext1_);
    EXPECT_EQ(qx_get_extension_owner(full3().c_str()), client());
    EXPECT_EQ(qx_get_extension_usrid_from_extid(ext3_), user2());
    EXPECT_EQ(qx_get_extension_usrid_from_extid(-5), -1);

    // Unknown numbers (a quote included) give -1, leave no trace in the cache and no error.
    qxtest::LogCapture log;
    for (const std::string &f : {unknown(), std::to_string(b_ + 9) + "'*999"}) {
        EXPECT_EQ(qx_get_extension_orgid(f.c_str()), -1);
        EXPECT_EQ(qx_get_extension_usrid(f.c_str()), -1);
        EXPECT_EQ(qxtest::redis({"EXISTS", "res:inf:ext:" + f}), "0");
    }
    EXPECT_FALSE(log.contains("MySQL error"));
}

TEST_F(Extensions, TypeIsMatchedIgnoringCaseAndCachedAsStored) {
    struct Case {
        const char *column;  // SQL literal
        int expected;
        std::string cached;
    };
    const Case cases[] = {
        {"'QUEUE'", 1, "QUEUE"},
        {"'term'", 0, "term"},
        {"'IvR'", 2, "IvR"},
        {"'Intercom'", 7, "Intercom"},
        {"'queuecenter'", 8, "queuecenter"},
        {"'bogus'", -1, "bogus"},
        {"NULL", -1, "_NL_"},
    };
    const std::string key = "res:inf:ext:" + full1();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.column);
        qxtest::sql(std::string("UPDATE extension SET type=") + c.column +
                    " WHERE id=" + std::to_string(ext1_));
        qxtest::redis({"DEL", key});
        EXPECT_EQ(qx_get_extension_type(full1().c_str()), c.expected);
        EXPECT_EQ(hget(key, "typ"), c.cached);
        EXPECT_EQ(qx_get_extension_type(full1().c_str()), c.expected);
    }
    // No row: the absent-row marker may not create the hash.
    EXPECT_EQ(qx_get_extension_type(unknown().c_str()), -1);
    EXPECT_EQ(qxtest::redis({"EXISTS", "res:inf:ext:" + unknown()}), "0");
}

TEST_F(Extensions, ExpiryNeedsAFutureDateAndAReachableSession) {
    const time_t now = std::time(nullptr);
    const std::string later = utc(now + 3600);
    const Text none;
    struct Case {
        Text expires, reachable;
        int expected;
    };
    const Case cases[] = {
        {later, "yes", 0},
        {"'" + later + "'", "yes,udp", 0},
        {utc(now - 3600), "yes", 1},
        {later, "no", 1},
        {later, "ye", 1},
        {later, "no-yes", 1},
        {later, none, 1},
        {"tomorrow", "yes", 1},
        {none, none, 1},
    };
    const std::string key = "rtl:sipses:ext:" + full1();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.expires.value_or("-") + "/" + c.reachable.value_or("-"));
        qxtest::redis({"DEL", key});
        if (c.expires) qxtest::redis({"HSET", key, "expires", *c.expires});
        if (c.reachable) qxtest::redis({"HSET", key, "rch", *c.reachable});
        EXPECT_EQ(qx_extension_expired(full1().c_str()), c.expected);
    }

    // A virtual phone is judged by the session of the number it stands for.
    const std::string virt = "v" + std::to_string(b_);
    qxtest::redis({"HSET", "res:ind:vext", virt, full1()});
    qxtest::redis({"HSET", key, "expires", later, "rch", "yes"});
    EXPECT_EQ(qx_extension_expired(virt.c_str()), 0);
    qxtest::redis({"HDEL", "res:ind:vext", virt});

    // Session dates are UTC, quoted or not.
    for (const char *text : {"2024-01-02 03:04:05", "'2024-01-02 03:04:05'"}) {
        time_t t = 0;
        EXPECT_EQ(redis_str2time(text, &t), 0);
        EXPECT_EQ(t, 1704164645);
    }
    time_t t = 0;
    EXPECT_EQ(redis_str2time("'2024-01-02 03:04:05", &t), -1);
}

TEST_F(Extensions, CodecsFollowPriorityAndAreServedFromTheCacheAfterwards) {
    const std::string b = std::to_string(b_);
    const std::pair<std::string, int> codecs[] = {{"b" + b, 2}, {"a" + b, 1}, {"c" + b, 3}};
    for (const auto &[name, priority] : codecs) {
        qxtest::sql("INSERT INTO codec (uname) VALUES ('" + name + "')");
        qxtest::sql("INSERT INTO extension_codec_rel (extension_id, codec_id, priority) SELECT " +
                    std::to_string(ext1_) + ", id, " + std::to_string(priority) +
                    " FROM codec WHERE uname='" + name + "'");
    }
    const std::string expected = "a" + b + ",b" + b + ",c" + b + ",";
    EXPECT_EQ(take(qx_get_extension_codecs(full1().c_str())), expected);
    EXPECT_EQ(hget("res:po:ext:" + full1(), "cod"), expected);
    qxtest::sql("DELETE FROM extension_codec_rel WHERE extension_id=" + std::to_string(ext1_));
    EXPECT_EQ(take(qx_get_extension_codecs(full1().c_str())), expected);
    EXPECT_EQ(take(qx_get_extension_codecs(full2().c_str())), std::nullopt);
}

TEST_F(Extensions, PreferencesAndScreeningReadThroughTheirHashes) {
    const std::string e = std::to_string(ext1_);
    qxtest::sql("INSERT INTO extension_prefs (extension_id, param, value) VALUES (" + e +
                ",'dnd','1'),(" + e + ",'callreturn','555'),(" + e + ",'voicemail',NULL),(" + e +
                ",'screening_behaviour','2'),(" + e + ",'screening_allow','100,200'),(" + e +
                ",'screening_deny','300')");
    const char *names[] = {"dnd", "callreturn", "voicemail", "fax", "not_bound"};
    char **values = qx_extension_get_prefs(full1().c_str(), 5, names);
    ASSERT_NE(values, nullptr);
    std::vector<Text> got;
    for (int i = 0; i < 5; ++i)
        got.push_back(values[i] ? Text(values[i]) : std::nullopt);
    qx_free_string_array(5, values);
    EXPECT_EQ(got, (std::vector<Text>{"1", "555", std::nullopt, std::nullopt, std::nullopt}));
    const std::string po = "res:po:ext:" + full1();
    EXPECT_EQ(hget(po, "dnd") + hget(po, "vm") + hget(po, "fx"), "1_NL__NR_");
    EXPECT_EQ(hget("res:cb:ext:" + full1(), "crt"), "555");
    EXPECT_EQ(take(qx_extension_get_pref_by_id(ext1_, "callreturn")), "555");

    qxtest::LogCapture log;
    for (int round = 0; round < 2; ++round) {
        int behaviour = 0;
        char *allow = nullptr;
        char *deny = nullptr;
        ASSERT_EQ(qx_screening_get_behaviour(full1().c_str(), &behaviour, &allow, &deny), 0);
        EXPECT_EQ(behaviour, 2);
        std::vector<std::string> allowed;
        std::stringstream list(take(allow).value_or(""));
        for (std::string item; std::getline(list, item, ',');)
            allowed.push_back(item);
        std::sort(allowed.begin(), allowed.end());  // hash order is the server's
        EXPECT_EQ(allowed, (std::vector<std::string>{"100", "200"}));
        EXPECT_EQ(take(deny), "300");
        qxtest::sql("DELETE FROM extension_prefs WHERE extension_id=" + e);
    }
    EXPECT_EQ(log.count("searching for screening params in database ...\n"), 1u);

    int behaviour = -7;
    char *allow = nullptr;
    char *deny = nullptr;
    EXPECT_EQ(qx_screening_get_behaviour(full2().c_str(), &behaviour, &allow, &deny), 0);
    EXPECT_EQ(std::make_tuple(behaviour, allow, deny), std::make_tuple(0, nullptr, nullptr));
    EXPECT_EQ(qx_screening_get_behaviour(unknown().c_str(), &behaviour, &allow, &deny), -1);
}

TEST_F(Extensions, RegistrationAndMultiUserAnswersAreCachedAsPlainValues) {
    struct Case {
        std::string full;
        Text column;
        int first, later;
        std::string cached;
    };
    const Case cases[] = {
        {full1(), "1", 1, 1, "1"},
        {full2(), "0", 0, 0, "0"},
        {full3(), "2", 0, 2, "2"},  // a cached value is taken as it stands
        {unknown(), std::nullopt, 0, 0, kNil},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.full);
        if (c.column) {
            qxtest::sql("INSERT INTO ser_subscriber (username, can_register) VALUES ('" + c.full +
                        "','" + *c.column + "')");
        }
        EXPECT_EQ(qx_extension_can_register(nullptr, c.full.c_str()), c.first);
        EXPECT_EQ(hget("res:sip:ext:" + c.full, "creg"), c.cached);
        EXPECT_EQ(qx_extension_can_register(nullptr, c.full.c_str()), c.later);
    }

    qxtest::add_pref(user(), "multi_user", "1");
    EXPECT_EQ(qx_is_multiuser_aware(full1().c_str()), 1);
    EXPECT_EQ(qx_is_multiuser_aware(full3().c_str()), 0);
    EXPECT_EQ(hget("res:po:ext:" + full1(), "mu") + hget("res:po:ext:" + full3(), "mu"), "10");
}

TEST_F(Extensions, DatabaseLookupsAnswerFromTheirTables) {
    const std::string b = std::to_string(b_), alias = "al" + b, zone = "Zone/" + b;
    const std::string parent = std::to_string(client());
    const std::string owner = "Account " + std::to_string(user());
    qxtest::sql("UPDATE extension SET alias='" + alias + "' WHERE id=" + std::to_string(ext1_));
    qxtest::sql("INSERT INTO timezone (name) VALUES ('" + zone + "')");
    qxtest::sql("UPDATE client SET timezone_id=(SELECT MAX(id) FROM timezone WHERE name='" + zone +
                "') WHERE id=" + std::to_string(user()));
    const std::pair<std::function<char *()>, Text> cases[] = {
        {[&] { return qx_get_full_number(parent.c_str(), "101"); }, full1()},
        {[&] { return qx_get_full_number(b.c_str(), "101"); }, std::nullopt},
        {[&] { return qx_get_extension_from_alias_sess(nullptr, alias.c_str()); }, full1()},
        {[&] { return qx_get_alias_from_full_number(nullptr, full1().c_str()); }, alias},
        {[&] { return qx_get_extension_timezone(ext1_); }, zone},
        {[&] { return qx_get_user_name_from_number(nullptr, full1().c_str()); }, owner},
    };
    int row = 0;
    for (const auto &[lookup, expected] : cases)
        EXPECT_EQ(take(lookup()), expected) << row++;
    EXPECT_EQ(hget("res:cid:ext:" + full1(), "ownona"), owner);
}

TEST_F(Extensions, ExtensionOwnersOfASubtreeAreFoundLevelByLevel) {
    const int client2 = b_ + 4, user3 = b_ + 5;
    qxtest::add_account(client2, b_, 50);
    qxtest::add_account(user3, client2, 100);
    struct Case {
        int account, flag;
        std::vector<int> expected;
    };
    const Case cases[] = {
        {b_, 0, {user(), user2(), user3}},
        {b_, 1, {b_, client(), user(), user2(), client2, user3}},
        {client(), 0, {user(), user2()}},
        {client(), 1, {client(), user(), user2()}},
        {user(), 0, {user()}},
        {b_ + 9, 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.account) + "/" + std::to_string(c.flag));
        size_t count = 99;
        int *ids = qx_get_extensions_of(c.account, c.flag, &count);
        std::vector<int> got(ids, ids + (ids ? count : 0));
        std::free(ids);
        std::vector<int> expected = c.expected;
        std::sort(got.begin(), got.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(got, expected);
    }
}

TEST_F(Extensions, OwnReadThroughStepsReportTheirCacheOperationsAsTheirOwn) {
    // Lookups with their own copy of the read-through steps log the cache lines under this
    // module; lookups that hand the work to the generic layer leave it to the layer.
    const std::string f = full1();
    struct Case {
        std::function<void()> lookup;
        std::string operation;  // the part of the message after "<file>:<line>:"
        const char *source;
    };
    const Case cases[] = {
        {[&] { qx_get_extension_type(f.c_str()); }, "rget_hash_str(res:inf:ext:" + f + ",typ)",
         "../main/zarn_extension:"},
        {[&] { qx_get_extension_type(f.c_str()); }, "rset_hash_str(res:inf:ext:" + f + ",typ,",
         "../main/zarn_extension:"},
        {[&] { qx_get_extension_usrid(f.c_str()); }, "rget_hash_str(res:inf:ext:" + f + ",usrid)",
         "../main/zarn_extension:"},
        {[&] { std::free(qx_get_user_name_from_number(nullptr, f.c_str())); },
         "rget_hash_str(res:cid:ext:" + f + ",ownona)", "../main/zarn_extension:"},
        {[&] { qx_is_multiuser_aware(f.c_str()); }, "cache_hset(res:po:ext:" + f + ",mu,0)",
         "../main/zarn_extension:"},
        {[&] { qx_extension_expired(f.c_str()); }, "cache_hmget(rtl:sipses:ext:" + f + ",2X)",
         "../main/zarn_extension:"},
        {[&] { std::free(qx_extension_get_pref(f.c_str(), "dnd")); },
         "rmget_hash(res:po:ext:" + f + ",X1)", "../main/zarn_cache:"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.operation);
        for (const char *prefix : {"res:inf:ext:", "res:cid:ext:", "res:po:ext:"})
            qxtest::redis({"DEL", prefix + f});
        qxtest::LogCapture log;
        c.lookup();
        size_t seen = 0;
        for (const std::string &line : log.lines()) {
            const size_t at = line.find(":" + c.operation);
            if (at == std::string::npos) continue;
            ++seen;
            EXPECT_EQ(line.rfind(c.source, 0), 0u) << line;
        }
        EXPECT_GE(seen, 1u);
    }
}

}  // namespace
