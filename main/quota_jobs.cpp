// Parallel subtree refresh. The parent looks the targets up and cuts their subtrees into units
// finer than the targets: every child of a target, and, when those are too few to keep the
// workers busy, every grandchild. A unit is walked whole by one worker with the very code of
// the sequential walk, the same id texts and the same force depth; the own files of an account
// whose children are units are handed out only once all of them have finished, so that they sum
// fresh files exactly as the sequential walk does. Nothing is measured twice, and every quota
// file and dirty mark ends as the sequential run leaves it.
//
// Targets whose subtrees overlap (a user chosen together with its reseller) depend on the order
// of the sequential loop; such a run stays sequential.
#include "quota_jobs.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <unordered_set>
#include <vector>

#include "quota.h"
#include "quota_refresh.hpp"
#include "sqlsession.h"
#include "zarn_base.h"
#include "zarn_cache.h"
#include "zarn_sql.h"

namespace {

using qx::refresh::Account;

constexpr char kSrc[] = "../main/quota_jobs";
constexpr int kLogChannel = 3;
constexpr int kLogError = 3;
constexpr char kWorkerFmt[] = "%s:%d:refresh worker %d %s %d\n";
constexpr char kNoWorkerFmt[] = "%s:%d:no refresh worker could be started: %s\n";
constexpr char kLostCause[] = "its refresh worker died";
constexpr char kUnservedCause[] = "no refresh worker was left to take it";
// With fewer units than this per worker, the grandchildren of the targets become units too.
constexpr size_t kUnitsPerWorker = 8;
constexpr int kMaxJobs = 256;
constexpr int kMaxLevelWithChildren = 99;

struct Node {
    Account account;
    int target = 0;
    int up = -1;            // the node whose own files wait for this one
    int waiting = 0;        // child nodes not finished yet
    bool expanded = false;  // its children are nodes: only its own files are left to it
    bool done = false;
    bool lost = false;
};

struct Reply {
    int32_t unit;
    int32_t faults;
};

struct Worker {
    pid_t pid = -1;
    int fd = -1;
    int unit = -1;
};

bool write_all(int fd, const void *buf, size_t n) {
    const char *p = static_cast<const char *>(buf);
    while (n > 0) {
        // A worker that died must not take the parent with it through SIGPIPE.
        const ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool read_all(int fd, void *buf, size_t n) {
    char *p = static_cast<char *>(buf);
    while (n > 0) {
        const ssize_t r = ::recv(fd, p, n, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

}  // namespace

// Defined only in coverage builds. A worker leaves through _exit, which skips the handler that
// writes a process's counts, so it writes its own (after dropping the copy inherited at fork).
extern "C" void __gcov_dump(void) __attribute__((weak));
extern "C" void __gcov_reset(void) __attribute__((weak));

namespace {

// A worker: units in, fault counts out, until the parent closes the socket.
[[noreturn]] void serve(int fd, const std::vector<Node> &nodes, int kind) {
    if (__gcov_reset) __gcov_reset();
    // The parent's SQL connections and cache client talk on sockets the parent still uses:
    // they are forgotten here, not closed, and made again on first use.
    fr_sqlpool_forget();
    qx_sql_pool_init();
    *ast_cache_handle() = nullptr;
    qx::refresh::batch_lookups();
    int status = 0;
    try {
        int32_t unit;
        while (read_all(fd, &unit, sizeof unit)) {
            if (unit < 0 || static_cast<size_t>(unit) >= nodes.size()) break;
            const Node &n = nodes[static_cast<size_t>(unit)];
            const int faults = n.expanded ? qx::refresh::refresh_own(n.account, kind)
                                          : qx::refresh::walk(n.account, kind);
            const Reply reply{unit, faults};
            if (!write_all(fd, &reply, sizeof reply)) break;
        }
    } catch (...) {
        status = 1;  // the unit in hand is then counted as lost by the parent
    }
    // No exit handlers: they belong to the parent, and so does anything left in stdio buffers.
    if (__gcov_dump) __gcov_dump();
    ::_exit(status);
}

class Refresh {
  public:
    Refresh(const int *accounts, int count, int kind, int force, int *results)
        : accounts_(accounts),
          count_(count),
          kind_(kind),
          force_(force),
          results_(results),
          faults_(static_cast<size_t>(count), 0),
          lost_(static_cast<size_t>(count), false) {}

    // False when the targets overlap and the refresh must stay sequential.
    bool plan(size_t jobs) {
        std::unordered_set<int> ids;
        std::vector<std::vector<int>> ancestors(static_cast<size_t>(count_));
        for (int i = 0; i < count_; ++i) {
            Node root;
            root.target = i;
            results_[i] = qx::refresh::look_up_target(accounts_[i], force_, root.account,
                                                      ancestors[static_cast<size_t>(i)]);
            if (results_[i] != 0) continue;
            if (!ids.insert(accounts_[i]).second) return false;
            nodes_.push_back(std::move(root));
        }
        for (const Node &root : nodes_)
            for (int a : ancestors[static_cast<size_t>(root.target)])
                if (ids.count(a)) return false;

        const size_t roots = nodes_.size();
        for (size_t n = 0; n < roots; ++n)
            expand(n);
        if (nodes_.size() - roots < kUnitsPerWorker * jobs) {
            const size_t children = nodes_.size();
            for (size_t n = roots; n < children; ++n)
                expand(n);
        }
        for (size_t n = 0; n < nodes_.size(); ++n)
            if (!nodes_[n].expanded || nodes_[n].waiting == 0)
                ready_.push_back(static_cast<int>(n));
        return true;
    }

    void run(size_t jobs) {
        std::vector<Worker> workers;
        const size_t spawn = std::min(jobs, nodes_.size());
        for (size_t i = 0; i < spawn; ++i) {
            int sv[2];
            if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) break;
            const pid_t pid = ::fork();
            if (pid == 0) {
                // Only its own socket: the parent's close of another worker's end must reach it.
                for (const Worker &w : workers)
                    ::close(w.fd);
                ::close(sv[0]);
                serve(sv[1], nodes_, kind_);
            }
            ::close(sv[1]);
            if (pid < 0) {
                ::close(sv[0]);
                break;
            }
            workers.push_back({pid, sv[0], -1});
        }
        if (workers.empty() && !nodes_.empty()) {
            FR_LOG(kSrc, kLogChannel, kLogError, kNoWorkerFmt, kSrc, __LINE__,
                   std::strerror(errno));
            while (!ready_.empty()) {
                const size_t n = static_cast<size_t>(ready_.front());
                ready_.pop_front();
                finish(n, run_here(nodes_[n]));
            }
        }

        std::vector<pollfd> fds;
        std::vector<Worker *> polled;
        for (;;) {
            for (Worker &w : workers) {
                if (w.fd < 0 || w.unit >= 0 || ready_.empty()) continue;
                const int unit = ready_.front();
                ready_.pop_front();
                if (write_all(w.fd, &unit, sizeof unit)) {
                    w.unit = unit;
                } else {
                    ready_.push_front(unit);
                    drop(w);
                }
            }
            fds.clear();
            polled.clear();
            for (Worker &w : workers) {
                if (w.fd < 0 || w.unit < 0) continue;
                fds.push_back({w.fd, POLLIN, 0});
                polled.push_back(&w);
            }
            if (fds.empty()) break;
            if (::poll(fds.data(), fds.size(), -1) < 0) {
                if (errno == EINTR) continue;
                break;
            }
            for (size_t i = 0; i < fds.size(); ++i) {
                if (fds[i].revents == 0) continue;
                Worker &w = *polled[i];
                Reply reply{};
                const int unit = w.unit;
                w.unit = -1;
                if (read_all(w.fd, &reply, sizeof reply) && reply.unit == unit) {
                    finish(static_cast<size_t>(unit), reply.faults);
                } else {
                    drop(w);
                    lose(static_cast<size_t>(unit), kLostCause);
                }
            }
        }
        for (Worker &w : workers)
            drop(w);
        for (size_t n = 0; n < nodes_.size(); ++n)
            if (!nodes_[n].done && !nodes_[n].lost) lose(n, kUnservedCause);
        for (Worker &w : workers)
            reap(w.pid);

        const bool strict = qx::refresh::strict();
        for (const Node &n : nodes_) {
            if (n.up >= 0) continue;
            const size_t t = static_cast<size_t>(n.target);
            results_[n.target] = lost_[t] || (strict && faults_[t] > 0) ? -1 : 0;
        }
    }

  private:
    void expand(size_t n) {
        if (nodes_[n].account.level > kMaxLevelWithChildren) return;
        std::vector<Account> children;
        if (!qx::refresh::children_of(nodes_[n].account, children)) return;
        nodes_[n].expanded = true;
        nodes_[n].waiting = static_cast<int>(children.size());
        for (Account &a : children) {
            Node child;
            child.account = std::move(a);
            child.target = nodes_[n].target;
            child.up = static_cast<int>(n);
            nodes_.push_back(std::move(child));
        }
    }

    // Only when no worker could be started: the same work, in this process.
    int run_here(const Node &n) {
        return n.expanded ? qx::refresh::refresh_own(n.account, kind_)
                          : qx::refresh::walk(n.account, kind_);
    }

    void finish(size_t n, int faults) {
        Node &node = nodes_[n];
        node.done = true;
        faults_[static_cast<size_t>(node.target)] += faults;
        if (node.up < 0) return;
        Node &up = nodes_[static_cast<size_t>(node.up)];
        // Own files go first: they are what lets the next level up start.
        if (--up.waiting == 0 && !up.lost) ready_.push_front(node.up);
    }

    // A unit that may have stopped anywhere: its account and every account above it within the
    // target keep their files, marked dirty, and the target counts as failed.
    void lose(size_t n, const char *cause) {
        lost_[static_cast<size_t>(nodes_[n].target)] = true;
        for (int at = static_cast<int>(n); at >= 0 && !nodes_[static_cast<size_t>(at)].lost;
             at = nodes_[static_cast<size_t>(at)].up) {
            Node &node = nodes_[static_cast<size_t>(at)];
            node.lost = true;
            qx::refresh::abandon(node.account, kind_, cause);
        }
    }

    static void drop(Worker &w) {
        if (w.fd >= 0) ::close(w.fd);
        w.fd = -1;
    }

    static void reap(pid_t pid) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) return;
        }
        if (WIFSIGNALED(status)) {
            FR_LOG(kSrc, kLogChannel, kLogError, kWorkerFmt, kSrc, __LINE__, static_cast<int>(pid),
                   "killed by signal", WTERMSIG(status));
        } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
            FR_LOG(kSrc, kLogChannel, kLogError, kWorkerFmt, kSrc, __LINE__, static_cast<int>(pid),
                   "exited with status", WEXITSTATUS(status));
        }
    }

    const int *accounts_;
    int count_;
    int kind_;
    int force_;
    int *results_;
    std::vector<Node> nodes_;
    std::deque<int> ready_;
    std::vector<long long> faults_;
    std::vector<bool> lost_;
};

void refresh_in_turn(const int *accounts, int count, int kind, int force, int *results) {
    for (int i = 0; i < count; ++i)
        results[i] = quota_update_slow(accounts[i], kind, nullptr, force);
}

}  // namespace

extern "C" int quota_update_slow_jobs(const int *accounts, int count, int kind, int force, int jobs,
                                      int *results) {
    if (count < 0 || (count > 0 && (!accounts || !results)) || kind < 0 || kind > QUOTA_KIND_ALL)
        return -1;
    if (jobs > kMaxJobs) jobs = kMaxJobs;
    if (jobs <= 1) {
        refresh_in_turn(accounts, count, kind, force, results);
        return 0;
    }
    try {
        qx::refresh::UmaskGuard umask_guard;
        Refresh refresh(accounts, count, kind, force, results);
        if (!refresh.plan(static_cast<size_t>(jobs))) {
            refresh_in_turn(accounts, count, kind, force, results);
            return 0;
        }
        refresh.run(static_cast<size_t>(jobs));
        return 0;
    } catch (...) {
        // Out of memory while planning: what the workers did is on disk, the rest is not done.
        for (int i = 0; i < count; ++i)
            results[i] = -1;
        return 0;
    }
}
