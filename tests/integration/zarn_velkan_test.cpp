// Set-up of the cache client from the node's configuration files, on the sandbox.
#include <cstdarg>

#include "integration.hpp"
#include "zarn_velkan.h"

// The library and the set-up write to syslog directly; the test binary takes those lines.
std::mutex g_syslog_mutex;
std::string g_syslog;  // one line after another, each ending in "\n"

extern "C" void vsyslog(int, const char *fmt, va_list ap) {
    char line[1024];
    std::vsnprintf(line, sizeof line, fmt, ap);
    std::lock_guard lock(g_syslog_mutex);
    g_syslog += line + std::string("\n");
}

extern "C" void syslog(int priority, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsyslog(priority, fmt, ap);
    va_end(ap);
}

std::string take_syslog() {
    std::lock_guard lock(g_syslog_mutex);
    return std::exchange(g_syslog, {});
}

using Client = std::unique_ptr<vk_client_t, decltype(&vk_client_destroy)>;
Client new_client(vk_client_t *c = vk_client_create(1, 2, nullptr, nullptr)) {
    return Client(c, &vk_client_destroy);
}

TEST(ZarnVelkan, HostValuesAreSplitIntoNameHostAndPort) {
    const std::string bad = "Failed to parse disdb host. Entry: main:a:b:";
    const std::tuple<std::string, int, std::string> rows[] = {
        {"main:a:b:10.0.0.5:65535", 0, "server [a:b] added: 10.0.0.5 port 65535"},
        {"main:a:b:fe80::5:6400", 0, "server [a:b] added: fe80::5 port 6400"},
        {"main:n1:n2:/run/r.sock:0", 0, "server [n1:n2] added: /run/r.sock port 0"},
        {"main:a:b:host", 1, bad + "host.\n"},
        {"main:a:b:h:", 1, bad + "h:.\n"},
        {"main:a:b:h:80x", 1, bad + "h:80x.\n"},
        {"main:a:b:h:65536", 1, bad + "h:65536.\n"},
        {"backup:a:b:h:1", 1, "Skiping velkan server (null) from partition backup"},
        {"Main:a:b:h:1", 1, "Skiping velkan server (null) from partition Main"},
        {"main:a:b:h:0", VK_EINVAL, ""},
    };
    for (const auto &[value, status, line] : rows) {
        SCOPED_TRACE(value);
        auto c = new_client();
        vk_enable_syslog(c.get(), VK_LOG_EVENT);
        take_syslog();
        EXPECT_EQ(add_vk_srv_(c.get(), value.c_str()), status);
        const std::string lines = take_syslog();
        EXPECT_NE(lines.find(line), std::string::npos);
        EXPECT_EQ(status == 0, lines.find("added") != std::string::npos);
    }
}

TEST(ZarnVelkan, SyslogLevelWordsSetMaskBits) {
    // The mask enabled ("": nothing) and the words reported as unknown, each in brackets.
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"ERROR|DEBUG|DEBUG", "0x3", ""},  // a word repeated is no toggle
        {"EVENT|NOTICE|WARNING", "0x1C", ""},    {"ERROR|", "0x1", ""},
        {"error| ERROR", "", "[error][ ERROR]"}, {"ERROR |DEBUG", "0x2", "[ERROR ]"},
        {"VERBOSE||x", "", "[VERBOSE][][x]"},    {"", "", ""},
    };
    for (const auto &[levels, mask, unknown] : rows) {
        SCOPED_TRACE(levels);
        auto c = new_client();
        take_syslog();
        qxtest::LogCapture log;
        EXPECT_EQ(add_vk_syslog_(c.get(), levels), 0);
        std::string reported;
        for (const auto &l : log.lines())
            reported += l.substr(l.find('['), l.find(']') - l.find('[') + 1);
        EXPECT_EQ(reported, unknown);
        std::string expected = "Parsing syslog loglevel for libvelkan: " + std::string(levels);
        if (*mask) expected += "\nEnabling syslog for libvelkan. Loglevel: " + std::string(mask);
        EXPECT_EQ(take_syslog(), expected + "\n");
    }
}

// Each row replaces disdbase.conf for the length of one ast_vk_init, then writes through the
// new client to see which database (if any) it reached.
TEST(ZarnVelkan, SetUpFollowsTheFirstValidMainEntries) {
    const std::string disdbase = qxtest::path("/etc/quorvex/disdbase.conf");
    const std::string key = "qxtest:zarn_velkan:" + std::to_string(getpid());
    const std::string H = "DISDBASE_HOST main:node1:cache:" + qxtest::path("/run/redis.sock:0\n"),
                      C = "DISDBASE_CREDENTIALS ", B = "DISDBASE_HOST backup:n:c:10.9.9.9:6379\n",
                      db_nr = ". Invalid db number. Entry nr: ";
    const std::string S = C + "main:s:sandbox:1\n";
    // The file, the status, two lines logged ("" for none), the database the write lands in
    // (nullptr: the write is refused).
    using Row = std::tuple<std::string, int, std::string, std::string, const char *>;
    const Row rows[] = {
        {H + S, 0,
         "Adding vk server [main:node1:cache:" + qxtest::path("/run/redis.sock") +
             ":0] was successfull.\n",
         "", "1"},
        {B + H + C + "backup:s:x:2\n" + S, 0,
         "Failed to add vk server [backup:n:c:10.9.9.9:6379] from " + disdbase + ".\n",
         "Skipping velkan credentials for partition backup.\n", "1"},
        {H + C + "main:x:k\n" + C + "main:x:k:0\n" + S, 0, ". Entry nr: 0.\n", db_nr + "1.\n", "1"},
        {H + C + "main:s:sandbox:4\n" + C + "main:s:wrong:1\n", 0, "", "", "4"},  // second ignored
        {H + C + "main:x::3\n", 0, "", "", nullptr},  // an empty key sets none
        {"DISDBASE_HOST main:a:b:h:99999\n" + H + C + "main:s:sandbox:2x\n" + S, 0,
         "Invalid DISDBASE_HOST value [main:a:b:h:99999] in ", db_nr + "0.\n", "1"},
        {B + S, -1, "", "", nullptr},
        {H + C + "backup:s:sandbox:1\n", -1, "", "", nullptr},
    };
    for (const auto &[text, result, logged1, logged2, db_with_key] : rows) {
        SCOPED_TRACE(text);
        qxtest::LogCapture log;
        vk_client_t *raw = nullptr;
        int rc;
        {
            qxtest::ConfFile swap(disdbase, text);
            rc = ast_vk_init(&raw);
        }
        Client c = new_client(raw);
        EXPECT_EQ(rc, result);
        ASSERT_NE(c, nullptr);  // the client stays, whatever the outcome
        for (const std::string &l : {logged1, logged2})
            EXPECT_TRUE(l.empty() || log.contains(l)) << l;
        const int written = vk_hset(c.get(), key.data(), key.size(), "f", 1, "v", 1, 0);
        EXPECT_EQ(written == VK_OK, db_with_key != nullptr) << written;
        if (db_with_key) {
            EXPECT_EQ(qxtest::redis({"EVAL",
                                     "redis.call('SELECT', ARGV[1]) local n = "
                                     "redis.call('DEL', KEYS[1]) redis.call('SELECT', 1) return n",
                                     "1", key, db_with_key}),
                      "1");
        }
    }
}
