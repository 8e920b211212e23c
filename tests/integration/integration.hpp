// Shared by the integration test programs: the sandbox started once per program, one fixture per
// module family, owners of what the C API hands out, and a server that never answers.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_cache.h"

namespace fs = std::filesystem;
using Text = std::optional<std::string>;
inline const Text none;

inline auto *const sandbox_env = qxtest::register_sandbox();

// A malloc'd string's text (nullopt for NULL), freed.
inline Text take(char *s) {
    Text out = s ? Text(s) : none;
    std::free(s);
    return out;
}

// The n strings of an array the C API hands out (nullopt for NULL), released with its free.
inline std::vector<Text> take_all(char **vals, int n,
                                  void (*release)(int, char **) = rget_free_vals) {
    std::vector<Text> out;
    for (int i = 0; vals && i < n; ++i)
        out.push_back(vals[i] ? Text(vals[i]) : none);
    if (vals) release(n, vals);
    return out;
}

// The modules that talk to the database share the process's pool, opened once per family.
class SqlTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }
};

// Quota files are handed to asterisk:asterisk; without that account the engine creates none.
class QuotaTest : public SqlTest {
  protected:
    void SetUp() override {
        if (!getpwnam("asterisk") || !getgrnam("asterisk"))
            GTEST_SKIP() << "needs the asterisk user and group";
    }
};

// A unix listener that never accepts: connections succeed, the server's greeting or reply never
// comes. connections() takes (and closes) what was queued since the last call.
struct StalledServer {
    const std::string path;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    explicit StalledServer(std::string where) : path(std::move(where)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        unlink(path.c_str());
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(listen(fd, 16), 0);
    }
    ~StalledServer() {
        close(fd);
        unlink(path.c_str());
    }
    int connections() const {
        int n = 0;
        for (int c; (c = accept(fd, nullptr, nullptr)) >= 0; ++n)
            close(c);
        return n;
    }
};
