// Account lookups on the sandbox: the edges that neither the quota engine's plain lookups nor the
// cache layer's multi-name read-through reach.
#include "integration.hpp"
#include "zarn_user.h"

std::string info_key(int id) {
    return "res:inf:mng:" + std::to_string(id);
}
std::string info(int id, const char *field) {
    return qxtest::redis({"HGET", info_key(id), field});
}
// The strings of a lookup's array, released, sorted: neither the cache nor the database
// promises an order.
std::vector<Text> sorted(char **list, size_t count) {
    std::vector<Text> out = take_all(list, static_cast<int>(count));
    std::sort(out.begin(), out.end());
    return out;
}

// Reseller b_, client b_+1, user b_+2, users b_+3 .. b_+7 for table rows; b_+9 is unknown.
class Accounts : public SqlTest {
  protected:
    void SetUp() override {
        b_ = qxtest::fresh_ids(), client_ = b_ + 1, user_ = b_ + 2, unknown_ = b_ + 9;
        qxtest::add_account(b_, 0, 10);
        qxtest::add_account(client_, b_, 50);
        for (int id = user_; id <= b_ + 7; ++id)
            qxtest::add_account(id, client_, 100);
    }
    void TearDown() override {
        EXPECT_EQ(qxtest::redis({"EXISTS", info_key(unknown_)}), "0");  // no unknown id cached
        qxtest::clear_ids(b_);
    }
    void set(const std::string &column, int id) {
        qxtest::sql("UPDATE client SET " + column + " WHERE id=" + std::to_string(id));
    }

    int b_ = 0, client_ = 0, user_ = 0, unknown_ = 0;
};

TEST_F(Accounts, ParentAndNameAreCachedAndATopAccountHasAnEmptyParent) {
    const std::tuple<int, Text, int, std::string> cases[] = {
        {b_, "", -1, ""},
        {client_, std::to_string(b_), b_, std::to_string(b_)},
        {unknown_, none, -2, "(nil)"},
    };
    for (const auto &[id, text, parent, cached] : cases) {
        SCOPED_TRACE(id);
        EXPECT_EQ(take(qx_account_get_parent_str_sess(nullptr, id)), text);
        EXPECT_EQ(info(id, "pid"), cached);
        EXPECT_EQ(qx_account_get_parent_sess(nullptr, id), parent);
    }

    // The name shares the hash; a missing account is reported, not cached.
    qxtest::LogCapture log;
    EXPECT_EQ(take(qx_account_get_name(user_)), "Account " + std::to_string(user_));
    EXPECT_EQ(info(user_, "nam"), "Account " + std::to_string(user_));
    EXPECT_EQ(take(qx_account_get_name_sess(nullptr, unknown_)), none);
    EXPECT_TRUE(
        log.contains("Could not query for client name with id " + std::to_string(unknown_) + "\n"));
}

TEST_F(Accounts, StatusAndLevelFallBackOnTheCacheAsTheyShould) {
    // The phone status column is reduced only when it comes from the database.
    const int phone[][3] = {{1205, 5, 1205}, {-1205, -5, -1205}, {42, 42, 42}, {100, 0, 100}};
    int id = b_ + 3;
    for (const auto &[column, first, later] : phone) {
        SCOPED_TRACE(column);
        set("phonestatus=" + std::to_string(column), id);
        EXPECT_EQ(qx_user_get_phonestatus(id), first);
        EXPECT_EQ(info(id, "pst"), std::to_string(column));
        EXPECT_EQ(qx_user_get_phonestatus(id++), later);
    }

    // Only a cached -1 sends the status lookups to the database.
    set("status=7, phonestatus=7", user_);
    const std::tuple<const char *, int, const char *> status[] = {
        {"-1", 7, "7"}, {"3", 3, "3"}, {"-2", -2, "-2"}, {"_NR_", 0, "_NR_"}, {"", 0, ""},
    };
    for (const auto &[field, get] :
         {std::pair{"st", &qx_user_get_status}, std::pair{"pst", &qx_user_get_phonestatus}}) {
        for (const auto &[cached, expected, cached_after] : status) {
            SCOPED_TRACE(std::string(field) + "=" + cached);
            qxtest::redis({"HSET", info_key(user_), field, cached});
            EXPECT_EQ(get(user_), expected);
            EXPECT_EQ(info(user_, field), cached_after);
        }
        EXPECT_EQ(get(unknown_), -1);
    }

    // The level falls back to what the cache had when the database has none.
    const std::tuple<Text, const char *, int, std::string> level[] = {
        {"-5", "100", 100, "100"},
        {"-5", "NULL", -5, "-5"},
        {"_NR_", "50", 0, "_NR_"},
        {none, "NULL", -1, "(nil)"},
    };
    id = b_ + 4;  // the last without a hash
    for (const auto &[cached, column, expected, cached_after] : level) {
        SCOPED_TRACE(id);
        set(std::string("level=") + column, id);
        if (cached) qxtest::redis({"HSET", info_key(id), "lvl", *cached});
        EXPECT_EQ(qx_account_get_level_sess(nullptr, id), expected);
        EXPECT_EQ(info(id++, "lvl"), cached_after);
    }
    EXPECT_EQ(qx_account_get_level(unknown_), -1);
}

TEST_F(Accounts, ExtensionsComeFromTheIndexHashOnceItExists) {
    const std::string prefix = std::to_string(user_) + "*", parent = std::to_string(client_);
    std::vector<int> ids;
    for (const char *n : {"101", "102"})
        ids.push_back(qxtest::add_extension(user_, n, prefix + n));
    size_t count = 0;
    char **list = qx_user_get_extensions_sess(nullptr, parent.c_str(), user_, 1, &count);
    EXPECT_EQ(sorted(list, count), (std::vector<Text>{"101", "102"}));
    EXPECT_EQ(qxtest::redis({"HGET", "res:ind:" + std::to_string(user_) + ":ext", "102"}),
              std::to_string(ids[1]));

    // An extension added later stays invisible while the index hash exists.
    qxtest::add_extension(user_, "104", prefix + "104");
    list = qx_user_get_extensions_sess(nullptr, parent.c_str(), user_, 0, &count);
    EXPECT_EQ(sorted(list, count), (std::vector<Text>{prefix + "101", prefix + "102"}));

    // An account without extensions caches nothing.
    EXPECT_EQ(qx_user_get_extensions_sess(nullptr, parent.c_str(), b_ + 3, 1, &count), nullptr);
    EXPECT_EQ(qxtest::redis({"EXISTS", "res:ind:" + std::to_string(b_ + 3) + ":ext"}), "0");
}
