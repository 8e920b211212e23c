// Refreshes spread over worker processes (QUOTA_REFRESH_JOBS): the same files, marks, report and
// status as one process, a dead worker never leaves a trusted wrong file, and fast updates racing
// a parallel refresh are repaired by the next one.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "qxtest.hpp"
#include "quota.h"
#include "sqlsession.h"

namespace fs = std::filesystem;
static auto *env = qxtest::register_sandbox();

namespace {

// local.conf with QUOTA_REFRESH_JOBS for the scope; the old text comes back afterwards.
struct Jobs {
    const std::string path = qxtest::path("/etc/quorvex/local.conf");
    const std::string saved = *qxtest::read_file(path);
    explicit Jobs(const std::string &n) {
        std::ofstream(path) << saved << "QUOTA_REFRESH_JOBS " << n;
    }
    ~Jobs() { std::ofstream(path) << saved; }
};

// Every quota file and mark under the two resellers: path -> content ("" for a mark).
using Files = std::map<std::string, std::string>;

// A big reseller holding most accounts (3 clients x 4 users) and a small one with one client and
// one user; the big reseller and the small client are the targets, so a client is one too.
struct Tree {
    int base[2] = {qxtest::fresh_ids(), qxtest::fresh_ids()};
    int big = 0, small = 0, small_client = 0;
    std::vector<int> users;
    Tree() {
        int next = base[0];
        auto id = [&] { return next == base[0] + 10 ? (next = base[1] + 1) - 1 : next++; };
        const std::string varlib = qxtest::path("/var/lib/asterisk");
        auto add = [&](int parent, int level) {
            const int a = id();
            qxtest::add_account(a, parent, level);
            qxtest::write_file(varlib + "/sounds/." + std::to_string(a) + "/s", 100 + a % 7);
            qxtest::write_file(varlib + "/music/" + std::to_string(a) + "/m", 10 * (a % 5));
            if (level == 100) {
                const std::string num = std::to_string(a);
                const int ext = qxtest::add_extension(a, num, "0" + num + "*1");
                qxtest::add_db_file("extension_recording", ext, 1000 + a);
                users.push_back(a);
            }
            return a;
        };
        const int root = id();
        qxtest::add_account(root, 0, 0);
        big = add(root, 10);
        for (int c = 0; c < 3; ++c) {
            const int client = add(big, 50);
            for (int u = 0; u < 4; ++u)
                add(client, 100);
        }
        small = add(root, 10);
        small_client = add(small, 50);
        add(small_client, 100);
    }
    ~Tree() {
        for (int b : base)
            qxtest::clear_ids(b);
    }
    std::vector<std::string> dirs() const {
        const std::string q = qxtest::path("/var/lib/quorvexquota/");
        return {q + std::to_string(big), q + std::to_string(small)};
    }
    Files files() const {
        Files out;
        for (const std::string &d : dirs())
            if (fs::exists(d))
                for (const auto &e : fs::recursive_directory_iterator(d))
                    if (e.is_regular_file()) out[e.path()] = *qxtest::read_file(e.path());
        return out;
    }
    void restore(const Files &files) const {
        for (const std::string &d : dirs())
            fs::remove_all(d);
        for (const auto &[path, text] : files) {
            fs::create_directories(fs::path(path).parent_path());
            std::ofstream(path) << text;
        }
    }
    qxtest::RunResult refresh(bool force = true) const {
        const std::string ids = std::to_string(big) + "," + std::to_string(small_client);
        return qxtest::spoolcap({"-A", "set", "-u", ids, force ? "-f" : "-h"});
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
    struct Case {
        const char *jobs;
        bool force;
        const char *why;
    } cases[] = {
        {"1", true, "the reference: one process, forced"},
        {"2", true, "two workers share the big reseller's clients"},
        {"4", true, "more workers than clients: the users become units"},
        {"auto", true, "one worker per CPU"},
        {"1", false, "the reference: one process, only stale files"},
        {"2", false, "unforced: the same files skipped, the same recomputed"},
        {"4", false, "unforced with users as units"},
    };
    std::map<bool, std::pair<Files, qxtest::RunResult>> reference;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.why);
        t.restore(start);
        Jobs jobs(c.jobs);
        const qxtest::RunResult r = t.refresh(c.force);
        EXPECT_EQ(r.status, 0) << r.err;
        auto [it, first] = reference.try_emplace(c.force, t.files(), r);
        if (first) continue;
        EXPECT_EQ(t.files(), it->second.first);
        EXPECT_EQ(r.out, it->second.second.out);
        EXPECT_EQ(r.err, it->second.second.err);
    }
    EXPECT_NE(reference[true].first, start) << "the rows must have had something to recompute";
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

    std::string victim;  // a file of a user of the big reseller's second client
    for (const auto &[path, text] : exact)
        if (path.find("/" + std::to_string(t.users[5]) + "/") != std::string::npos) victim = path;
    const int fd = ::open(victim.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << victim;
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    struct stat st;
    ASSERT_EQ(::fstat(fd, &st), 0);

    Jobs jobs("2");
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

    EXPECT_EQ(r.status, 6) << "the big reseller failed, the small client did not";
    const Files after = t.files();
    for (const auto &[path, text] : exact) {
        if (path.ends_with(".dirty")) continue;
        const bool dirty = after.count(path + ".dirty") > 0;
        const std::string now = after.count(path) ? after.at(path) : "(missing)";
        EXPECT_TRUE(now == text || now == before.at(path) || dirty) << path << ": " << now;
    }
    const std::string big_fax = t.dirs()[0] + "/fax.quota";
    EXPECT_TRUE(after.count(big_fax + ".dirty")) << "the reseller's sum would be over stale files";

    ASSERT_EQ(t.refresh().status, 0);
    EXPECT_EQ(t.files(), exact);
}

// Fast updates from other processes while workers refresh: nothing corrupt, and one more refresh
// makes every file exact.
TEST(SpoolcapJobs, FastUpdatesRacingWorkersAreRepairedByTheNextRefresh) {
    Tree t;
    ASSERT_EQ(t.refresh().status, 0);
    const Files exact = t.files();
    Jobs jobs("2");
    std::vector<pid_t> updaters;
    for (size_t i = 0; i < 3; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            qx_sql_pool_init();
            // The big reseller's users: the small reseller's own files are no target's.
            for (int n = 0; n < 150; ++n)
                quota_update(t.users[(i * 5 + n) % 12], n % 5, 64, 5);
            ::_exit(0);
        }
        updaters.push_back(pid);
    }
    for (int n = 0; n < 3; ++n)
        EXPECT_EQ(t.refresh().status, 0);
    for (pid_t pid : updaters) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    for (const auto &[path, text] : t.files()) {
        if (!path.ends_with(".quota")) continue;
        long long value;
        int revision, end = 0;
        const bool valid = std::sscanf(text.c_str(), "%lld.%d%n", &value, &revision, &end) == 2 &&
                           end == static_cast<int>(text.size());
        EXPECT_TRUE(valid || fs::exists(path + ".dirty")) << path << ": " << text;
    }
    ASSERT_EQ(t.refresh().status, 0);
    EXPECT_EQ(t.files(), exact);
}

}  // namespace
