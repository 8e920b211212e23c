// Many threads updating the same quota files at once, as the telephony side does: eight workers
// add deltas through quota_update while a reader looks at the files without any lock. No read
// may see a record half written, and every file left unmarked holds the exact sum.
#include <grp.h>
#include <pwd.h>

#include <array>
#include <atomic>
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

constexpr int kKind = 2, kWorkers = 8, kUpdates = 2000, kUsers = 3, kFiles = 6;
constexpr int kWaits[] = {-1, 30, 60, 100};  // ms each update may wait for a lock
// Files (account base + f): 0 reseller, 1 client A (users 0 and 1), 2 client B (user 2), 3..5
// the users.
constexpr int kClientOf[kUsers] = {1, 1, 2};
constexpr int kUsersBelow[kFiles] = {3, 2, 1, 1, 1, 1};

// How a torn read is told apart from a value some writer wrote. Every file starts at kBase per
// user below it, so every value it can hold has 17 digits. Below kBase, worker w owns the two
// decimal digits at 10^(2w) and keeps its share of any file at 0 or 11 (one user at a time,
// added then taken back): two records mixed give a pair of unequal digits.
constexpr long long kBase = 10'000'000'000'000'000LL;

long long pow100(int w) {
    long long p = 1;
    while (w-- > 0)
        p *= 100;
    return p;
}

// Empty when the record is one some writer could have written, else why not.
std::string check_record(const std::string &record, int file) {
    const std::string digits = record.substr(0, record.find('.'));
    if (digits.size() != 17 || digits.size() == record.size() ||
        digits.find_first_not_of("0123456789") != std::string::npos)
        return "not a 17-digit value and a revision";
    const long long rest = std::stoll(digits) - kUsersBelow[file] * kBase;
    if (rest < 0 || rest >= kBase) return "outside the file's range";
    for (int w = 0; w < kWorkers; ++w)
        if (rest / pow100(w) % 100 % 11 != 0)
            return "worker " + std::to_string(w) + "'s share torn";
    return "";
}

TEST(QuotaConcurrency, NoTornReadAndEveryUnmarkedFileIsExact) {
    if (!getpwnam("asterisk") || !getgrnam("asterisk"))
        GTEST_SKIP() << "needs the asterisk user and group";
    qx_sql_pool_init();
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

    std::atomic<bool> stop{false};
    long long reads = 0;
    std::string bad;  // the first record no writer wrote
    std::thread reader([&] {
        for (; !stop; ++reads)
            for (int f = 0; f < kFiles && bad.empty(); ++f) {
                const std::string record = qxtest::read_file(paths[f]).value_or("(cannot open)");
                if (const std::string why = check_record(record, f); !why.empty())
                    bad = paths[f] + ": \"" + record + "\": " + why;
            }
    });
    std::array<std::array<int, kUsers>, kWorkers> count{};  // updates by worker and user
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w)
        workers.emplace_back([&, w] {
            std::mt19937 rng(static_cast<unsigned>(7919 * (w + 1)));
            for (int i = 0, user = 0; i < kUpdates; ++i) {
                if (i % 2 == 0) user = static_cast<int>(rng() % kUsers);
                const long long delta = (i % 2 ? -11 : 11) * pow100(w);
                // A lock not had is no failed update, only a dirty mark.
                EXPECT_EQ(quota_update(users[user], kKind, delta, kWaits[(i / 2 + w) % 4]), 0);
                ++count[w][user];
            }
        });
    for (auto &w : workers)
        w.join();
    stop = true;
    reader.join();

    EXPECT_GT(reads, 100) << "the reader hardly ran";
    EXPECT_EQ(bad, "") << "an unlocked read saw a record half written";
    // Every share was given back: each file holds its start value, one revision per update.
    std::array<int, kFiles> revision{};
    for (int w = 0; w < kWorkers; ++w)
        for (int u = 0; u < kUsers; ++u)
            for (int f : {3 + u, kClientOf[u], 0})
                revision[f] += count[w][u];
    for (int f = 0; f < kFiles; ++f) {
        if (qxtest::dirty(paths[f])) continue;
        EXPECT_EQ(qxtest::read_file(paths[f]),
                  std::to_string(kUsersBelow[f] * kBase) + "." + std::to_string(revision[f]))
            << paths[f] << ": an update was lost without a dirty mark";
    }
}

}  // namespace
