// Asterisk console and file helpers: a fake console on a unix socket, a stand-in Asterisk
// executable, and the file-name and path checks.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "utils.h"

namespace {

namespace fs = std::filesystem;

struct TempDir {
    fs::path path;
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "qxconsole-XXXXXX").string();
        path = mkdtemp(tmpl.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

std::optional<std::string> text(safestr_t *s) {
    if (!s) return std::nullopt;
    std::string out(safestr_cstr(s), safestr_length(s));
    safestr_free(s);
    return out;
}

std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// One-connection console: sends a greeting, reads the command up to its NUL, sends output in
// the given pieces (with a pause between them), then waits for the client to hang up.
class FakeConsole {
  public:
    FakeConsole(const fs::path &sock, std::string greeting, std::vector<std::string> output,
                bool hang_up_at_once = false)
        : path_(sock.string()) {
        listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        thread_ = std::thread([this, greeting, output, hang_up_at_once] {
            int c = accept(listener_, nullptr, nullptr);
            if (c < 0) return;
            if (hang_up_at_once) {
                close(c);
                return;
            }
            send_all(c, greeting);
            char ch;
            while (recv(c, &ch, 1, 0) == 1) {
                received_ += ch;
                if (ch == '\0') break;
            }
            for (const auto &piece : output) {
                send_all(c, piece);
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            while (recv(c, &ch, 1, 0) > 0) {
            }
            close(c);
        });
    }
    ~FakeConsole() {
        if (thread_.joinable()) thread_.join();
        close(listener_);
        unlink(path_.c_str());
    }
    // The bytes the client sent; valid once the client has closed its end.
    std::string received() {
        if (thread_.joinable()) thread_.join();
        return received_;
    }

  private:
    static void send_all(int fd, const std::string &s) {
        size_t off = 0;
        while (off < s.size()) {
            ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
            if (n <= 0) return;
            off += static_cast<size_t>(n);
        }
    }
    std::string path_;
    int listener_ = -1;
    std::thread thread_;
    std::string received_;
};

TEST(Console, RunsCommandsOnTheConsoleSocket) {
    struct Case {
        const char *name;
        std::vector<std::string> output;
        int wait;
        std::string expected_stdout;
    };
    const Case cases[] = {
        {"no wait", {"ignored\n"}, 0, ""},
        {"one line", {"Asterisk 20.1.0\n"}, 1, "Asterisk 20.1.0\n"},
        {"line in pieces", {"partial ", "rest\n"}, 1, "partial rest\n"},
        {"two answers", {"first\n", "second\n"}, 1, "first\nsecond\n"},
        {"newline before a trailing byte", {"done\n "}, 1, "done\n "},
        {"format characters stay text", {"100%s %n %d\n"}, 1, "100%s %n %d\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const fs::path sock = dir.path / "asterisk.ctl";
        FakeConsole console(sock, "Asterisk 20.1.0, Copyright (C) 1999 - 2022\n", c.output);
        int fd = ast_connect(sock.c_str());
        ASSERT_GT(fd, 0);
        testing::internal::CaptureStdout();
        int rc = ast_runcmd(fd, "core show channels", c.wait);
        std::string out = testing::internal::GetCapturedStdout();
        close(fd);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(out, c.expected_stdout);
        EXPECT_EQ(console.received(), std::string("core show channels", 19));  // with its NUL
    }
}

TEST(Console, FailsWithoutAConsole) {
    TempDir dir;
    EXPECT_LT(ast_connect((dir.path / "missing.ctl").c_str()), 0);
    EXPECT_LT(ast_connect(nullptr), 0);
    EXPECT_EQ(ast_runcmd(0, "x", 0), -1);
    EXPECT_EQ(ast_runcmd(-1, "x", 0), -1);

    const fs::path sock = dir.path / "asterisk.ctl";
    FakeConsole console(sock, "", {}, /*hang_up_at_once=*/true);
    int fd = ast_connect(sock.c_str());
    ASSERT_GT(fd, 0);
    EXPECT_EQ(ast_runcmd(fd, nullptr, 0), -1);
    EXPECT_EQ(ast_runcmd(fd, "core show version", 0), -1);  // no greeting
    close(fd);
}

TEST(Console, ReadCharStopsAtALineAndFailsOnHangUp) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    std::thread peer([fd = sv[1]] {
        (void)!write(fd, "no newline yet", 14);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        (void)!write(fd, "...end\n", 7);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        close(fd);
    });
    char out = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ast_el_read_char(sv[0], &out), 0);
    EXPECT_EQ(out, 4);
    EXPECT_EQ(ast_el_read_char(sv[0], &out), -1);  // the peer hung up
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "no newline yet...end\n");
    peer.join();
    close(sv[0]);
    EXPECT_EQ(ast_el_read_char(-1, &out), -1);
}

TEST(Console, RasteriskRunsTheBinaryAndDrainsItsOutput) {
    TempDir dir;
    const fs::path script = dir.path / "asterisk";
    const fs::path args = dir.path / "args";
    const fs::path done = dir.path / "done";
    {
        std::ofstream s(script);
        // More output than a pipe holds: the helper must keep reading for the script to end.
        s << "#!/bin/sh\n"
          << "printf '%s\\n' \"$@\" > '" << args.string() << "'\n"
          << "i=0; while [ $i -lt 3000 ]; do echo 'line of console output ....................'"
          << "; i=$((i+1)); done\n"
          << "touch '" << done.string() << "'\n";
    }
    fs::permissions(script, fs::perms::owner_all);

    EXPECT_EQ(rasterisk(script.c_str(), "core show channels verbose"), 0);
    EXPECT_EQ(slurp(args), "-rx\ncore show channels verbose\n");
    EXPECT_TRUE(fs::exists(done));
    // The child was reaped: nothing is left to wait for.
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);

    EXPECT_EQ(rasterisk(script.c_str(), nullptr), -1);
    EXPECT_EQ(rasterisk((dir.path / "missing").c_str(), "core show version"), -1);
}

TEST(Console, PadsNumbers) {
    struct Case {
        int number, width;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {7, 3, "007"}, {1234, 3, "1234"}, {123, 3, "123"},
        {0, 1, "0"},   {0, 4, "0000"},    {-1, 3, {}},
        {5, 0, {}},    {5, -2, {}},       {42, 10, "0000000042"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.number) + " width " + std::to_string(c.width));
        EXPECT_EQ(text(pad(c.number, c.width)), c.expected);
    }
}

TEST(Console, TakesTheExtensionAfterTheLastDot) {
    struct Case {
        const char *name;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"archive.tar.gz", "gz"}, {"name.", {}}, {"name", {}}, {"", {}}, {".hidden", "hidden"},
        {"dir.d/file", "d/file"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        safestr_t *name = safestr_create(c.name);
        EXPECT_EQ(text(get_extension(name)), c.expected);
        safestr_free(name);
    }
    EXPECT_EQ(get_extension(nullptr), nullptr);
}

TEST(Console, ValidatesFileExtensions) {
    const char *audio[] = {"wav", "gsm", nullptr};
    const char *none[] = {nullptr};
    struct Case {
        const char *name;
        const char **allowed;
        int case_sensitive;
        int expected;
    };
    const Case cases[] = {
        {"A.WAV", audio, 0, 1}, {"A.WAV", audio, 1, 0},  {"a.gsm", audio, 1, 1},
        {"a.wa", audio, 0, 0},  {"a.wavx", audio, 0, 0}, {"a.wav.", audio, 0, 0},
        {"wav", audio, 0, 0},   {"a.wav", none, 0, 0},   {"a.gsm.wav", audio, 1, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.name) + (c.case_sensitive ? " exact" : " any case"));
        safestr_t *name = safestr_create(c.name);
        EXPECT_EQ(validate_file_ext(name, c.allowed, c.case_sensitive), c.expected);
        safestr_free(name);
    }
}

TEST(Console, ValidatesAlphanumericNames) {
    struct Case {
        const char *text;
        int length;
        int expected;
    };
    const Case cases[] = {
        {"ab_1", 4, 1},        {"ab_1", 5, 0},       {"a-b", 0, 0},  {"", 0, 1},
        {"", -1, 1},           {"", 2, 0},           {"abc", -5, 1}, {"a b", 0, 0},
        {"caf\xc3\xa9", 0, 0}, {"ABC_xyz_09", 0, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string("'") + c.text + "' length " + std::to_string(c.length));
        safestr_t *t = safestr_create(c.text);
        EXPECT_EQ(validate_alnum(t, c.length), c.expected);
        safestr_free(t);
    }
}

TEST(Console, ChecksSubdirectoriesByResolvedPath) {
    TempDir dir;
    fs::create_directories(dir.path / "a" / "sub");
    fs::create_directories(dir.path / "ab");
    fs::create_directory_symlink(dir.path / "a" / "sub", dir.path / "link");
    struct Case {
        std::string path, dir;
        int expected;
    };
    const Case cases[] = {
        {"a/sub", "a", 1},   {"a", "a", 1},           {"a/sub/..", "a", 1},
        {"link", "a", 1},    {"ab", "a", 1},          {"a", "a/sub", 0},
        {"missing", "a", 0}, {"a/sub", "missing", 0}, {"a/../ab", "a", 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path + " in " + c.dir);
        EXPECT_EQ(check_subdir_of((dir.path / c.path).c_str(), (dir.path / c.dir).c_str()),
                  c.expected);
    }
    EXPECT_EQ(check_subdir_of(nullptr, dir.path.c_str()), 0);
}

TEST(Console, SafeWritesDeliverEverythingAndReadSafeWritesToo) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const std::string payload(300000, 'q');  // several times a pipe's capacity
    std::string got;
    std::thread reader([&] {
        char buf[4096];
        ssize_t n;
        while ((n = read(p[0], buf, sizeof buf)) > 0)
            got.append(buf, static_cast<size_t>(n));
    });
    EXPECT_EQ(write_safe(p[1], payload.data(), static_cast<int>(payload.size())),
              static_cast<int>(payload.size()));
    char abc[] = "abc";
    EXPECT_EQ(read_safe(p[1], abc, 3), 3);  // writes, as it always has
    EXPECT_EQ(write_safe(p[1], "x", 0), 0);
    close(p[1]);
    reader.join();
    close(p[0]);
    EXPECT_EQ(got, payload + "abc");
    EXPECT_EQ(write_safe(p[1], "x", 1), -1);  // closed descriptor
}

}  // namespace
