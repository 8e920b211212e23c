// Many processes updating the same quota files at once, as the telephony side does: eight
// workers add deltas through quota_update, a ninth process holds some files' locks in bursts,
// and a reader looks at the files without any lock the whole time. Afterwards every file is
// either exact or marked dirty, and one slow refresh makes all of them exact again.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bitset>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quota.h"
#include "qxtest.hpp"
#include "sqlsession.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

constexpr int kKind = 2;  // recording: measured from the database, so the refresh is exact
constexpr char kKindFile[] = "recording.quota";
constexpr int kWorkers = 8;
constexpr int kUpdatesPerWorker = 2000;
constexpr int kUsers = 3;
constexpr int kWaits[] = {-1, 30, 60, 100};  // ms each update may wait for a lock

// How a torn read is told apart from a value some writer wrote. Every file first gets kBase
// for each user below it, so every value it can hold has the same 17 digits: a record never
// grows or shrinks, and a reader seeing part of a write cannot mistake a shorter value for a
// whole one. Below kBase, worker w owns the two decimal digits at 10^(2w): its deltas are
// multiples of 11 * 10^(2w), and its own share of any file never leaves 0..99, so no group
// carries into the next. A worker's updates of a file apply in its order and stop for good
// once the file is marked dirty, so each group of a value is one of that worker's prefix sums
// for that file, all known before the run. Shares are multiples of 11, so both digits of a
// group are equal: digits of two records mixed (a write seen half done) give unequal digits,
// and an empty or cut file gives no "." or the wrong length. Shares go up and down, so the
// check is membership in the set of prefix sums, not monotony.
constexpr long long kBase = 10'000'000'000'000'000LL;
constexpr int kShareUnit = 11;
constexpr int kMaxShareUnits = 9;  // 9 * 11 = 99

// Files: 0 reseller, 1 client A (users 0 and 1), 2 client B (user 2), 3..5 the users.
constexpr int kFiles = 6;
constexpr int kClientOf[kUsers] = {1, 1, 2};
constexpr int kUsersBelow[kFiles] = {3, 2, 1, 1, 1, 1};
// The lock holder's files: one client and one user that belongs to the other client.
constexpr int kBurstFiles[] = {1, 5};

constexpr auto kHoldFor = std::chrono::milliseconds(60);
constexpr auto kReleaseFor = std::chrono::milliseconds(40);
constexpr auto kDeadline = std::chrono::seconds(120);

std::array<int, 3> files_of(int user) {
    return {3 + user, kClientOf[user], 0};
}

bool is_burst_file(int f) {
    for (int b : kBurstFiles)
        if (b == f) return true;
    return false;
}

long long pow100(int w) {
    long long p = 1;
    for (int i = 0; i < w; ++i)
        p *= 100;
    return p;
}

struct Step {
    int user;
    int units;  // signed multiple of kShareUnit
};

// Deltas of one worker: random users, +-1 or +-2 units, no user below 0 units and the worker's
// whole share (which is what the reseller file sees of it) at most kMaxShareUnits.
std::vector<Step> make_plan(int worker) {
    std::mt19937 rng(static_cast<unsigned>(7919 * (worker + 1)));
    std::array<int, kUsers> held{};
    int total = 0;
    std::vector<Step> plan;
    plan.reserve(kUpdatesPerWorker);
    while (plan.size() < static_cast<size_t>(kUpdatesPerWorker)) {
        const int user = static_cast<int>(rng() % kUsers);
        int options[4];
        int n = 0;
        for (int units : {1, 2})
            if (total + units <= kMaxShareUnits) options[n++] = units;
        for (int units : {-1, -2})
            if (held[user] + units >= 0) options[n++] = units;
        if (n == 0) continue;
        const int units = options[rng() % n];
        held[user] += units;
        total += units;
        plan.push_back({user, units});
    }
    return plan;
}

long long delta_of(int worker, const Step &s) {
    return static_cast<long long>(s.units) * kShareUnit * pow100(worker);
}

// For every worker and file, the shares (0..99) the worker can have in that file at any time.
using Shares = std::array<std::array<std::bitset<100>, kFiles>, kWorkers>;

Shares reachable_shares(const std::vector<std::vector<Step>> &plans) {
    Shares out{};
    for (int w = 0; w < kWorkers; ++w) {
        std::array<int, kFiles> share{};
        for (int f = 0; f < kFiles; ++f)
            out[w][f].set(0);
        for (const Step &s : plans[w]) {
            for (int f : files_of(s.user)) {
                share[f] += s.units * kShareUnit;
                out[w][f].set(static_cast<size_t>(share[f]));
            }
        }
    }
    return out;
}

// Empty when the text before the first "." is a value the file can hold, else why not.
std::string check_value(const std::string &record, int file, const Shares &shares) {
    const size_t dot = record.find('.');
    if (dot == std::string::npos) return "no '.'";
    const std::string digits = record.substr(0, dot);
    if (digits.size() != 17 || digits.find_first_not_of("0123456789") != std::string::npos)
        return "not a 17-digit value";
    const long long rest = std::stoll(digits) - kUsersBelow[file] * kBase;
    if (rest < 0 || rest >= kBase) return "outside the file's range";
    for (int w = 0; w < kWorkers; ++w) {
        const long long group = rest / pow100(w) % 100;
        if (!shares[w][file].test(static_cast<size_t>(group)))
            return "worker " + std::to_string(w) + " never held " + std::to_string(group);
    }
    return "";
}

// ---- processes -------------------------------------------------------------------------------

// Start and stop signals, shared with every child (lock-free atomics work across fork).
struct Signals {
    std::atomic<int> go{0};
    std::atomic<int> stop{0};
    std::atomic<int> holder_ready{0};
};

// Per user rather than per file: quota_update does not tell which of the user's three files
// took the delta. A file without a dirty mark must have taken all of them.
struct WorkerReport {
    int64_t applied[kUsers];  // sum of the deltas quota_update accepted, per user
    int32_t count[kUsers];    // number of them
    int32_t failures;
    int32_t last_failure;
};

struct ReaderReport {
    int64_t reads;
    int64_t bad;
    int32_t bad_file;
    char bad_record[40];
    char why[64];
};

struct HolderReport {
    int32_t bursts;
    int32_t errors;
};

void pause_for(std::chrono::nanoseconds d) {
    timespec ts{static_cast<time_t>(d.count() / 1'000'000'000),
                static_cast<long>(d.count() % 1'000'000'000)};
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

bool write_all(int fd, const void *data, size_t n) {
    const char *p = static_cast<const char *>(data);
    while (n > 0) {
        ssize_t k = ::write(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool read_all(int fd, void *data, size_t n, Clock::time_point deadline) {
    char *p = static_cast<char *>(data);
    while (n > 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd pfd{fd, POLLIN, 0};
        int rc = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) return false;
        ssize_t k = ::read(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

// The test's child processes. Each reports through its own pipe; whatever is still running
// when the test ends (a hung worker, a failed assertion) is killed by its pid and reaped.
class Children {
  public:
    Children() = default;
    Children(const Children &) = delete;
    Children &operator=(const Children &) = delete;
    ~Children() {
        for (pid_t pid : running_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        for (int fd : read_ends_)
            ::close(fd);
    }

    // Runs body in a child; its int result is the exit status. Returns the report pipe's read
    // end, or -1.
    template <typename Body>
    int spawn(Body &&body) {
        int fds[2];
        if (::pipe(fds) != 0) return -1;
        const pid_t pid = ::fork();
        if (pid < 0) {
            ::close(fds[0]);
            ::close(fds[1]);
            return -1;
        }
        if (pid == 0) {
            // Other children's pipes stay with the parent, so their ends close when they exit.
            for (int fd : read_ends_)
                ::close(fd);
            ::close(fds[0]);
            int status = 3;
            try {
                status = body(fds[1]);
            } catch (...) {
            }
            // Skips the parent's atexit handlers and test framework state.
            ::_exit(status);
        }
        ::close(fds[1]);
        running_.push_back(pid);
        read_ends_.push_back(fds[0]);
        return fds[0];
    }

    // Waits for every child; true when all exited with status 0.
    bool reap_all() {
        bool ok = true;
        for (pid_t pid : running_) {
            int status = 0;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        running_.clear();
        return ok;
    }

  private:
    std::vector<pid_t> running_;
    std::vector<int> read_ends_;
};

struct SharedSignals {
    Signals *s = nullptr;
    SharedSignals() {
        void *p = ::mmap(nullptr, sizeof(Signals), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) s = new (p) Signals;
    }
    ~SharedSignals() {
        if (s) ::munmap(s, sizeof(Signals));
    }
    SharedSignals(const SharedSignals &) = delete;
    SharedSignals &operator=(const SharedSignals &) = delete;
};

int run_worker(int w, const std::vector<Step> &plan, const std::array<int, kUsers> &users,
               Signals &sig, int report_fd) {
    // Each process has its own pool and cache client, as each telephony process does.
    qx_sql_pool_init();
    while (!sig.go.load())
        pause_for(std::chrono::microseconds(200));
    WorkerReport r{};
    int i = 0;
    for (const Step &s : plan) {
        const long long delta = delta_of(w, s);
        const int wait = kWaits[(i++ + w) % std::size(kWaits)];
        const int rc = quota_update(users[s.user], kKind, delta, wait);
        if (rc == 0) {
            r.applied[s.user] += delta;
            ++r.count[s.user];
        } else {
            ++r.failures;
            r.last_failure = rc;
        }
    }
    return write_all(report_fd, &r, sizeof r) ? 0 : 1;
}

int run_reader(const std::array<std::string, kFiles> &paths, const Shares &shares, Signals &sig,
               int report_fd) {
    ReaderReport r{};
    while (!sig.stop.load()) {
        for (int f = 0; f < kFiles; ++f) {
            char buf[64];
            ssize_t n = -1;
            const int fd = ::open(paths[f].c_str(), O_RDONLY);
            if (fd >= 0) {
                n = ::read(fd, buf, sizeof buf - 1);
                ::close(fd);
            }
            ++r.reads;
            const std::string record(buf, n > 0 ? static_cast<size_t>(n) : 0);
            const std::string why = fd < 0 ? "cannot open" : check_value(record, f, shares);
            if (why.empty()) continue;
            if (r.bad++ == 0) {
                r.bad_file = f;
                std::snprintf(r.bad_record, sizeof r.bad_record, "%s", record.c_str());
                std::snprintf(r.why, sizeof r.why, "%s", why.c_str());
            }
        }
    }
    return write_all(report_fd, &r, sizeof r) ? 0 : 1;
}

int run_holder(const std::array<std::string, kFiles> &paths, Signals &sig, int report_fd) {
    HolderReport r{};
    std::vector<int> fds;
    for (int f : kBurstFiles)
        fds.push_back(::open(paths[f].c_str(), O_RDWR));
    auto lock_all = [&](int op) {
        for (int fd : fds)
            if (fd < 0 || ::flock(fd, op) != 0) ++r.errors;
    };
    lock_all(LOCK_EX);
    sig.holder_ready.store(1);
    while (!sig.stop.load()) {
        ++r.bursts;
        pause_for(kHoldFor);
        lock_all(LOCK_UN);
        pause_for(kReleaseFor);
        lock_all(LOCK_EX);
    }
    for (int fd : fds)
        if (fd >= 0) ::close(fd);
    return write_all(report_fd, &r, sizeof r) ? 0 : 1;
}

struct Record {
    long long value = -1;
    int revision = -1;
};

std::optional<Record> read_record(const std::string &path) {
    auto text = qxtest::read_file(path);
    if (!text) return std::nullopt;
    const size_t dot = text->find('.');
    if (dot == std::string::npos) return std::nullopt;
    return Record{std::atoll(text->substr(0, dot).c_str()), std::atoi(text->c_str() + dot + 1)};
}

using qxtest::dirty;

// ---- the test --------------------------------------------------------------------------------

TEST(QuotaConcurrency, EveryFileIsExactOrDirtyAndOneRefreshRepairsAll) {
    if (!::getpwnam("asterisk") || !::getgrnam("asterisk"))
        GTEST_SKIP() << "needs the asterisk user and group";
    const auto deadline = Clock::now() + kDeadline;

    // Accounts: reseller > clients A, B; users 0 and 1 under A, user 2 under B.
    const int base = qxtest::fresh_ids();
    const int reseller = base, client_a = base + 1, client_b = base + 2;
    const std::array<int, kUsers> users = {base + 3, base + 4, base + 5};
    for (int id = base; id < base + 6; ++id)
        qxtest::redis({"DEL", "res:inf:mng:" + std::to_string(id)});
    qxtest::add_account(reseller, 0, 10);
    qxtest::add_account(client_a, reseller, 50);
    qxtest::add_account(client_b, reseller, 50);
    qxtest::add_account(users[0], client_a, 100);
    qxtest::add_account(users[1], client_a, 100);
    qxtest::add_account(users[2], client_b, 100);

    const std::string reseller_dir =
        qxtest::path("/var/lib/quorvexquota/") + std::to_string(reseller);
    std::error_code ec;
    fs::remove_all(reseller_dir, ec);  // left over from an earlier life of the sandbox
    const std::string dir_a = reseller_dir + "/" + std::to_string(client_a);
    const std::string dir_b = reseller_dir + "/" + std::to_string(client_b);
    const std::array<std::string, kFiles> paths = {
        reseller_dir + "/" + kKindFile,
        dir_a + "/" + kKindFile,
        dir_b + "/" + kKindFile,
        dir_a + "/" + std::to_string(users[0]) + "/" + kKindFile,
        dir_a + "/" + std::to_string(users[1]) + "/" + kKindFile,
        dir_b + "/" + std::to_string(users[2]) + "/" + kKindFile,
    };

    std::vector<std::vector<Step>> plans;
    for (int w = 0; w < kWorkers; ++w)
        plans.push_back(make_plan(w));
    const Shares shares = reachable_shares(plans);

    SharedSignals shared;
    ASSERT_NE(shared.s, nullptr);
    Signals &sig = *shared.s;
    Children children;

    // The engine is used only in children until they are all gone: a pooled connection or
    // cache socket inherited through fork would be shared by several processes.
    {
        const int fd = children.spawn([&](int) {
            qx_sql_pool_init();
            for (int u : users)
                if (quota_update(u, kKind, kBase, 30) != 0) return 1;
            return 0;
        });
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(children.reap_all()) << "the first updates failed";
    }
    const std::array<int, kFiles> initial_revision = {3, 2, 1, 1, 1, 1};
    for (int f = 0; f < kFiles; ++f) {
        ASSERT_EQ(qxtest::read_file(paths[f]), std::to_string(kUsersBelow[f] * kBase) + "." +
                                                   std::to_string(initial_revision[f]))
            << paths[f];
    }

    const int reader_fd =
        children.spawn([&](int out) { return run_reader(paths, shares, sig, out); });
    const int holder_fd = children.spawn([&](int out) { return run_holder(paths, sig, out); });
    ASSERT_GE(reader_fd, 0);
    ASSERT_GE(holder_fd, 0);
    while (!sig.holder_ready.load()) {
        ASSERT_LT(Clock::now(), deadline) << "the lock holder did not start";
        pause_for(std::chrono::milliseconds(1));
    }
    std::vector<int> worker_fds;
    for (int w = 0; w < kWorkers; ++w) {
        worker_fds.push_back(
            children.spawn([&, w](int out) { return run_worker(w, plans[w], users, sig, out); }));
        ASSERT_GE(worker_fds.back(), 0);
    }
    const auto started = Clock::now();
    sig.go.store(1);

    std::array<WorkerReport, kWorkers> reports{};
    for (int w = 0; w < kWorkers; ++w)
        ASSERT_TRUE(read_all(worker_fds[w], &reports[w], sizeof reports[w], deadline))
            << "worker " << w << " did not report in time";
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    sig.stop.store(1);
    ReaderReport reader{};
    HolderReport holder{};
    ASSERT_TRUE(read_all(reader_fd, &reader, sizeof reader, deadline));
    ASSERT_TRUE(read_all(holder_fd, &holder, sizeof holder, deadline));
    ASSERT_TRUE(children.reap_all());

    // Every update ran: a failed lock is not a failed update, only a dirty mark.
    std::array<long long, kUsers> applied{};
    std::array<int, kUsers> applied_count{};
    for (int w = 0; w < kWorkers; ++w) {
        SCOPED_TRACE("worker " + std::to_string(w));
        EXPECT_EQ(reports[w].failures, 0) << "last result " << reports[w].last_failure;
        int count = 0;
        for (int u = 0; u < kUsers; ++u) {
            applied[u] += reports[w].applied[u];
            applied_count[u] += reports[w].count[u];
            count += reports[w].count[u];
        }
        EXPECT_EQ(count, kUpdatesPerWorker);
    }

    EXPECT_GT(reader.reads, 1000) << "the reader hardly ran";
    EXPECT_EQ(reader.bad, 0) << "unlocked read of file " << reader.bad_file << " saw \""
                             << reader.bad_record << "\": " << reader.why;
    EXPECT_GT(holder.bursts, 0);
    EXPECT_EQ(holder.errors, 0);

    // What each file must hold when no update skipped it.
    std::array<long long, kFiles> expected{};
    std::array<int, kFiles> expected_revision = initial_revision;
    for (int f = 0; f < kFiles; ++f)
        expected[f] = kUsersBelow[f] * kBase;
    for (int u = 0; u < kUsers; ++u) {
        for (int f : files_of(u)) {
            expected[f] += applied[u];
            expected_revision[f] += applied_count[u];
        }
    }

    std::array<std::optional<Record>, kFiles> before{};
    std::array<bool, kFiles> was_dirty{};
    int clean = 0;
    for (int f = 0; f < kFiles; ++f) {
        SCOPED_TRACE(paths[f]);
        before[f] = read_record(paths[f]);
        ASSERT_TRUE(before[f].has_value());
        was_dirty[f] = dirty(paths[f]);
        if (was_dirty[f]) continue;
        ++clean;
        EXPECT_EQ(before[f]->value, expected[f]) << "an update was lost without a dirty mark";
        EXPECT_EQ(before[f]->revision, expected_revision[f]);
        // Locks were held for longer than any update waits while updates were running.
        EXPECT_FALSE(is_burst_file(f)) << "a file locked elsewhere was updated";
    }
    std::cerr << "[ info     ] " << kWorkers * kUpdatesPerWorker << " updates in " << seconds
              << " s, " << reader.reads << " unlocked reads, " << holder.bursts << " lock bursts, "
              << clean << " of " << kFiles << " files clean\n";

    // The real data: one stored recording per user, as large as everything added for it.
    for (int u = 0; u < kUsers; ++u) {
        const std::string number = std::to_string(users[u]);
        const int ext = qxtest::add_extension(users[u], "101", number + "*101");
        ASSERT_GT(ext, 0);
        qxtest::add_db_file("extension_recording", ext, kBase + applied[u]);
    }
    qx_sql_pool_init();
    long long total = -1;
    ASSERT_EQ(quota_update_slow(reseller, kKind, &total, 0), 0);
    EXPECT_EQ(total, expected[0]);
    for (int f = 0; f < kFiles; ++f) {
        SCOPED_TRACE(paths[f]);
        EXPECT_FALSE(dirty(paths[f])) << "the refresh leaves no dirty mark";
        const auto after = read_record(paths[f]);
        ASSERT_TRUE(after.has_value());
        EXPECT_EQ(after->value, expected[f]);
        // An unforced refresh may keep a clean file with few fast updates as it is.
        const bool may_keep = !was_dirty[f] && before[f]->revision <= 999;
        if (!may_keep) {
            EXPECT_EQ(after->revision, 0);
        }
    }
}

}  // namespace
