// Set-up of the cache client from the node's configuration files, on the sandbox.
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qxtest.hpp"
#include "zarn_velkan.h"

// The library and the set-up write to syslog directly; the test binary takes those lines.
namespace {
std::mutex g_syslog_mutex;
std::vector<std::string> g_syslog;
}  // namespace

extern "C" void vsyslog(int, const char *fmt, va_list ap) {
    char line[1024];
    std::vsnprintf(line, sizeof line, fmt, ap);
    std::lock_guard lock(g_syslog_mutex);
    g_syslog.emplace_back(line);
}

extern "C" void syslog(int priority, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsyslog(priority, fmt, ap);
    va_end(ap);
}

namespace {

static auto *const sandbox_env = qxtest::register_sandbox();

std::vector<std::string> take_syslog() {
    std::lock_guard lock(g_syslog_mutex);
    return std::exchange(g_syslog, {});
}

bool has_line(const std::vector<std::string> &lines, const std::string &needle) {
    for (const auto &l : lines)
        if (l.find(needle) != std::string::npos) return true;
    return false;
}

struct ClientFree {
    void operator()(vk_client_t *c) const { vk_client_destroy(c); }
};
using Client = std::unique_ptr<vk_client_t, ClientFree>;

Client new_client() {
    return Client(vk_client_create(1, 2, nullptr, nullptr));
}

std::string sock() {
    return qxtest::path("/run/redis.sock");
}
std::string main_host() {
    return "DISDBASE_HOST main:node1:cache:" + sock() + ":0\n";
}

TEST(ZarnVelkan, HostValuesAreSplitIntoNameHostAndPort) {
    const struct {
        std::string value;
        int status;
        std::string syslog_line;
    } rows[] = {
        {"main:a:b:10.0.0.5:6400", 0, "server [a:b] added: 10.0.0.5 port 6400"},
        {"main:a:b:fe80::5:6400", 0, "server [a:b] added: fe80::5 port 6400"},
        {"main:n1:n2:/run/r.sock:0", 0, "server [n1:n2] added: /run/r.sock port 0"},
        {"main:a:b:host", 1, "Failed to parse disdb host. Entry: main:a:b:host.\n"},
        {"main:a:b:h:", 1, "Failed to parse disdb host. Entry: main:a:b:h:.\n"},
        {"main:a:b:h:80x", 1, "Failed to parse disdb host. Entry: main:a:b:h:80x.\n"},
        {"main:a:b:h:65536", 1, "Failed to parse disdb host. Entry: main:a:b:h:65536.\n"},
        {"backup:a:b:h:1", 1, "Skiping velkan server (null) from partition backup"},
        {"Main:a:b:h:1", 1, "Skiping velkan server (null) from partition Main"},
        {"main:a:b:h:0", VK_EINVAL, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.value);
        auto c = new_client();
        vk_enable_syslog(c.get(), VK_LOG_EVENT);
        take_syslog();
        EXPECT_EQ(add_vk_srv_(c.get(), row.value.c_str()), row.status);
        const auto lines = take_syslog();
        if (!row.syslog_line.empty()) {
            EXPECT_TRUE(has_line(lines, row.syslog_line));
        }
        if (row.status != 0) {
            EXPECT_FALSE(has_line(lines, "added"));
        }
    }
}

TEST(ZarnVelkan, SyslogLevelWordsSetMaskBits) {
    const struct {
        const char *levels;
        int mask;             // 0: nothing enabled
        const char *unknown;  // the words reported as unknown, each in brackets
    } rows[] = {
        {"ERROR|DEBUG", 0x3, ""},
        {"DEBUG|DEBUG", 0x2, ""},
        {"EVENT|NOTICE|WARNING", 0x1c, ""},
        {"ERROR|", 0x1, ""},
        {"error", 0, "[error]"},
        {" ERROR", 0, "[ ERROR]"},
        {"ERROR |DEBUG", 0x2, "[ERROR ]"},
        {"VERBOSE||x", 0, "[VERBOSE][][x]"},
        {"", 0, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.levels);
        auto c = new_client();
        take_syslog();
        qxtest::LogCapture log;
        EXPECT_EQ(add_vk_syslog_(c.get(), row.levels), 0);
        std::string unknown;
        for (const auto &l : log.lines())
            unknown += l.substr(l.find('['), l.find(']') - l.find('[') + 1);
        EXPECT_EQ(unknown, row.unknown);
        auto lines = take_syslog();
        std::vector<std::string> expected{std::string("Parsing syslog loglevel for libvelkan: ") +
                                          row.levels};
        if (row.mask) {
            char text[64];
            std::snprintf(text, sizeof text, "Enabling syslog for libvelkan. Loglevel: 0x%X",
                          row.mask);
            expected.emplace_back(text);
        }
        EXPECT_EQ(lines, expected);
    }
}

// Each row replaces disdbase.conf for the length of one ast_vk_init, then writes through the
// new client to see which database (if any) it reached.
TEST(ZarnVelkan, SetUpFollowsTheFirstValidMainEntries) {
    const std::string disdbase = qxtest::path("/etc/quorvex/disdbase.conf");
    const std::string key = "qxtest:zarn_velkan:" + std::to_string(getpid());
    const std::string creds = "DISDBASE_CREDENTIALS ";
    const struct {
        const char *name;
        std::string text;
        int result;
        std::vector<std::string> logged;
        const char *db_with_key;  // EXISTS in that database; nullptr: the write is refused
    } rows[] = {
        {"sandbox as configured",
         main_host() + creds + "main:s:sandbox:1\n",
         0,
         {"Adding vk server [main:node1:cache:" + sock() + ":0] was successfull.\n"},
         "1"},
        {"other partitions skipped",
         "DISDBASE_HOST backup:n:c:10.9.9.9:6379\n" + main_host() + creds + "backup:s:x:2\n" +
             creds + "main:s:sandbox:1\n",
         0,
         {"Failed to add vk server [backup:n:c:10.9.9.9:6379] from " + disdbase + ".\n",
          "Skipping velkan credentials for partition backup.\n"},
         "1"},
        {"invalid entries numbered",
         main_host() + creds + "main:x:k\n" + creds + "main:x:k:0\n" + creds + "main:s:sandbox:1\n",
         0,
         {". Entry nr: 0.\n", ". Invalid db number. Entry nr: 1.\n"},
         "1"},
        {"second main entry ignored",
         main_host() + creds + "main:s:sandbox:4\n" + creds + "main:s:wrong:1\n",
         0,
         {},
         "4"},
        {"empty key sets no key", main_host() + creds + "main:x::3\n", 0, {}, nullptr},
        {"malformed numbers reported",
         "DISDBASE_HOST main:a:b:h:99999\n" + main_host() + creds + "main:s:sandbox:2x\n" + creds +
             "main:s:sandbox:1\n",
         0,
         {"Invalid DISDBASE_HOST value [main:a:b:h:99999] in ",
          ". Invalid db number. Entry nr: 0.\n"},
         "1"},
        {"no main host",
         "DISDBASE_HOST backup:n:c:10.9.9.9:6379\n" + creds + "main:s:sandbox:1\n",
         -1,
         {},
         nullptr},
        {"no main credentials", main_host() + creds + "backup:s:sandbox:1\n", -1, {}, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        qxtest::LogCapture log;
        vk_client_t *raw = nullptr;
        int rc;
        {
            qxtest::ConfFile swap(disdbase, row.text);
            rc = ast_vk_init(&raw);
        }
        Client c(raw);
        EXPECT_EQ(rc, row.result);
        ASSERT_NE(c, nullptr);  // the client stays, whatever the outcome
        for (const auto &l : row.logged)
            EXPECT_TRUE(log.contains(l)) << l;

        const int written = vk_hset(c.get(), key.data(), key.size(), "f", 1, "v", 1, 0);
        EXPECT_EQ(written == VK_OK, row.db_with_key != nullptr) << written;
        if (row.db_with_key) {
            const std::string db = row.db_with_key;
            EXPECT_EQ(qxtest::redis({"EVAL",
                                     "redis.call('SELECT', ARGV[1]) local n = "
                                     "redis.call('DEL', KEYS[1]) redis.call('SELECT', 1) return n",
                                     "1", key, db}),
                      "1");
        }
    }
}

}  // namespace
