// Refreshes spread over worker processes (QUOTA_REFRESH_JOBS): the same files, marks, report and
// status as one process, a dead worker never leaves a trusted wrong file, and fast updates racing
// refreshes (parallel ones, or two at once) are repaired by the next one.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "qxtest.hpp"
#include "quota.h"
#include "sqlsession.h"

namespace fs = std::filesystem;
static auto *env = qxtest::register_sandbox();

namespace {

// local.conf with QUOTA_REFRESH_JOBS for the scope.
qxtest::ConfFile jobs(const std::string &n) {
    const std::string file = qxtest::path("/etc/quorvex/local.conf");
    return qxtest::ConfFile(file, *qxtest::read_file(file) + "QUOTA_REFRESH_JOBS " + n);
}

// Every quota file and mark under the two resellers: path -> content ("" for a mark).
using Files = std::map<std::string, std::string>;

// The shared tree and a second reseller (root -3) with a client (root -2) of its own: the first
// reseller and that client are the targets, so a client is one too.
struct Tree : qxtest::Tree {
    Tree() {
        add(root - 3, root, 10), add(root - 2, root - 3, 50);
        qxtest::write_file(qxtest::sounds_dir(root - 2) + "/s.wav", 77);
    }
    Files files() const {
        Files out;
        for (int top : {r, root - 3})
            for (const auto &e : fs::recursive_directory_iterator(dir.at(top)))
                if (e.is_regular_file()) out[e.path()] = *qxtest::read_file(e.path());
        return out;
    }
    void restore(const Files &files) const {
        for (int top : {r, root - 3})
            fs::remove_all(dir.at(top));
        for (const auto &[path, text] : files)
            qxtest::put(path, text);
    }
    qxtest::RunResult refresh(bool force = true) const {
        const std::string targets = std::to_string(r) + "," + std::to_string(root - 2);
        return qxtest::spoolcap({"-A", "set", "-u", targets, force ? "-f" : "-h"});
    }
};

TEST(SpoolcapJobs, WorkersLeaveWhatOneProcessLeaves) {
    Tree t;
    ASSERT_EQ(t.refresh().status, 0);
    // Stale values, out-of-range revisions, a missing file and a dirty mark: what an unforced
    // refresh must recompute, beside files it must leave alone.
    Files start = t.files();
    int i = 0;
    for (auto &[path, text] : start)
        if (i++ % 3 == 0) text = i % 2 ? "1.7" : "2.1000";
    start.erase(start.begin());
    start[start.rbegin()->first + ".dirty"] = "";
    std::map<bool, std::tuple<Files, std::string, std::string>> reference;  // files, out, err
    for (const auto &[n, force, why] : {
             std::tuple{"1", true, "the reference: one process, forced"},
             {"2", true, "two workers share the reseller's clients"},
             {"4", true, "more workers than clients: the users become units"},
             {"auto", true, "one worker per CPU"},
             {"1", false, "the reference: one process, only stale files"},
             {"2", false, "unforced: the same files skipped, the same recomputed"},
             {"4", false, "unforced with users as units"},
         }) {
        SCOPED_TRACE(why);
        t.restore(start);
        auto scope = jobs(n);
        const qxtest::RunResult r = t.refresh(force);
        EXPECT_EQ(r.status, 0) << r.err;
        const auto &ref = reference.try_emplace(force, t.files(), r.out, r.err).first->second;
        EXPECT_EQ(std::make_tuple(t.files(), r.out, r.err), ref);
    }
    EXPECT_NE(std::get<0>(reference[true]), start)
        << "the rows must have had something to recompute";
}

// The worker waiting for a lock on one user's file is killed: its target fails, every file is
// exact, unchanged or marked dirty, and the reseller above is never summed over stale clients.
TEST(SpoolcapJobs, KilledWorkerFailsItsTargetAndLeavesNoTrustedWrongFile) {
    Tree t;
    ASSERT_EQ(t.refresh().status, 0);
    const Files exact = t.files();
    Files before = exact;
    for (auto &[path, text] : before)
        text = "1.0";
    t.restore(before);

    const std::string victim = t.file(t.u3, 1);  // of the user of the reseller's second client
    const int fd = ::open(victim.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << victim;
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    struct stat st;
    ASSERT_EQ(::fstat(fd, &st), 0);

    auto scope = jobs("2");
    qxtest::RunResult r;
    std::thread run([&] { r = t.refresh(); });
    // The waiter on our lock is the worker walking that user's client.
    const std::string inode = ":" + std::to_string(st.st_ino) + " ";
    int waiter = 0;
    for (int i = 0; i < 2000 && !waiter; ++i, ::usleep(10000)) {
        std::istringstream locks(*qxtest::read_file("/proc/locks"));
        for (std::string line; std::getline(locks, line);)
            if (line.find(inode) != std::string::npos)
                std::sscanf(line.c_str(), "%*d: -> %*s %*s %*s %d", &waiter);
    }
    if (waiter > 0) ::kill(waiter, SIGKILL);
    ::close(fd);
    run.join();
    ASSERT_GT(waiter, 0) << "no refresh worker waited for the lock";

    EXPECT_EQ(r.status, 6) << "the reseller failed, the other client did not";
    t.check(before);
    EXPECT_TRUE(qxtest::dirty(t.file(t.r, 0))) << "the reseller would sum over stale files";

    ASSERT_EQ(t.refresh().status, 0);
    EXPECT_EQ(t.files(), exact);
}

// Fast updates from other processes (each its own pool, as telephony processes) while forced
// refreshes run: every file stays a record or is marked, and one more refresh makes each exact.
TEST(SpoolcapJobs, FastUpdatesRacingWorkersAreRepairedByTheNextRefresh) {
    for (const auto &[n, at_once, why] :
         {std::tuple{"2", 1, "workers of one refresh share the tree"},
          {"1", 2, "two refreshes at once, one process each"}}) {
        SCOPED_TRACE(why);
        Tree t;
        ASSERT_EQ(t.refresh().status, 0);
        const Files exact = t.files();
        auto scope = jobs(n);
        std::vector<pid_t> updaters(4);
        for (size_t i = 0; i < updaters.size(); ++i) {
            if ((updaters[i] = ::fork()) != 0) continue;
            qx_sql_pool_init();
            // The first reseller's users: the second reseller's own files are no target's.
            for (int k = 0; k < 200; ++k)
                quota_update(std::array{t.u1, t.u2, t.u3}[(i + k) % 3], k % 5, k % 2 ? 7 : -3,
                             k % 3 ? 30 : 5);
            ::_exit(0);
        }
        std::vector<std::thread> runs;
        for (int r = 0; r < at_once; ++r)
            runs.emplace_back([&] {
                for (int k = 0; k < 3; ++k)
                    EXPECT_EQ(t.refresh().status, 0);
            });
        for (auto &run : runs)
            run.join();
        for (pid_t pid : updaters) {
            int status = 0;
            ::waitpid(pid, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        for (const auto &[path, text] : t.files()) {
            // <value>.<revision>, both digits: a value below zero or a torn record is no record.
            const size_t dot = text.find_first_not_of("0123456789");
            EXPECT_TRUE(path.ends_with(".dirty") || fs::exists(path + ".dirty") ||
                        (dot > 0 && dot < text.size() && text[dot] == '.' &&
                         text.find_first_not_of("0123456789", dot + 1) == std::string::npos))
                << path << ": " << text;
        }
        ASSERT_EQ(t.refresh().status, 0);
        EXPECT_EQ(t.files(), exact);
    }
}

}  // namespace
