// Asterisk remote-console helpers and small file helpers of the utils module.
#include <poll.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "cxx_util.hpp"
#include "utils.h"
#include "zarn_base.h"

namespace {

constexpr char kVersion[] = "quorvex 1.0.0";
constexpr char kRemoteExecute[] = "-rx";
constexpr char kMsgPollFailed[] = "poll failed: %s\n";

constexpr float kConnectTimeout = 10.0f;
constexpr float kIoTimeout = 10.0f;
constexpr float kRasteriskReadTimeout = 5.0f;
constexpr size_t kRasteriskChunk = 1024;
constexpr size_t kGreetingMax = 80;
constexpr size_t kReadChunk = 511;
constexpr int kOutputPollMs = 100;
constexpr auto kOutputWindow = std::chrono::seconds(5);
// Asterisk has shut its output once it closed the pipe; give it this long to be reaped.
constexpr auto kReapWindow = std::chrono::seconds(5);
constexpr char kEndOfTransmission = 4;

// The loop shared by write_safe and read_safe: retries on EINTR, stops at a zero write.
int write_all(int fd, const void *buf, int len) {
    if (fd < 0 || len < 0 || (len > 0 && !buf)) return -1;
    const char *p = static_cast<const char *>(buf);
    int done = 0;
    while (done < len) {
        ssize_t n = ::write(fd, p + done, static_cast<size_t>(len - done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<int>(n);
    }
    return done;
}

std::string_view view(const safestr_t *s) {
    const char *text = safestr_cstr(s);
    return text ? std::string_view(text, safestr_length(s)) : std::string_view();
}

void reap(pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + kReapWindow;
    for (;;) {
        pid_t r = waitpid(pid, nullptr, WNOHANG);
        if (r != 0 && !(r < 0 && errno == EINTR)) return;  // reaped, or not ours to reap
        if (std::chrono::steady_clock::now() >= deadline) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

extern "C" {

int rasterisk(const char *asterisk_binary, const char *command) {
    if (!asterisk_binary || !command) return -1;
    try {
        std::string binary(asterisk_binary), opt(kRemoteExecute), cmd(command);
        char *argv[] = {binary.data(), opt.data(), cmd.data(), nullptr};
        int out_fd = -1;
        pid_t pid = fr_spawn_async_piped(asterisk_binary, argv, &out_fd);
        if (pid < 0) return -1;
        qx::UniqueFd out(out_fd);
        // The output is only drained so that Asterisk never blocks on a full pipe.
        char buf[kRasteriskChunk];
        bool eof = false;
        for (;;) {
            ssize_t n = fr_read_nb(out.get(), buf, sizeof buf, kRasteriskReadTimeout);
            if (n <= 0) {
                eof = n == 0;
                break;
            }
        }
        out.reset();
        if (eof)
            reap(pid);
        else
            waitpid(pid, nullptr, WNOHANG);
        return 0;
    } catch (...) {
        return -1;
    }
}

int ast_connect(const char *socket_path) {
    if (!socket_path) return -1;
    return fr_connect_nb_unix(socket_path, kConnectTimeout);
}

int ast_el_read_char(int fd, char *out) {
    if (fd < 0 || !out) return -1;
    char buf[kReadChunk];
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        int ready = poll(&pfd, 1, -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            std::fprintf(stderr, kMsgPollFailed, std::strerror(errno));
            return -1;
        }
        ssize_t n = fr_read_nb(fd, buf, sizeof buf, kIoTimeout);
        if (n < 1) return -1;
        // Console output is arbitrary text: it is copied, never interpreted as a format.
        std::fwrite(buf, 1, static_cast<size_t>(n), stdout);
        std::fflush(stdout);
        if (buf[n - 1] == '\n' || (n > 1 && buf[n - 2] == '\n')) {
            *out = kEndOfTransmission;
            return 0;
        }
    }
}

int ast_runcmd(int fd, const char *command, int wait) {
    if (fd <= 0 || !command) return -1;
    char greeting[kGreetingMax];
    // A console that closes before greeting is as unusable as one that fails.
    if (fr_read_nb(fd, greeting, sizeof greeting, kIoTimeout) <= 0) return -1;
    const size_t len = std::strlen(command) + 1;  // the console expects the NUL
    if (fr_write_nb_full(fd, command, len, kIoTimeout) != static_cast<ssize_t>(len)) return -1;
    if (!wait) return 0;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        int ready = poll(&pfd, 1, kOutputPollMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        char c = 0;
        if (ast_el_read_char(fd, &c) < 0) return -1;
        if (std::chrono::steady_clock::now() - start > kOutputWindow) break;
    }
    return 0;
}

int write_safe(int fd, const void *buf, int len) {
    return write_all(fd, buf, len);
}

int read_safe(int fd, void *buf, int len) {
    return write_all(fd, buf, len);
}

int check_subdir_of(const char *path, const char *dir) {
    if (!path || !dir) return 0;
    qx::CStr real_path(realpath(path, nullptr));
    qx::CStr real_dir(realpath(dir, nullptr));
    if (!real_path || !real_dir) return 0;
    // A plain text prefix: "/srv/ab" counts as inside "/srv/a", as it always has.
    const size_t n = std::strlen(real_dir.get());
    return std::strncmp(real_path.get(), real_dir.get(), n) == 0 ? 1 : 0;
}

safestr_t *pad(int number, int width) {
    if (number < 0 || width <= 0) return nullptr;
    try {
        std::string digits = std::to_string(number);
        if (digits.size() >= static_cast<size_t>(width)) return safestr_create(digits.c_str());
        std::string padded(static_cast<size_t>(width) - digits.size(), '0');
        padded += digits;
        return safestr_create(padded.c_str());
    } catch (...) {
        return nullptr;
    }
}

safestr_t *get_extension(const safestr_t *name) {
    if (!name) return nullptr;
    std::string_view text = view(name);
    size_t dot = text.rfind('.');
    if (dot == std::string_view::npos || dot + 1 == text.size()) return nullptr;
    std::string_view ext = text.substr(dot + 1);
    return safestr_create_len(ext.data(), ext.size());
}

int validate_file_ext(const safestr_t *name, const char **extensions, int case_sensitive) {
    if (!extensions) return 0;
    safestr_t *ext = get_extension(name);
    if (!ext) return 0;
    const char *e = safestr_cstr(ext);
    int found = 0;
    for (const char **allowed = extensions; *allowed; ++allowed) {
        if ((case_sensitive ? std::strcmp(e, *allowed) : strcasecmp(e, *allowed)) == 0) {
            found = 1;
            break;
        }
    }
    safestr_free(ext);
    return found;
}

int validate_alnum(const safestr_t *text, int length) {
    if (!text) return 0;
    std::string_view s = view(text);
    if (length > 0 && s.size() != static_cast<size_t>(length)) return 0;
    for (char c : s)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return 0;
    return 1;
}

void free_pw_nam(struct passwd *entry) {
    if (!entry) return;
    std::free(entry->pw_name);
    std::free(entry->pw_passwd);
    std::free(entry->pw_gecos);
    std::free(entry->pw_dir);
    std::free(entry->pw_shell);
    std::free(entry);
}

void free_gr_nam(struct group *entry) {
    if (!entry) return;
    std::free(entry->gr_name);
    std::free(entry->gr_passwd);
    if (entry->gr_mem) {
        for (char **m = entry->gr_mem; *m; ++m)
            std::free(*m);
        std::free(entry->gr_mem);
    }
    std::free(entry);
}

char *get_version_string(void) {
    return qx::c_copy(kVersion);
}

}  // extern "C"
