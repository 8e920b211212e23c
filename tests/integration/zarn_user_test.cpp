// Account lookups on the sandbox: what comes from the database, what is written to the cache,
// and when a cached answer wins. Account ids come fresh for every test, so no cache key of a
// test exists before it runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_cache.h"
#include "zarn_user.h"

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

using Text = std::optional<std::string>;
const std::string kNil = "(nil)";

Text take(char *s) {
    Text out = s ? Text(s) : std::nullopt;
    std::free(s);
    return out;
}

std::string info_key(int id) {
    return "res:inf:mng:" + std::to_string(id);
}
std::string info(int id, const char *field) {
    return qxtest::redis({"HGET", info_key(id), field});
}
std::string exists(const std::string &key) {
    return qxtest::redis({"EXISTS", key});
}

// The strings of a lookup's array, sorted (neither the cache nor the database promises an
// order); the array is released.
std::vector<std::string> sorted(char **list, size_t count) {
    std::vector<std::string> out;
    for (size_t i = 0; list && i < count; ++i)
        out.push_back(list[i] ? list[i] : "(null)");
    rget_free_vals(static_cast<int>(count), list);
    std::sort(out.begin(), out.end());
    return out;
}

class Accounts : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }

    void SetUp() override {
        b_ = qxtest::fresh_ids();
        qxtest::add_account(b_, 0, 10);
        qxtest::add_account(client(), b_, 50);
        qxtest::add_account(user(), client(), 100);
    }
    void TearDown() override { qxtest::clear_ids(b_); }
    // A user account for one table row: ids b_+3 .. b_+8.
    int row_account(int row) const {
        qxtest::add_account(b_ + 3 + row, client(), 100);
        return b_ + 3 + row;
    }

    int client() const { return b_ + 1; }
    int user() const { return b_ + 2; }
    int unknown() const { return b_ + 9; }

    int b_ = 0;
};

TEST_F(Accounts, ParentAndNameAreCachedAndATopAccountHasAnEmptyParent) {
    struct Case {
        int id;
        Text text;
        int parent;
        std::string cached;
    };
    const Case cases[] = {
        {b_, "", -1, ""},
        {client(), std::to_string(b_), b_, std::to_string(b_)},
        {unknown(), std::nullopt, -2, kNil},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.id);
        EXPECT_EQ(take(qx_account_get_parent_str_sess(nullptr, c.id)), c.text);
        EXPECT_EQ(info(c.id, "pid"), c.cached);
        EXPECT_EQ(qx_account_get_parent_sess(nullptr, c.id), c.parent);
    }
    EXPECT_EQ(exists(info_key(unknown())), "0");

    // The name shares the hash; a missing account is reported, not cached.
    qxtest::LogCapture log;
    EXPECT_EQ(take(qx_account_get_name(user())), "Account " + std::to_string(user()));
    EXPECT_EQ(info(user(), "nam"), "Account " + std::to_string(user()));
    EXPECT_EQ(take(qx_account_get_name_sess(nullptr, unknown())), std::nullopt);
    EXPECT_TRUE(log.contains("Could not query for client name with id " +
                             std::to_string(unknown()) + "\n"));

    qxtest::sql("UPDATE client SET parent_client_id=" + std::to_string(user()) +
                " WHERE id=" + std::to_string(client()));
    EXPECT_EQ(qx_account_get_parent_sess(nullptr, client()), b_);
}

TEST_F(Accounts, PhoneStatusIsReducedOnlyWhenItComesFromTheDatabase) {
    const int cases[][3] = {{1205, 5, 1205}, {-1205, -5, -1205}, {42, 42, 42}, {100, 0, 100}};
    int row = 0;
    for (const auto &[column, first, later] : cases) {
        SCOPED_TRACE(column);
        const int id = row_account(row++);
        qxtest::sql("UPDATE client SET phonestatus=" + std::to_string(column) +
                    " WHERE id=" + std::to_string(id));
        EXPECT_EQ(qx_user_get_phonestatus(id), first);
        EXPECT_EQ(info(id, "pst"), std::to_string(column));
        EXPECT_EQ(qx_user_get_phonestatus(id), later);
    }
}

TEST_F(Accounts, StatusLookupsAskTheDatabaseOnlyForACachedMinusOne) {
    qxtest::sql("UPDATE client SET status=7, phonestatus=7 WHERE id=" + std::to_string(user()));
    struct Case {
        const char *cached;
        int expected;
        const char *cached_after;
    };
    const Case cases[] = {
        {"-1", 7, "7"}, {"3", 3, "3"}, {"-2", -2, "-2"}, {"_NR_", 0, "_NR_"}, {"", 0, ""},
    };
    const std::pair<const char *, int (*)(int)> lookups[] = {{"st", qx_user_get_status},
                                                             {"pst", qx_user_get_phonestatus}};
    for (const auto &[field, get] : lookups) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(field) + "=" + c.cached);
            qxtest::redis({"HSET", info_key(user()), field, c.cached});
            EXPECT_EQ(get(user()), c.expected);
            EXPECT_EQ(info(user(), field), c.cached_after);
        }
        EXPECT_EQ(get(unknown()), -1);
    }
    EXPECT_EQ(exists(info_key(unknown())), "0");
}

TEST_F(Accounts, LevelFallsBackToWhatItHadWhenTheDatabaseHasNoLevel) {
    struct Case {
        Text cached;         // nullopt: nothing cached
        const char *column;  // SQL literal
        int expected;
        std::string cached_after;
    };
    const Case cases[] = {
        {std::nullopt, "50", 50, "50"}, {"-5", "100", 100, "100"}, {"-5", "NULL", -5, "-5"},
        {"_NR_", "50", 0, "_NR_"},      {"10", "50", 10, "10"},    {std::nullopt, "NULL", -1, kNil},
    };
    int row = 0;
    for (const Case &c : cases) {
        const int id = row_account(row++);
        SCOPED_TRACE(id);
        qxtest::sql(std::string("UPDATE client SET level=") + c.column +
                    " WHERE id=" + std::to_string(id));
        if (c.cached) qxtest::redis({"HSET", info_key(id), "lvl", *c.cached});
        EXPECT_EQ(qx_account_get_level_sess(nullptr, id), c.expected);
        EXPECT_EQ(info(id, "lvl"), c.cached_after);
    }
    EXPECT_EQ(qx_account_get_level(unknown()), -1);
    EXPECT_EQ(exists(info_key(unknown())), "0");
}

TEST_F(Accounts, ExtensionsComeFromTheDatabaseOnceAndThenFromTheIndexHash) {
    const std::string prefix = std::to_string(user()) + "*";
    const std::string index = "res:ind:" + std::to_string(user()) + ":ext";
    std::vector<int> ids;
    for (const char *n : {"101", "102", "103"}) {
        ids.push_back(qxtest::add_extension(user(), n, prefix + n));
    }
    const std::string parent = std::to_string(client());
    size_t count = 0;
    char **list = qx_user_get_extensions_sess(nullptr, parent.c_str(), user(), 1, &count);
    EXPECT_EQ(sorted(list, count), (std::vector<std::string>{"101", "102", "103"}));
    EXPECT_EQ(qxtest::redis({"HGET", index, "102"}), std::to_string(ids[1]));

    // An extension added later stays invisible while the index hash exists.
    qxtest::add_extension(user(), "104", prefix + "104");
    list = qx_user_get_extensions_sess(nullptr, parent.c_str(), user(), 0, &count);
    EXPECT_EQ(sorted(list, count),
              (std::vector<std::string>{prefix + "101", prefix + "102", prefix + "103"}));

    // Full numbers straight from the database; an account without extensions caches nothing.
    const int other = row_account(0), empty = row_account(1);
    qxtest::add_extension(other, "555", std::to_string(other) + "*555");
    list = qx_user_get_extensions_sess(nullptr, parent.c_str(), other, 0, &count);
    EXPECT_EQ(sorted(list, count), (std::vector<std::string>{std::to_string(other) + "*555"}));
    EXPECT_EQ(qx_user_get_extensions_sess(nullptr, parent.c_str(), empty, 1, &count), nullptr);
    EXPECT_EQ(exists("res:ind:" + std::to_string(empty) + ":ext"), "0");
}

TEST_F(Accounts, PreferencesAreCachedPerBindingAndUnboundNamesAlwaysAskTheDatabase) {
    for (const auto &[param, value] : {std::pair{"max_record", "1000"},
                                       {"fax_storage", "2000"},
                                       {"max_maxconcurent", "5"},
                                       {"no_binding", "x"}}) {
        qxtest::add_pref(user(), param, value);
    }
    const char *names[] = {"max_record", "fax_storage", "max_voice", "max_maxconcurent",
                           "no_binding"};
    const int n = static_cast<int>(std::size(names));
    auto read_all = [&] {
        char **values = qx_account_get_prefs(user(), n, names);
        std::vector<Text> out;
        for (int i = 0; values && i < n; ++i)
            out.push_back(values[i] ? Text(values[i]) : Text());
        rget_free_vals(n, values);
        return out;
    };
    EXPECT_EQ(read_all(), (std::vector<Text>{"1000", "2000", std::nullopt, "5", "x"}));
    const std::string pre = "res:pre:mng:" + std::to_string(user());
    EXPECT_EQ(qxtest::redis({"HMGET", pre, "mrec", "fax", "mvoc"}), "1000\n2000\n_NR_");
    EXPECT_EQ(info(user(), "ecc"), "5");

    qxtest::add_pref(user(), "max_record", "9999");
    qxtest::add_pref(user(), "no_binding", "y");
    EXPECT_EQ(read_all(), (std::vector<Text>{"1000", "2000", std::nullopt, "5", "y"}));
    EXPECT_EQ(take(qx_account_get_pref(user(), "fax_storage")), "2000");
    EXPECT_EQ(take(qx_account_get_pref(user(), "max_voice")), std::nullopt);
}

}  // namespace
