// The DisDB client against the sandbox Redis. Authentication and multi-field reads are checked
// through the cache set-up and the cache layer.
#include "integration.hpp"
#include "velkan.h"

using Client = std::unique_ptr<vk_client_t, decltype(&vk_client_destroy)>;

Client client(const std::vector<std::pair<std::string, int>> &servers, int db = 1,
              const std::string &key = "sandbox") {
    Client c(vk_client_create(1, 2, nullptr, nullptr), &vk_client_destroy);
    for (const auto &[host, port] : servers)
        vk_server_add(c.get(), host.c_str(), port, "t");
    vk_set_database_key(c.get(), db, key.data(), key.size());
    vk_select(c.get(), db, 0);
    return c;
}
Client sandbox(int db = 1) {
    return client({{qxtest::path("/run/redis.sock"), 0}}, db);
}

Text hget(vk_client_t *c, const std::string &key, const std::string &f, int *status = nullptr) {
    char *value = nullptr;
    size_t len = 0;
    const int rc =
        vk_hget_whole(c, key.data(), key.size(), f.data(), f.size(), &value, &len, "", 1);
    if (status) *status = rc;
    Text out = value ? Text(std::string(value, len)) : std::nullopt;
    std::free(value);
    return out;
}

// Each test writes under a key of its own, deleted afterwards.
class Velkan : public ::testing::Test {
  protected:
    void TearDown() override { qxtest::redis({"DEL", key_, key_ + ":val"}); }
    const std::string key_ = "qxtest:velkan:" + std::to_string(getpid());
};

TEST_F(Velkan, SortedSetMemberKeepsItsValueUnlessNull) {
    const std::tuple<const char *, std::string, std::string> rows[] = {
        {"s3:rc/1/2/3.wav", "payload", "payload"},
        {"s3:vm/1/2/4.wav", "_NL_", "(nil)"},
        {"s3:fx/1/2/5.tif", "_NL_x", "_NL_x"}};
    auto c = sandbox();
    for (const auto &[member, value, stored] : rows) {
        SCOPED_TRACE(member);
        ASSERT_EQ(vk_zaddval(vk_client_secondary(c.get()), key_.data(), key_.size(), 1700000000.25,
                             member, std::strlen(member), value.data(), value.size()),
                  VK_OK);
        EXPECT_EQ(qxtest::redis({"ZSCORE", key_, member}), "1700000000.25");
        EXPECT_EQ(qxtest::redis({"HGET", key_ + ":val", member}), stored);
    }
}

// Values of every kind (empty; a NUL, high bytes, separators and format characters; more than
// any fixed buffer) in database 6, before and after the client's connection is dropped behind its
// back: the first call sees the loss, the next one reconnects and must land in database 6 again.
TEST_F(Velkan, ValuesSurviveByteForByteInTheChosenDatabaseAcrossAReconnect) {
    int rc = 0;  // a wrong key is refused (no key at all: the cache set-up rows)
    hget(client({{qxtest::path("/run/redis.sock"), 0}}, 1, "wrong").get(), "x", "f", &rc);
    EXPECT_EQ(rc, VK_EREPLY);

    const std::pair<std::string, std::string> rows[] = {
        {"e", ""},
        {"k:1,\xff", {"a\0\xc3\xa9\xff\x01 x,y:z %s %n", 18}},
        {"big", std::string(200000, 'q')}};
    auto c = sandbox(6);
    for (const auto &[field, value] : rows) {
        ASSERT_EQ(vk_hset(c.get(), key_.data(), key_.size(), field.data(), field.size(),
                          value.data(), value.size(), 1),
                  VK_OK);
        // Non-persistent data goes through the secondary handle: it must see the same hash.
        EXPECT_EQ(hget(vk_client_secondary(c.get()), key_, field), value);
    }
    EXPECT_EQ(qxtest::redis({"EXISTS", key_}), "0");
    const std::string list = qxtest::redis({"CLIENT", "LIST"});
    int killed = 0;
    for (size_t pos = 0; (pos = list.find("id=", pos)) != std::string::npos; ++pos) {
        const std::string line = list.substr(pos, list.find('\n', pos) - pos);
        if (line.find(" db=6 ") == std::string::npos) continue;
        killed += std::atoi(
            qxtest::redis({"CLIENT", "KILL", "ID", line.substr(3, line.find(' ') - 3)}).c_str());
    }
    ASSERT_GE(killed, 1);
    for (const auto &[field, value] : rows) {
        Text got = hget(c.get(), key_, field, &rc);
        if (rc != VK_OK) {
            EXPECT_EQ(rc, VK_EIO);
            got = hget(c.get(), key_, field, &rc);
        }
        EXPECT_EQ(got, value);
        EXPECT_EQ(qxtest::redis({"EVAL",
                                 "redis.call('SELECT', 6) local v = redis.call('HGET', KEYS[1], "
                                 "ARGV[1]) redis.call('SELECT', 1) return v",
                                 "1", key_, field}),
                  value);
    }
    // The whole hash at once (its values as C strings).
    size_t count = 0;
    char **names = nullptr, **vals = nullptr;
    ASSERT_EQ(vk_hgetall(c.get(), key_.data(), key_.size(), &count, &names, &vals, 0, 0), VK_OK);
    std::map<std::string, std::string> all;
    for (size_t i = 0; i < count; ++i)
        all[*take(names[i])] = *take(vals[i]);
    std::free(names);
    std::free(vals);
    for (const auto &[field, value] : rows)
        EXPECT_EQ(all[field], value.c_str());
    EXPECT_EQ(all.size(), std::size(rows));
    qxtest::redis({"EVAL", "redis.call('SELECT', 6) redis.call('DEL', KEYS[1])", "1", key_});
}

TEST_F(Velkan, UnreachableServersAreSkippedInOrderAndADeadOneReportedOnEveryCall) {
    auto c = client(
        {{"/nonexistent/redis.sock", 0}, {"127.0.0.1", 1}, {qxtest::path("/run/redis.sock"), 0}});
    EXPECT_EQ(vk_hset(c.get(), key_.data(), key_.size(), "f", 1, "v", 1, 0), VK_OK);
    EXPECT_EQ(qxtest::redis({"HGET", key_, "f"}), "v");
    for (const auto &server :
         {std::pair<std::string, int>{"/nonexistent/redis.sock", 0}, {"127.0.0.1", 1}}) {
        auto dead = client({server});
        for (int i = 0; i < 3; ++i) {
            int rc = 0;
            hget(dead.get(), "k", "f", &rc);
            EXPECT_EQ(rc, VK_ENOSERVER) << server.first;
        }
    }
}

TEST_F(Velkan, StalledServerTimesOutOnceThenIsLeftAlone) {
    const StalledServer stalled("/tmp/qxtest-stalled-" + std::to_string(getpid()) + ".sock");
    auto c = client({{stalled.path, 0}});
    int rc = 0;
    hget(c.get(), "k", "f", &rc);
    EXPECT_EQ(rc, VK_EIO);
    EXPECT_GE(stalled.connections(), 1);
    for (int i = 0; i < 10; ++i) {
        hget(c.get(), "k", "f", &rc);
        EXPECT_NE(rc, VK_OK);
    }
    EXPECT_EQ(stalled.connections(), 0) << "a server that timed out is tried again at once";
}
