// Account lookups on the sandbox: what comes from the database, what is written to the cache,
// and when a cached answer wins. Account ids come fresh for every test.
#include <algorithm>
#include <cstdlib>
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
const Text none;

Text take(char *s) {
    Text out = s ? Text(s) : none;
    std::free(s);
    return out;
}
std::string info_key(int id) {
    return "res:inf:mng:" + std::to_string(id);
}
std::string info(int id, const char *field) {
    return qxtest::redis({"HGET", info_key(id), field});
}
// The strings of a lookup's array, released, sorted: neither the cache nor the database
// promises an order.
std::vector<Text> sorted(char **list, size_t count) {
    std::vector<Text> out;
    for (size_t i = 0; list && i < count; ++i)
        out.push_back(list[i] ? Text(list[i]) : none);
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
    void TearDown() override {
        EXPECT_EQ(qxtest::redis({"EXISTS", info_key(b_ + 9)}), "0");  // no unknown id cached
        qxtest::clear_ids(b_);
    }
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
    const std::tuple<int, Text, int, std::string> cases[] = {
        {b_, "", -1, ""},
        {client(), std::to_string(b_), b_, std::to_string(b_)},
        {unknown(), none, -2, "(nil)"},
    };
    for (const auto &[id, text, parent, cached] : cases) {
        SCOPED_TRACE(id);
        EXPECT_EQ(take(qx_account_get_parent_str_sess(nullptr, id)), text);
        EXPECT_EQ(info(id, "pid"), cached);
        EXPECT_EQ(qx_account_get_parent_sess(nullptr, id), parent);
    }

    // The name shares the hash; a missing account is reported, not cached.
    qxtest::LogCapture log;
    EXPECT_EQ(take(qx_account_get_name(user())), "Account " + std::to_string(user()));
    EXPECT_EQ(info(user(), "nam"), "Account " + std::to_string(user()));
    EXPECT_EQ(take(qx_account_get_name_sess(nullptr, unknown())), none);
    EXPECT_TRUE(log.contains("Could not query for client name with id " +
                             std::to_string(unknown()) + "\n"));

    qxtest::sql("UPDATE client SET parent_client_id=" + std::to_string(user()) +
                " WHERE id=" + std::to_string(client()));
    EXPECT_EQ(qx_account_get_parent_sess(nullptr, client()), b_);
}

TEST_F(Accounts, StatusAndLevelFallBackOnTheCacheAsTheyShould) {
    std::vector<int> accounts;  // the phone rows' accounts are the first level rows' too
    for (int row = 0; row < 6; ++row)
        accounts.push_back(row_account(row));
    // The phone status column is reduced only when it comes from the database.
    const int phone[][3] = {{1205, 5, 1205}, {-1205, -5, -1205}, {42, 42, 42}, {100, 0, 100}};
    int row = 0;
    for (const auto &[column, first, later] : phone) {
        SCOPED_TRACE(column);
        const int id = accounts[row++];
        qxtest::sql("UPDATE client SET phonestatus=" + std::to_string(column) +
                    " WHERE id=" + std::to_string(id));
        EXPECT_EQ(qx_user_get_phonestatus(id), first);
        EXPECT_EQ(info(id, "pst"), std::to_string(column));
        EXPECT_EQ(qx_user_get_phonestatus(id), later);
    }

    // Only a cached -1 sends the status lookups to the database.
    qxtest::sql("UPDATE client SET status=7, phonestatus=7 WHERE id=" + std::to_string(user()));
    const std::tuple<const char *, int, const char *> status[] = {
        {"-1", 7, "7"}, {"3", 3, "3"}, {"-2", -2, "-2"}, {"_NR_", 0, "_NR_"}, {"", 0, ""},
    };
    for (const auto &[field, get] :
         {std::pair{"st", &qx_user_get_status}, std::pair{"pst", &qx_user_get_phonestatus}}) {
        for (const auto &[cached, expected, cached_after] : status) {
            SCOPED_TRACE(std::string(field) + "=" + cached);
            qxtest::redis({"HSET", info_key(user()), field, cached});
            EXPECT_EQ(get(user()), expected);
            EXPECT_EQ(info(user(), field), cached_after);
        }
        EXPECT_EQ(get(unknown()), -1);
    }

    // The level falls back to what the cache had when the database has none.
    const std::tuple<Text, const char *, int, std::string> level[] = {
        {none, "50", 50, "50"},    {"-5", "100", 100, "100"}, {"-5", "NULL", -5, "-5"},
        {"_NR_", "50", 0, "_NR_"}, {"10", "50", 10, "10"},    {none, "NULL", -1, "(nil)"},
    };
    row = 0;
    for (const auto &[cached, column, expected, cached_after] : level) {
        const int id = accounts[row++];
        SCOPED_TRACE(id);
        qxtest::sql(std::string("UPDATE client SET level=") + column +
                    " WHERE id=" + std::to_string(id));
        if (cached) qxtest::redis({"HSET", info_key(id), "lvl", *cached});
        EXPECT_EQ(qx_account_get_level_sess(nullptr, id), expected);
        EXPECT_EQ(info(id, "lvl"), cached_after);
    }
    EXPECT_EQ(qx_account_get_level(unknown()), -1);
}

TEST_F(Accounts, ExtensionsComeFromTheDatabaseOnceAndThenFromTheIndexHash) {
    const std::string prefix = std::to_string(user()) + "*", parent = std::to_string(client());
    std::vector<int> ids;
    for (const char *n : {"101", "102", "103"})
        ids.push_back(qxtest::add_extension(user(), n, prefix + n));
    size_t count = 0;
    char **list = qx_user_get_extensions_sess(nullptr, parent.c_str(), user(), 1, &count);
    EXPECT_EQ(sorted(list, count), (std::vector<Text>{"101", "102", "103"}));
    EXPECT_EQ(qxtest::redis({"HGET", "res:ind:" + std::to_string(user()) + ":ext", "102"}),
              std::to_string(ids[1]));

    // An extension added later stays invisible while the index hash exists.
    qxtest::add_extension(user(), "104", prefix + "104");
    list = qx_user_get_extensions_sess(nullptr, parent.c_str(), user(), 0, &count);
    EXPECT_EQ(sorted(list, count),
              (std::vector<Text>{prefix + "101", prefix + "102", prefix + "103"}));

    // Full numbers straight from the database; an account without extensions caches nothing.
    const int other = row_account(0), empty = row_account(1);
    qxtest::add_extension(other, "555", std::to_string(other) + "*555");
    list = qx_user_get_extensions_sess(nullptr, parent.c_str(), other, 0, &count);
    EXPECT_EQ(sorted(list, count), (std::vector<Text>{std::to_string(other) + "*555"}));
    EXPECT_EQ(qx_user_get_extensions_sess(nullptr, parent.c_str(), empty, 1, &count), nullptr);
    EXPECT_EQ(qxtest::redis({"EXISTS", "res:ind:" + std::to_string(empty) + ":ext"}), "0");
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
    auto read_all = [&] {
        char **values = qx_account_get_prefs(user(), 5, names);
        std::vector<Text> out;
        for (int i = 0; values && i < 5; ++i)
            out.push_back(values[i] ? Text(values[i]) : none);
        rget_free_vals(5, values);
        return out;
    };
    EXPECT_EQ(read_all(), (std::vector<Text>{"1000", "2000", none, "5", "x"}));
    EXPECT_EQ(
        qxtest::redis({"HMGET", "res:pre:mng:" + std::to_string(user()), "mrec", "fax", "mvoc"}),
        "1000\n2000\n_NR_");
    EXPECT_EQ(info(user(), "ecc"), "5");

    qxtest::add_pref(user(), "max_record", "9999");
    qxtest::add_pref(user(), "no_binding", "y");
    EXPECT_EQ(read_all(), (std::vector<Text>{"1000", "2000", none, "5", "y"}));
    EXPECT_EQ(take(qx_account_get_pref(user(), "fax_storage")), "2000");
    EXPECT_EQ(take(qx_account_get_pref(user(), "max_voice")), none);
}

}  // namespace
