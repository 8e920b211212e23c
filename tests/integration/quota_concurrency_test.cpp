// Many processes updating the same quota files at once, as the telephony side does: eight
// workers add deltas through quota_update, a ninth process holds some files' locks in bursts,
// and a reader looks at the files without any lock the whole time. Afterwards every file is
// either exact or marked dirty, and one slow refresh makes all of them exact again.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bitset>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "quota.h"
#include "qxtest.hpp"
#include "sqlsession.h"

namespace {

auto *const sandbox_env = qxtest::register_sandbox();
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kKind = 2;  // recording: measured from the database, so the refresh is exact
constexpr int kWorkers = 8, kUpdates = 2000, kUsers = 3;
constexpr int kWaits[] = {-1, 30, 60, 100};  // ms each update may wait for a lock

// How a torn read is told apart from a value some writer wrote. Every file first gets kBase
// per user below it, so every value it can hold has 17 digits. Below kBase, worker w owns the
// two decimal digits at 10^(2w) and keeps its share of any file within 0..99 in multiples of
// 11: both digits of a group are equal, so two records mixed (a write seen half done) give
// unequal digits, and each group must be one of that worker's prefix sums for that file.
constexpr long long kBase = 10'000'000'000'000'000LL;
constexpr int kUnit = 11, kMaxUnits = 9;

// Files (account base + f): 0 reseller, 1 client A (users 0 and 1), 2 client B (user 2), 3..5
// the users. The lock holder takes client A and the user of the other client.
constexpr int kFiles = 6;
constexpr int kClientOf[kUsers] = {1, 1, 2};
constexpr int kUsersBelow[kFiles] = {3, 2, 1, 1, 1, 1};
constexpr int kBurstFiles[] = {1, 5};

std::array<int, 3> files_of(int user) {
    return {3 + user, kClientOf[user], 0};
}

long long pow100(int w) {
    long long p = 1;
    while (w-- > 0)
        p *= 100;
    return p;
}

struct Step {
    int user, units;  // units: signed multiple of kUnit
};

// Random users, +-1 or +-2 units, no user below 0 and the worker's whole share (what the
// reseller file sees of it) at most kMaxUnits.
std::vector<Step> make_plan(int worker) {
    std::mt19937 rng(static_cast<unsigned>(7919 * (worker + 1)));
    std::array<int, kUsers> held{};
    int total = 0;
    std::vector<Step> plan;
    while (plan.size() < static_cast<size_t>(kUpdates)) {
        const int user = static_cast<int>(rng() % kUsers);
        std::vector<int> options;
        for (int units : {1, 2})
            if (total + units <= kMaxUnits) options.push_back(units);
        for (int units : {-1, -2})
            if (held[user] + units >= 0) options.push_back(units);
        if (options.empty()) continue;
        const int units = options[rng() % options.size()];
        held[user] += units, total += units;
        plan.push_back({user, units});
    }
    return plan;
}

// For every worker and file, the shares (0..99) the worker can have in that file at any time.
using Shares = std::array<std::array<std::bitset<100>, kFiles>, kWorkers>;

Shares reachable_shares(const std::vector<std::vector<Step>> &plans) {
    Shares out{};
    for (int w = 0; w < kWorkers; ++w) {
        std::array<int, kFiles> share{};
        for (auto &bits : out[w])
            bits.set(0);
        for (const Step &s : plans[w])
            for (int f : files_of(s.user))
                out[w][f].set(static_cast<size_t>(share[f] += s.units * kUnit));
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
    for (int w = 0; w < kWorkers; ++w)
        if (!shares[w][file].test(static_cast<size_t>(rest / pow100(w) % 100)))
            return "worker " + std::to_string(w) + " never held that share";
    return "";
}

// What the processes share (anonymous shared memory): start and stop flags and their reports.
struct Shared {
    std::atomic<int> go{0}, stop{0}, holder_ready{0};
    long long applied[kWorkers][kUsers]{};  // sum of the deltas quota_update accepted
    int count[kWorkers][kUsers]{}, failures[kWorkers]{};
    long long reads = 0, bad = 0;
    char bad_read[128]{};
    int bursts = 0, holder_errors = 0;
};

template <typename Body>
pid_t spawn(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());  // skips the parent's atexit handlers and test state
    return pid;
}

// Waits for the child until the deadline, then kills it; true when it exited with 0.
bool reap(pid_t pid, Clock::time_point deadline) {
    int status = -1;
    while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) kill(pid, SIGKILL);
        std::this_thread::sleep_for(2ms);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(QuotaConcurrency, EveryFileIsExactOrDirtyAndOneRefreshRepairsAll) {
    if (!getpwnam("asterisk") || !getgrnam("asterisk"))
        GTEST_SKIP() << "needs the asterisk user and group";
    const auto deadline = Clock::now() + 120s;
    const int base = qxtest::fresh_ids();
    const std::array<int, kUsers> users = {base + 3, base + 4, base + 5};
    qxtest::QuotaTree t;
    t.add(base, 0, 10), t.add(base + 1, base, 50), t.add(base + 2, base, 50);
    for (int u = 0; u < kUsers; ++u)
        t.add(users[u], base + kClientOf[u], 100);
    std::array<std::string, kFiles> paths;
    for (int f = 0; f < kFiles; ++f)
        paths[f] = t.file(base + f, kKind);

    std::vector<std::vector<Step>> plans;
    for (int w = 0; w < kWorkers; ++w)
        plans.push_back(make_plan(w));
    const Shares shares = reachable_shares(plans);
    void *mem =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    Shared &sh = *new (mem) Shared;
    struct Unmap {
        void *p;
        ~Unmap() { munmap(p, sizeof(Shared)); }
    } unmap{mem};

    // The engine runs only in children: a pooled connection or cache socket inherited through
    // fork would be shared by several processes. Each has its own, as telephony processes do.
    ASSERT_TRUE(reap(spawn([&] {
                         qx_sql_pool_init();
                         for (int u : users)
                             if (quota_update(u, kKind, kBase, 30) != 0) return 1;
                         return 0;
                     }),
                     deadline));
    for (int f = 0; f < kFiles; ++f)
        ASSERT_EQ(qxtest::read_file(paths[f]),
                  std::to_string(kUsersBelow[f] * kBase) + "." + std::to_string(kUsersBelow[f]));

    const pid_t reader = spawn([&] {
        while (!sh.stop) {
            for (int f = 0; f < kFiles; ++f, ++sh.reads) {
                const std::string record = qxtest::read_file(paths[f]).value_or("(cannot open)");
                const std::string why = check_value(record, f, shares);
                if (!why.empty() && sh.bad++ == 0)
                    std::snprintf(sh.bad_read, sizeof sh.bad_read, "file %d: \"%s\": %s", f,
                                  record.c_str(), why.c_str());
            }
        }
        return 0;
    });
    const pid_t holder = spawn([&] {
        std::vector<int> fds;
        for (int f : kBurstFiles)
            fds.push_back(open(paths[f].c_str(), O_RDWR));
        auto lock_all = [&](int op) {
            for (int fd : fds)
                sh.holder_errors += fd < 0 || flock(fd, op) != 0;
        };
        lock_all(LOCK_EX);
        sh.holder_ready = 1;
        // Held longer than any update waits, so a burst file can only be skipped and marked.
        for (; !sh.stop; ++sh.bursts) {
            std::this_thread::sleep_for(60ms);
            lock_all(LOCK_UN);
            std::this_thread::sleep_for(40ms);
            lock_all(LOCK_EX);
        }
        return 0;
    });
    while (!sh.holder_ready && Clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    std::vector<pid_t> workers;
    for (int w = 0; w < kWorkers; ++w)
        workers.push_back(spawn([&, w] {
            qx_sql_pool_init();
            while (!sh.go)
                std::this_thread::sleep_for(200us);
            int i = 0;
            for (const Step &s : plans[w]) {
                const long long delta = static_cast<long long>(s.units) * kUnit * pow100(w);
                if (quota_update(users[s.user], kKind, delta, kWaits[(i++ + w) % 4]) != 0) {
                    ++sh.failures[w];
                } else {
                    sh.applied[w][s.user] += delta, ++sh.count[w][s.user];
                }
            }
            return 0;
        }));
    sh.go = 1;
    for (pid_t w : workers)
        EXPECT_TRUE(reap(w, deadline)) << "a worker failed or hung";
    sh.stop = 1;
    EXPECT_TRUE(reap(reader, deadline));
    EXPECT_TRUE(reap(holder, deadline));

    // A lock not had is no failed update, only a dirty mark.
    std::array<long long, kFiles> expected{};
    std::array<int, kFiles> revision{};
    for (int f = 0; f < kFiles; ++f)
        expected[f] = kUsersBelow[f] * kBase, revision[f] = kUsersBelow[f];
    for (int w = 0; w < kWorkers; ++w) {
        EXPECT_EQ(sh.failures[w], 0) << "worker " << w;
        for (int u = 0; u < kUsers; ++u)
            for (int f : files_of(u))
                expected[f] += sh.applied[w][u], revision[f] += sh.count[w][u];
    }
    EXPECT_GT(sh.reads, 1000) << "the reader hardly ran";
    EXPECT_EQ(sh.bad, 0) << "unlocked read of " << sh.bad_read;
    EXPECT_GT(sh.bursts, 0);
    EXPECT_EQ(sh.holder_errors, 0);
    for (int f = 0; f < kFiles; ++f) {
        if (qxtest::dirty(paths[f])) continue;
        EXPECT_EQ(qxtest::read_file(paths[f]),
                  std::to_string(expected[f]) + "." + std::to_string(revision[f]))
            << paths[f] << ": an update was lost without a dirty mark";
        for (int b : kBurstFiles)
            EXPECT_NE(f, b) << "a file locked elsewhere was updated";
    }

    // The real data: one stored recording per user, as large as everything added for it.
    for (int u = 0; u < kUsers; ++u)
        t.ext(users[u], 101, {{"extension_recording", expected[3 + u]}});
    for (int f = 0; f < kFiles; ++f)
        t.usage[base + f] = {0, 0, expected[f], 0, 0};
    qx_sql_pool_init();
    ASSERT_EQ(quota_update_slow(base, 5, nullptr, 0), 0);
    t.expect_exact();
}

}  // namespace
