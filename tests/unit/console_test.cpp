// Asterisk console and file helpers.
#include <sys/un.h>

#include "unit.hpp"
#include "utils.h"

// One-connection console: sends the greeting, reads the command up to its NUL, sends the output
// pieces 50 ms apart and waits for the client to hang up. Without a greeting it hangs up at once.
struct FakeConsole {
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    string received;  // complete once the thread has ended
    std::thread thread;
    FakeConsole(const string &sock, const string &greeting, const std::vector<string> &output) {
        sockaddr_un addr{AF_UNIX, {}};
        std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        thread = std::thread([this, greeting, output] {
            const int c = accept(listener, nullptr, nullptr);
            char ch = 1;
            if (!greeting.empty()) {
                send(c, greeting.data(), greeting.size(), MSG_NOSIGNAL);
                while (ch && recv(c, &ch, 1, 0) == 1)
                    received += ch;
                for (const auto &piece : output) {
                    send(c, piece.data(), piece.size(), MSG_NOSIGNAL);
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
                while (recv(c, &ch, 1, 0) > 0)
                    continue;
            }
            close(c);
        });
    }
    ~FakeConsole() { thread.joinable() ? thread.join() : void(), close(listener); }
};

// A row: the console's output pieces, whether the command waits for them, what reaches
// stdout; without a greeting the console hangs up at once and the command fails.
TEST(Console, RunsCommandsOnTheConsoleSocket) {
    using Pieces = std::vector<string>;
    const string hello = "Asterisk 20.1.0, Copyright (C) 1999 - 2022\n";
    const std::tuple<string, Pieces, int, string, int> rows[] = {
        {hello, {"ignored\n"}, 0, "", 0},
        {hello, {"partial ", "rest\n"}, 1, "partial rest\n", 0},
        {hello, {"first\n", "second\n"}, 1, "first\nsecond\n", 0},
        {hello, {"done\n "}, 1, "done\n ", 0},              // newline before a trailing byte
        {hello, {"100%s %n %d\n"}, 1, "100%s %n %d\n", 0},  // format characters stay text
        {"", {}, 0, "", -1}};
    for (const auto &[greeting, output, wait, want, rc] : rows) {
        SCOPED_TRACE(want);
        TempDir dir;
        FakeConsole console(dir / "asterisk.ctl", greeting, output);
        int fd = ast_connect((dir / "asterisk.ctl").c_str());
        ASSERT_GT(fd, 0);
        testing::internal::CaptureStdout();
        EXPECT_EQ(ast_runcmd(fd, "core show channels", wait), rc);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
        EXPECT_EQ(ast_runcmd(fd, nullptr, 0), -1);
        close(fd);
        console.thread.join();
        EXPECT_EQ(console.received, rc ? "" : string("core show channels", 19));  // with NUL
    }
    EXPECT_LT(ast_connect("/nonexistent/asterisk.ctl"), 0);
    EXPECT_EQ(ast_runcmd(0, "x", 0), -1);
}

TEST(Console, ReadCharStopsAtALineAndFailsOnHangUp) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_EQ(write(sv[1], "end\n", 4), 4);
    close(sv[1]);
    char out = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ((std::tuple<int, char, int>{ast_el_read_char(sv[0], &out), out,
                                          ast_el_read_char(sv[0], &out)}),
              std::tuple(0, '\4', -1));  // end of transmission, then the peer hung up
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "end\n");
    close(sv[0]);
    EXPECT_EQ(ast_el_read_char(-1, &out), -1);
}

TEST(Console, RasteriskRunsTheBinaryAndDrainsItsOutput) {
    TempDir dir;
    // More output than a pipe holds: the helper must keep reading for the script to end.
    const string script =
        dir.write("asterisk", "#!/bin/sh\ncd '" + dir.dir.string() +
                                  "' && printf '%s\\n' \"$@\" > args\n"
                                  "seq 3000 | sed 's/$/ line of console output/'\n"
                                  "touch done\n");
    fs::permissions(script, fs::perms::owner_all);
    EXPECT_EQ(rasterisk(script.c_str(), "core show channels verbose"), 0);
    EXPECT_EQ(read(dir / "args"), "-rx\ncore show channels verbose\n");
    EXPECT_TRUE(fs::exists(dir / "done"));
    EXPECT_EQ((std::pair<int, int>{waitpid(-1, nullptr, WNOHANG), errno}), std::pair(-1, ECHILD));
    EXPECT_EQ(rasterisk(script.c_str(), nullptr), -1);
    EXPECT_EQ(rasterisk((dir / "missing").c_str(), "core show version"), -1);
}

TEST(Console, NameHelpersTable) {
    const std::tuple<int, int, Opt> pads[] = {{7, 3, "007"},  {1234, 3, "1234"}, {123, 3, "123"},
                                              {0, 4, "0000"}, {-1, 3, no},       {5, 0, no},
                                              {5, -2, no}};
    for (auto [number, width, want] : pads)
        EXPECT_EQ(take(pad(number, width)), want) << number << " width " << width;

    const std::pair<const char *, Opt> exts[] = {
        {"archive.tar.gz", "gz"}, {"name.", no},           {"name", no}, {"", no},
        {".hidden", "hidden"},    {"dir.d/file", "d/file"}};
    for (auto [name, want] : exts) {
        safestr_t *s = safestr_create(name);
        EXPECT_EQ(take(get_extension(s)), want) << name;
        safestr_free(s);
    }

    const char *audio[] = {"wav", "gsm", nullptr}, *none[] = {nullptr};
    const std::tuple<const char *, const char **, int, int> files[] = {
        {"A.WAV", audio, 0, 1}, {"A.WAV", audio, 1, 0},  {"a.gsm", audio, 1, 1},
        {"a.wa", audio, 0, 0},  {"a.wavx", audio, 0, 0}, {"a.wav.", audio, 0, 0},
        {"wav", audio, 0, 0},   {"a.wav", none, 0, 0},   {"a.gsm.wav", audio, 1, 1}};
    for (auto [name, allowed, exact, want] : files) {
        safestr_t *s = safestr_create(name);
        EXPECT_EQ(validate_file_ext(s, allowed, exact), want) << name << " exact " << exact;
        safestr_free(s);
    }

    // A length of 0 or less checks the characters only; non-ASCII bytes are no letters.
    const std::tuple<const char *, int, int> texts[] = {
        {"ab_1", 4, 1}, {"ab_1", 5, 0}, {"a-b", 0, 0},         {"", 0, 1},
        {"", 2, 0},     {"abc", -5, 1}, {"caf\xc3\xa9", 0, 0}, {"ABC_xyz_09", 0, 1}};
    for (auto [text, length, want] : texts) {
        safestr_t *s = safestr_create(text);
        EXPECT_EQ(validate_alnum(s, length), want) << "'" << text << "' length " << length;
        safestr_free(s);
    }
}

TEST(Console, ChecksSubdirectoriesByResolvedPath) {
    TempDir dir;
    fs::create_directories(dir.dir / "a" / "sub");
    fs::create_directories(dir.dir / "ab");
    fs::create_directory_symlink(dir.dir / "a" / "sub", dir.dir / "link");
    // A plain prefix of the resolved path: "ab" counts as inside "a".
    const std::tuple<const char *, const char *, int> rows[] = {
        {"a/sub", "a", 1}, {"a", "a", 1},     {"a/sub/..", "a", 1}, {"link", "a", 1},
        {"ab", "a", 1},    {"a", "a/sub", 0}, {"missing", "a", 0},  {"a/sub", "missing", 0}};
    for (auto [path, in, want] : rows)
        EXPECT_EQ(check_subdir_of((dir / path).c_str(), (dir / in).c_str()), want) << path;
    EXPECT_EQ(check_subdir_of(nullptr, dir.dir.c_str()), 0);
}

// read_safe writes, as it always has.
TEST(Console, SafeWritesDeliverEverythingAndReadSafeWritesToo) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const string payload(300000, 'q');  // several times a pipe's capacity
    std::thread writer([&] {
        char abc[] = "abc";
        EXPECT_EQ(write_safe(p[1], payload.data(), int(payload.size())), int(payload.size()));
        EXPECT_EQ(std::pair(read_safe(p[1], abc, 3), write_safe(p[1], "x", 0)), std::pair(3, 0));
        close(p[1]);
    });
    EXPECT_EQ(read("/dev/fd/" + std::to_string(p[0])), payload + "abc");
    writer.join();
    close(p[0]);
    EXPECT_EQ(write_safe(p[1], "x", 1), -1);  // closed descriptor
}

// The account lookups hand out entries whose every field is its own allocation; the leak
// checker of the sanitizer build sees a field left behind.
TEST(Console, FreeingAccountEntriesReleasesEveryField) {
    auto *pw = static_cast<passwd *>(std::calloc(1, sizeof(passwd)));
    for (char **f : {&pw->pw_name, &pw->pw_passwd, &pw->pw_gecos, &pw->pw_dir, &pw->pw_shell})
        *f = strdup("x");
    free_pw_nam(pw);
    for (int members : {2, -1}) {  // -1: no member list at all
        auto *gr = static_cast<group *>(std::calloc(1, sizeof(group)));
        gr->gr_name = strdup("asterisk");
        gr->gr_passwd = strdup("x");
        if (members >= 0)
            gr->gr_mem = static_cast<char **>(std::calloc(members + 1, sizeof(char *)));
        for (int i = 0; i < members; ++i)
            gr->gr_mem[i] = strdup("member");
        free_gr_nam(gr);
    }
}
