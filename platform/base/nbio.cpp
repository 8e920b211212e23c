// Descriptor I/O with deadlines, and starting helper programs with their output on a pipe.
//
// Every wait is a poll bounded by the caller's timeout, restarted after signals with what is
// left of it, so no call here can hang on a silent peer.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>

#include "cxx_util.hpp"
#include "zarn_base.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

// Negative or NaN timeouts mean "do not wait"; huge ones are capped by poll's int range.
Clock::time_point deadline_after(float seconds) {
    double s = std::isnan(seconds) || seconds < 0 ? 0.0 : static_cast<double>(seconds);
    constexpr double kMaxSeconds = INT_MAX / 1000.0;
    if (s > kMaxSeconds) s = kMaxSeconds;
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

int remaining_ms(Clock::time_point deadline) {
    auto left = deadline - Clock::now();
    if (left <= Clock::duration::zero()) return 0;
    // Rounded up, so a wait never ends just before the deadline and spins once more.
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Waits until fd reports one of events (or an error/hang-up condition). 1 ready, 0 timed out
// (errno ETIMEDOUT), -1 on error.
int wait_for(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        struct pollfd p = {fd, events, 0};
        int rc = ::poll(&p, 1, remaining_ms(deadline));
        if (rc < 0) {
            if (errno == EINTR) {
                if (Clock::now() >= deadline) break;
                continue;
            }
            return -1;
        }
        if (rc == 0) {
            if (Clock::now() >= deadline) break;
            continue;
        }
        if (p.revents & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
        return 1;
    }
    errno = ETIMEDOUT;
    return 0;
}

bool is_socket(int fd) {
    int type = 0;
    socklen_t len = sizeof type;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0;
}

// One write that cannot block: sockets get MSG_DONTWAIT (and no SIGPIPE), and on a blocking
// pipe a writable poll guarantees room for PIPE_BUF bytes, so at most that much is written.
ssize_t write_some(int fd, const char *p, size_t left, bool socket, bool nonblocking) {
    if (socket) return ::send(fd, p, left, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (!nonblocking && left > PIPE_BUF) left = PIPE_BUF;
    return ::write(fd, p, left);
}

struct SpawnActions {
    posix_spawn_file_actions_t a;
    bool ok;
    SpawnActions() : ok(posix_spawn_file_actions_init(&a) == 0) {}
    ~SpawnActions() {
        if (ok) posix_spawn_file_actions_destroy(&a);
    }
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;
};

struct SpawnAttr {
    posix_spawnattr_t a;
    bool ok;
    SpawnAttr() : ok(posix_spawnattr_init(&a) == 0) {}
    ~SpawnAttr() {
        if (ok) posix_spawnattr_destroy(&a);
    }
    SpawnAttr(const SpawnAttr &) = delete;
    SpawnAttr &operator=(const SpawnAttr &) = delete;
};

// Moves fd above the standard descriptors, so that placing the pipe on fd 1 in the child can
// never collide with the pipe's own descriptors.
int above_stdio(qx::UniqueFd &fd) {
    if (fd.get() > STDERR_FILENO) return 0;
    int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) return -1;
    fd.reset(moved);
    return 0;
}

}  // namespace

extern "C" int fr_connect_nb_unix(const char *path, float timeout) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    size_t len = std::strlen(path);
    if (len == 0 || len >= sizeof addr.sun_path) {
        errno = len ? ENAMETOOLONG : EINVAL;
        return -1;
    }
    std::memcpy(addr.sun_path, path, len);

    auto deadline = deadline_after(timeout);
    qx::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) return -1;
    int rc;
    do {
        rc = ::connect(fd.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        // A Unix socket whose listen queue is full answers EAGAIN; retry until the deadline.
        while (errno == EAGAIN) {
            if (Clock::now() >= deadline) {
                errno = ETIMEDOUT;
                return -1;
            }
            struct timespec pause = {0, 10 * 1000 * 1000};
            ::nanosleep(&pause, nullptr);
            rc = ::connect(fd.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
            if (rc == 0) break;
        }
        if (rc < 0 && errno == EINPROGRESS) {
            if (wait_for(fd.get(), POLLOUT, deadline) <= 0) return -1;
            int err = 0;
            socklen_t elen = sizeof err;
            if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &elen) < 0) return -1;
            if (err != 0) {
                errno = err;
                return -1;
            }
            rc = 0;
        }
        if (rc < 0) return -1;
    }
    // Callers get an ordinary blocking socket; the helpers here bound their own waits.
    int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) < 0) return -1;
    return fd.release();
}

extern "C" ssize_t fr_read_nb(int fd, void *buf, size_t len, float timeout) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (!buf && len) {
        errno = EINVAL;
        return -1;
    }
    if (len == 0) return 0;
    auto deadline = deadline_after(timeout);
    for (;;) {
        int ready = wait_for(fd, POLLIN, deadline);
        if (ready <= 0) return -1;
        ssize_t n = ::read(fd, buf, len);
        if (n >= 0) return n;
        // Someone else took the data, or a signal came in: wait again for what is left.
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return -1;
        if (Clock::now() >= deadline) {
            errno = ETIMEDOUT;
            return -1;
        }
    }
}

extern "C" ssize_t fr_write_nb_full(int fd, const void *buf, size_t len, float timeout) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (!buf && len) {
        errno = EINVAL;
        return -1;
    }
    if (len > static_cast<size_t>(SSIZE_MAX)) {
        errno = EINVAL;
        return -1;
    }
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) return -1;
    const bool socket = is_socket(fd);
    const bool nonblocking = (flags & O_NONBLOCK) != 0;

    auto deadline = deadline_after(timeout);
    const char *p = static_cast<const char *>(buf);
    size_t left = len;
    while (left > 0) {
        int ready = wait_for(fd, POLLOUT, deadline);
        if (ready <= 0) return -1;
        ssize_t n = write_some(fd, p, left, socket, nonblocking);
        if (n < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return -1;
            if (Clock::now() >= deadline) {
                errno = ETIMEDOUT;
                return -1;
            }
            continue;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(len);
}

extern "C" pid_t fr_spawn_async_piped(const char *path, char *const argv[], int *stdout_fd) {
    if (!path || !argv || !argv[0] || !stdout_fd) {
        errno = EINVAL;
        return -1;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) return -1;
    qx::UniqueFd read_end(ends[0]);
    qx::UniqueFd write_end(ends[1]);
    if (above_stdio(read_end) < 0 || above_stdio(write_end) < 0) return -1;

    SpawnActions actions;
    SpawnAttr attr;
    if (!actions.ok || !attr.ok) {
        errno = ENOMEM;
        return -1;
    }
    // dup2 clears close-on-exec on the child's fd 1; both pipe ends themselves are closed on
    // exec, so the child holds the write side exactly once and we see end of file when it ends.
    int rc = posix_spawn_file_actions_adddup2(&actions.a, write_end.get(), STDOUT_FILENO);
    if (rc == 0) {
        // The child starts with no signal blocked and SIGPIPE at its default, whatever state
        // the calling thread is in.
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        rc = posix_spawnattr_setsigmask(&attr.a, &none);
        if (rc == 0) rc = posix_spawnattr_setsigdefault(&attr.a, &defaults);
        if (rc == 0)
            rc = posix_spawnattr_setflags(&attr.a, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    pid_t pid = -1;
    if (rc == 0) rc = posix_spawn(&pid, path, &actions.a, &attr.a, argv, environ);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    *stdout_fd = read_end.release();
    return pid;
}
