// Eight processes add deltas through quota_update to the same files, as the telephony side does,
// while a reader looks at the files through the engine's reader, which takes no lock.
#include <sys/wait.h>

#include <cmath>

#include "integration.hpp"
#include "quota.h"

constexpr int kKind = 2, kWorkers = 8, kUpdates = 2000, kUsers = 3, kFiles = 6;
// Files (account base + f): 0 reseller, 1 client A (users 0, 1), 2 client B (user 2), 3..5 users.
constexpr int kClientOf[kUsers] = {1, 1, 2};
constexpr int kUsersBelow[kFiles] = {3, 2, 1, 1, 1, 1};

// How a torn read is told apart from a record some writer wrote. Every file starts at 10^16 per
// user below it, so every value it can hold has 17 digits. Below that, worker w owns the two
// decimal digits at 100^w and keeps its share of any file at 0 or 11 (one user at a time, added
// then taken back): two records mixed, or a record cut short, show as a pair other than 00 or 11.
constexpr long long kBase = 10'000'000'000'000'000LL;

bool valid(const std::string &record, int file) {
    const size_t dot = record.find('.');
    if (dot != 17 || record[0] != '0' + kUsersBelow[file] || dot + 1 == record.size()) return false;
    for (size_t i = 1; i < dot; i += 2)
        if (record.compare(i, 2, "00") != 0 && record.compare(i, 2, "11") != 0) return false;
    return record.find_first_not_of("0123456789", dot + 1) == std::string::npos;
}

// The engine runs only in child processes, each with its own pool and cache socket as telephony
// processes have; a child that hangs is ended by its alarm.
template <typename Body>
pid_t spawn(Body body) {
    const pid_t pid = fork();
    if (pid == 0) alarm(120), _exit(body());  // skips the parent's atexit handlers
    return pid;
}

TEST(QuotaConcurrency, NoTornReadAndEveryUnmarkedFileIsExact) {
    if (!getpwnam("asterisk") || !getgrnam("asterisk"))
        GTEST_SKIP() << "needs the asterisk user and group";
    const int base = qxtest::fresh_ids();
    const std::array<int, kUsers> users = {base + 3, base + 4, base + 5};
    qxtest::QuotaTree t;
    t.add(base, 0, 10), t.add(base + 1, base, 50), t.add(base + 2, base, 50);
    for (int u = 0; u < kUsers; ++u)
        t.add(users[u], base + kClientOf[u], 100);
    std::array<std::string, kFiles> paths;
    for (int f = 0; f < kFiles; ++f)
        qxtest::put(paths[f] = t.file(base + f, kKind),
                    std::to_string(kUsersBelow[f] * kBase) + ".0");

    std::vector<pid_t> workers;
    for (int w = 0; w < kWorkers; ++w)
        workers.push_back(spawn([&, w] {
            qx_sql_pool_init();
            const long long share = 11 * static_cast<long long>(std::pow(100, w));
            for (int i = 0; i < kUpdates; ++i) {
                const int user = (i / 2 + w) % kUsers;
                // A lock not had is no failed update, only a dirty mark.
                if (quota_update(users[user], kKind, i % 2 ? -share : share, 30) != 0) return 1;
            }
            return 0;
        }));
    std::atomic<bool> stop{false};
    long long reads = 0;
    std::string bad;  // the first record no writer wrote
    // Each file as the engine's unlocked reader sees it: (account, parent, grandparent).
    const unsigned b = base;
    std::array<std::array<unsigned, 3>, kFiles> ids = {{{b, 0, 0}, {b + 1, b, 0}, {b + 2, b, 0}}};
    for (int u = 0; u < kUsers; ++u)
        ids[3 + u] = {unsigned(users[u]), b + kClientOf[u], b};
    std::thread reader([&] {
        for (; !stop; ++reads)
            for (int f = 0; f < kFiles && bad.empty(); ++f) {
                long long value = -1;
                int revision = -1;
                quota_read(ids[f][0], ids[f][1], ids[f][2], kKind, &value, &revision);
                const std::string record = std::to_string(value) + "." + std::to_string(revision);
                if (!valid(record, f)) bad = paths[f] + ": " + record;
            }
    });
    for (pid_t w : workers) {
        int status = -1;
        EXPECT_EQ(waitpid(w, &status, 0) == w && WIFEXITED(status), true) << "a worker hung";
        EXPECT_EQ(WEXITSTATUS(status), 0) << "a worker's update failed";
    }
    stop = true;
    reader.join();

    EXPECT_GT(reads, 100) << "the reader hardly ran";
    EXPECT_EQ(bad, "") << "an unlocked read saw a record half written";
    // Every share was given back: each file holds its start value, one revision per update.
    std::array<int, kFiles> revision{};
    for (int w = 0; w < kWorkers; ++w)
        for (int i = 0, u = w % kUsers; i < kUpdates; u = (++i / 2 + w) % kUsers)
            for (int f : {3 + u, kClientOf[u], 0})
                ++revision[f];
    for (int f = 0; f < kFiles; ++f) {
        if (qxtest::dirty(paths[f])) continue;
        EXPECT_EQ(qxtest::read_file(paths[f]),
                  std::to_string(kUsersBelow[f] * kBase) + "." + std::to_string(revision[f]))
            << paths[f] << ": an update was lost without a dirty mark";
    }
}
