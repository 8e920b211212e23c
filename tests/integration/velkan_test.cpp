// The DisDB client against the sandbox Redis: round trips, authentication, database choice,
// failover, and the cost of a dead or stalled server.
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxtest.hpp"
#include "velkan.h"

namespace {

static auto *const sandbox_env = qxtest::register_sandbox();

constexpr char kKey[] = "sandbox";
constexpr int kDb = 1;

struct ClientFree {
    void operator()(vk_client_t *c) const { vk_client_destroy(c); }
};
using Client = std::unique_ptr<vk_client_t, ClientFree>;

std::string socket_path() {
    return qxtest::path("/run/redis.sock");
}

Client make_client(const std::vector<std::pair<std::string, int>> &servers,
                   const std::string &key = kKey, int db = kDb) {
    Client c(vk_client_create(1, 2, nullptr, nullptr));
    for (const auto &[host, port] : servers)
        vk_server_add(c.get(), host.c_str(), port, "t");
    if (!key.empty()) vk_set_database_key(c.get(), db, key.data(), key.size());
    vk_select(c.get(), db, 0);
    return c;
}

// A command on database db through a connection of the test's own: strings, integers, nil.
std::string raw(int db, const std::vector<std::string> &argv) {
    std::vector<const char *> args;
    std::vector<size_t> lens;
    for (const auto &a : argv) {
        args.push_back(a.data());
        lens.push_back(a.size());
    }
    std::string out = "(error)";
    if (redisContext *c = redisConnectUnix(socket_path().c_str()); c && !c->err) {
        freeReplyObject(redisCommand(c, "AUTH %s", kKey));
        freeReplyObject(redisCommand(c, "SELECT %d", db));
        if (auto *r = static_cast<redisReply *>(
                redisCommandArgv(c, static_cast<int>(args.size()), args.data(), lens.data()))) {
            if (r->type == REDIS_REPLY_STRING) out.assign(r->str, r->len);
            if (r->type == REDIS_REPLY_INTEGER) out = std::to_string(r->integer);
            if (r->type == REDIS_REPLY_NIL) out = "(nil)";
            freeReplyObject(r);
        }
        redisFree(c);
    }
    return out;
}

// A key of the test's own, deleted at the end of the test.
struct TestKey {
    TestKey(const std::string &name, int db = kDb)
        : db(db), key("qxtest:velkan:" + std::to_string(getpid()) + ":" + name) {}
    ~TestKey() { raw(db, {"DEL", key, key + ":val"}); }
    int db;
    std::string key;
};

std::optional<std::string> hget(vk_client_t *c, const std::string &key, const std::string &f,
                                int *status = nullptr) {
    char *value = nullptr;
    size_t len = 0;
    const int rc =
        vk_hget_whole(c, key.data(), key.size(), f.data(), f.size(), &value, &len, "", 1);
    if (status) *status = rc;
    if (!value) return std::nullopt;
    std::string s(value, len);
    std::free(value);
    return s;
}

TEST(Velkan, FieldValuesSurviveARoundTripByteForByte) {
    const struct {
        std::string field, value;
    } rows[] = {
        {"nam", "Acme Corp"},     {"e", ""},
        {"bin", {"a\0b", 3}},     {{"f\xff", 2}, "\xc3\xa9\xff\x01"},
        {"k:1,2", "x,y:z %s %n"}, {"big", std::string(200000, 'q')},
    };
    auto c = make_client({{socket_path(), 0}});
    TestKey k("roundtrip");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.field);
        ASSERT_EQ(vk_hset(c.get(), k.key.data(), k.key.size(), row.field.data(), row.field.size(),
                          row.value.data(), row.value.size(), 1),
                  VK_OK);
        // Non-persistent data goes through the secondary handle: it must see the same hash.
        EXPECT_EQ(hget(vk_client_secondary(c.get()), k.key, row.field), row.value);
        EXPECT_EQ(raw(kDb, {"HGET", k.key, row.field}), row.value);
    }
}

TEST(Velkan, MultiFieldReadsKeepTheOrderAsked) {
    auto c = make_client({{socket_path(), 0}});
    TestKey k("multi");
    const char *fields[] = {"a", "b", "c"};
    const char *values[] = {"1", "two", ""};
    const size_t lens[] = {1, 1, 1}, vlens[] = {1, 3, 0};
    ASSERT_EQ(vk_hmset(c.get(), k.key.data(), k.key.size(), fields, 3, lens, values, vlens, 0),
              VK_OK);

    const char *ask[] = {"b", "missing", "a", "c"};
    const size_t alens[] = {1, 7, 1, 1};
    char **got = nullptr;
    size_t entries = 0;
    void *buffer = nullptr;
    ASSERT_EQ(vk_hmget_whole(c.get(), k.key.data(), k.key.size(), ask, 4, alens, &got, &entries,
                             &buffer, "", 1),
              VK_OK);
    EXPECT_EQ(entries, 3u);
    EXPECT_STREQ(got[0], "two");
    EXPECT_EQ(got[1], nullptr);
    EXPECT_STREQ(got[2], "1");
    EXPECT_STREQ(got[3], "");
    for (int i = 0; i < 4; ++i)
        std::free(got[i]);
    std::free(got);
    std::free(buffer);

    size_t count = 0;
    char **names = nullptr, **vals = nullptr;
    ASSERT_EQ(vk_hgetall(c.get(), k.key.data(), k.key.size(), &count, &names, &vals, 0, 0), VK_OK);
    std::map<std::string, std::string> all;
    for (size_t i = 0; i < count; ++i) {
        all[names[i]] = vals[i];
        std::free(names[i]);
        std::free(vals[i]);
    }
    std::free(names);
    std::free(vals);
    EXPECT_EQ(all, (std::map<std::string, std::string>{{"a", "1"}, {"b", "two"}, {"c", ""}}));

    const std::string absent = k.key + ":absent";
    EXPECT_EQ(vk_exists(c.get(), absent.data(), absent.size()), 0);
    EXPECT_NE(vk_exists(c.get(), k.key.data(), k.key.size()), 0);
}

TEST(Velkan, SortedSetMemberKeepsItsValueUnlessNull) {
    const struct {
        const char *member;
        std::string value, stored;
    } rows[] = {{"s3:rc/1/2/3.wav", "payload", "payload"},
                {"s3:vm/1/2/4.wav", "_NL_", "(nil)"},
                {"s3:fx/1/2/5.tif", "_NL_x", "_NL_x"}};
    auto c = make_client({{socket_path(), 0}});
    TestKey k("queue");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.member);
        ASSERT_EQ(
            vk_zaddval(vk_client_secondary(c.get()), k.key.data(), k.key.size(), 1700000000.25,
                       row.member, std::strlen(row.member), row.value.data(), row.value.size()),
            VK_OK);
        EXPECT_EQ(raw(kDb, {"ZSCORE", k.key, row.member}), "1700000000.25");
        EXPECT_EQ(raw(kDb, {"HGET", k.key + ":val", row.member}), row.stored);
    }
}

TEST(Velkan, WrongOrMissingDatabaseKeyIsAnError) {
    for (const char *key : {"wrong", ""}) {
        SCOPED_TRACE(key);
        int rc = 0;
        EXPECT_EQ(hget(make_client({{socket_path(), 0}}, key).get(), "x", "f", &rc), std::nullopt);
        EXPECT_EQ(rc, VK_EREPLY);
    }
}

TEST(Velkan, SelectedDatabaseIsUsedOnEveryConnection) {
    TestKey k("db", 6);
    auto c = make_client({{socket_path(), 0}}, kKey, 6);
    ASSERT_EQ(vk_hset(c.get(), k.key.data(), k.key.size(), "f", 1, "six", 3, 0), VK_OK);
    EXPECT_EQ(raw(6, {"HGET", k.key, "f"}), "six");
    EXPECT_EQ(raw(kDb, {"EXISTS", k.key}), "0");

    // Drop the client's connection behind its back: the first call sees the loss, the next
    // one reconnects and must land in database 6 again.
    const std::string list = raw(kDb, {"CLIENT", "LIST"});
    int killed = 0;
    for (size_t pos = 0; (pos = list.find("id=", pos)) != std::string::npos; ++pos) {
        const std::string line = list.substr(pos, list.find('\n', pos) - pos);
        if (line.find(" db=6 ") == std::string::npos) continue;
        killed += std::atoi(
            raw(kDb, {"CLIENT", "KILL", "ID", line.substr(3, line.find(' ') - 3)}).c_str());
    }
    ASSERT_GE(killed, 1);
    int rc = 0;
    auto value = hget(c.get(), k.key, "f", &rc);
    if (rc != VK_OK) {
        EXPECT_EQ(rc, VK_EIO);
        value = hget(c.get(), k.key, "f", &rc);
    }
    EXPECT_EQ(value, "six");
}

TEST(Velkan, UnreachableServersAreSkippedInOrder) {
    auto c = make_client({{"/nonexistent/redis.sock", 0}, {"127.0.0.1", 1}, {socket_path(), 0}});
    TestKey k("failover");
    EXPECT_EQ(vk_hset(c.get(), k.key.data(), k.key.size(), "f", 1, "v", 1, 0), VK_OK);
    EXPECT_EQ(raw(kDb, {"HGET", k.key, "f"}), "v");
}

TEST(Velkan, DeadServerIsReportedOnEveryCall) {
    for (const auto &server :
         {std::pair<std::string, int>{"/nonexistent/redis.sock", 0}, {"127.0.0.1", 1}}) {
        auto c = make_client({server});
        for (int i = 0; i < 3; ++i) {
            int rc = 0;
            hget(c.get(), "k", "f", &rc);
            EXPECT_EQ(rc, VK_ENOSERVER) << server.first;
        }
    }
}

TEST(Velkan, StalledServerTimesOutOnceThenIsLeftAlone) {
    // A listener that never accepts: connections succeed, replies never come.
    const std::string path = "/tmp/qxtest-stalled-" + std::to_string(getpid()) + ".sock";
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(fd, 16), 0);
    auto connections = [fd] {
        int n = 0;
        for (int c; (c = accept(fd, nullptr, nullptr)) >= 0; ++n)
            close(c);
        return n;
    };
    auto c = make_client({{path, 0}});
    int rc = 0;
    hget(c.get(), "k", "f", &rc);
    EXPECT_EQ(rc, VK_EIO);
    EXPECT_GE(connections(), 1);
    for (int i = 0; i < 10; ++i) {
        hget(c.get(), "k", "f", &rc);
        EXPECT_NE(rc, VK_OK);
    }
    EXPECT_EQ(connections(), 0) << "a server that timed out is tried again at once";
    close(fd);
    unlink(path.c_str());
}

}  // namespace
