// Verification and the fast update as the telephony side calls them: ancestry and limits from the
// sandbox database, usage from real quota files, the verdict returned and printed on stdout.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "integration.hpp"
#include "quota.h"

using qxtest::dirty;
using qxtest::put;

// Attempts to take a lock that somebody else holds, counted so that a wait shows as the number
// of tries it allowed, not as elapsed time.
static std::atomic<int> g_refused_locks{0};
extern "C" int flock(int fd, int op) {
    static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
    const int rc = real(fd, op);
    if (rc != 0 && (op & LOCK_NB)) ++g_refused_locks;
    return rc;
}

constexpr int kRecording = 2;
constexpr const char *kLimitPrefs[] = {"fax_storage", "max_sound", "max_record", "max_voice",
                                       "max_moh"};
enum Who { kOwner, kClient, kReseller, kNobody };
constexpr int kFullCode[] = {1000000000, 500000000, 100000000};  // added to the full account's id

// One reseller > client > user chain of fresh accounts with no quota files yet.
struct Tree : qxtest::QuotaTree {
    std::array<int, 3> id;  // by Who
    explicit Tree(int reseller) : id{reseller + 2, reseller + 1, reseller} {
        add(id[kReseller], 0, 10), add(id[kClient], id[kReseller], 50);
        add(id[kOwner], id[kClient], 100);
    }
    std::string rec(Who who, int kind = kRecording) const { return file(id[who], kind); }
    auto read(Who who, int kind = kRecording) const { return qxtest::read_file(rec(who, kind)); }
};

// Three trees per block of fresh ids, so that a long table does not use up the id space.
Tree new_tree() {
    static int base = 0, used = 3;
    if (used == 3) base = qxtest::fresh_ids(), used = 0;
    return Tree(base + 3 * used++);
}

// The verdict printed for a call on the account `who` of t (or with no ancestry at all).
std::string verify_line(int kind, const Tree *t, Who who, int result) {
    const int r = t ? t->id[kReseller] : 0, c = t && who < kReseller ? t->id[kClient] : 0,
              o = t && who == kOwner ? t->id[kOwner] : 0;
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  " + quota_verify(target:%d, resid:%d, clid:%d, extid:%d) returned:%d (if >0 it "
                  "means: client.id:%d, client.level:%d)\n",
                  kind, r, c, o, result, result % 10000000, result / 10000000);
    return buf;
}

std::pair<int, std::string> verify(int account, int kind) {
    ::testing::internal::CaptureStdout();
    const int result = quota_verify(account, kind);
    std::fflush(stdout);
    return {result, ::testing::internal::GetCapturedStdout()};
}

// An exclusive flock on its own open file description: it conflicts with the engine's lock
// although both live in this process.
struct HeldLock {
    int fd;
    bool locked;
    explicit HeldLock(const std::string &path)
        : fd(open(path.c_str(), O_RDWR)), locked(fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {}
    ~HeldLock() { close(fd); }
};

using QuotaVerify = QuotaTest;

TEST_F(QuotaVerify, ReportsTheDeepestLevelAtOrOverItsLimit) {
    struct Row {
        const char *what;
        int kind;  // the rows that find a level full name each kind once
        Who account;
        std::array<const char *, 3> kib, rec;  // limit prefs and quota files by Who; null: none
        bool dirty, locked;                    // the owner's file
        Who full;
        const char *owner_after;  // null: no file
        bool dirty_after;
    };
    // clang-format off
    const Row rows[] = {
        {"owner at its limit", 0, kOwner, {"10"}, {"10240.3", "10240.0", "10240.0"},
         false, false, kOwner, "10240.3", false},
        {"one byte below falls through to a full client", 1, kOwner, {"10", "10"},
         {"10239.3", "10240.0", "10240.0"}, false, false, kClient, "10239.3", false},
        {"client below too, reseller full", 3, kOwner, {"10", "20", "30"},
         {"10239.3", "20479.1", "30720.9"}, false, false, kReseller, "10239.3", false},
        {"over the limit counts as full", 4, kOwner, {"10", "10", "10"},
         {"999999.0", "999999.0", "999999.0"}, false, false, kOwner, "999999.0", false},
        {"a dirty owner hands over to the client", 2, kOwner, {"10", "10"},
         {"99999.0", "10240.0", "0.0"}, true, false, kClient, "99999.0", true},
        {"2 GiB wraps negative in 32 bits", 2, kOwner, {"10", "10", "10"},
         {"2147483648.5", "0.0", "0.0"}, false, false, kNobody, "2147483648.5", false},
        {"no preference means no limit", 2, kOwner, {nullptr, "10"},
         {"999999.0", "10240.0", "0.0"}, false, false, kClient, "999999.0", false},
        {"a missing file is created and 0 is at a limit of 0", 2, kOwner, {"0"},
         {nullptr, "0.0", "0.0"}, false, false, kOwner, "0.1", false},
        {"a missing file is created and read as 0", 2, kOwner, {"10", "10"},
         {nullptr, "10240.0", "0.0"}, false, false, kClient, "0.1", false},
        {"a record without a dot is marked dirty", 2, kOwner, {"10", "10"},
         {"abc", "10240.0", "0.0"}, false, false, kClient, "abc", true},
        {"a lock held elsewhere is not waited for", 2, kOwner, {"10"},
         {"10240.0", "0.0", "0.0"}, false, true, kNobody, "10240.0", true},
        {"a client is checked from its own level", 2, kClient, {"0", "10"},
         {"999999.0", "10240.0", "0.0"}, false, false, kClient, "999999.0", false},
        {"a reseller is checked alone", 2, kReseller, {nullptr, "0", "10"},
         {nullptr, "99999.0", "10240.0"}, false, false, kReseller, nullptr, false},
    };
    // clang-format on
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const Tree t = new_tree();
        // Every other kind is far from its limit, so reading the wrong one shows as "within".
        for (int k = 0; k < 5; ++k)
            for (Who w : {kOwner, kClient, kReseller}) {
                const char *kib = k == row.kind ? row.kib[w] : "100000";
                const char *rec = k == row.kind ? row.rec[w] : "0.0";
                if (kib) qxtest::add_pref(t.id[w], kLimitPrefs[k], kib);
                if (rec) put(t.rec(w, k), rec);
            }
        const std::string owner = t.rec(kOwner, row.kind);
        if (row.dirty) put(owner + ".dirty", "");
        const int expected = row.full == kNobody ? 0 : t.id[row.full] + kFullCode[row.full];
        std::optional<HeldLock> lock;
        if (row.locked) lock.emplace(owner);
        ASSERT_TRUE(!lock || lock->locked);
        qxtest::LogCapture log;
        EXPECT_EQ(verify(t.id[row.account], row.kind),
                  std::make_pair(expected, verify_line(row.kind, &t, row.account, expected)));
        // Only a verdict other than "within limits" is worth an error in the log.
        EXPECT_EQ(log.contains(" returned:" + std::to_string(expected) + " "), expected != 0);
        lock.reset();
        EXPECT_EQ(t.read(kOwner, row.kind),
                  row.owner_after ? std::optional<std::string>(row.owner_after) : std::nullopt);
        EXPECT_EQ(dirty(owner), row.dirty_after);
    }
}

TEST_F(QuotaVerify, BadKindsUnknownAccountsAndTheRoot) {
    const int base = qxtest::fresh_ids();
    const Tree t(base);
    const int root = base + 9, unknown = base + 8;
    qxtest::QuotaTree().add(root, 0, 0);
    qxtest::add_pref(t.id[kOwner], "max_record", "0");
    const struct {
        const char *what;
        int account, kind, verified, updated;
    } rows[] = {
        {"kind 5 is not a single kind", t.id[kOwner], 5, -1, -1},
        {"negative kind", t.id[kOwner], -1, -1, -1},
        {"unknown account", unknown, kRecording, -2, -2},
        {"the root has no limits", root, kRecording, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(
            verify(row.account, row.kind),
            std::make_pair(row.verified, verify_line(row.kind, nullptr, kOwner, row.verified)));
        if (row.account == root) continue;  // what an update of the root gives is not defined
        EXPECT_EQ(quota_update(row.account, row.kind, 100, 30), row.updated);
    }
    // Bad kinds are refused before anything is looked at or created.
    EXPECT_FALSE(fs::exists(t.dir.at(t.id[kReseller])));
}

// The account's file and every ancestor's get the delta. A lock held elsewhere on the owner's
// file costs the caller its wait (a negative one meaning 30 ms, one try per 10 ms step; the
// steps' bounds are the unit tests' rows) and leaves that file marked dirty and untouched; the
// ancestors are updated all the same.
TEST_F(QuotaVerify, UpdateWritesTheAccountAndEveryAncestor) {
    const struct {
        Who account;
        long long delta;
        int wait, tries;     // tries: -1 for no lock held
        const char *record;  // of every file written but a locked one
    } rows[] = {{kOwner, -4096, 30, -1, "0.1"},
                {kClient, 77, 30, -1, "77.1"},
                {kReseller, 0, 30, -1, "0.1"},
                {kOwner, 25, -100000, 4, "525.2"},
                {kOwner, 25, 50, 6, "525.2"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.account) + " wait " + std::to_string(row.wait));
        const Tree t = new_tree();
        std::optional<HeldLock> lock;
        if (row.tries >= 0) {
            ASSERT_EQ(quota_update(t.id[kOwner], kRecording, 500, 30), 0);
            ASSERT_TRUE(lock.emplace(t.rec(kOwner)).locked);
        }
        g_refused_locks = 0;
        // The engine decides the modes of what it creates, not its caller's umask.
        const mode_t caller_umask = umask(077);
        EXPECT_EQ(quota_update(t.id[row.account], kRecording, row.delta, row.wait), 0);
        EXPECT_EQ(umask(caller_umask), 077) << "the caller's umask is given back";
        EXPECT_EQ(g_refused_locks, std::max(row.tries, 0));
        for (Who w : {kOwner, kClient, kReseller})
            EXPECT_EQ(t.read(w), lock && w == kOwner ? "500.1"
                                 : w >= row.account  ? std::optional<std::string>(row.record)
                                                     : std::nullopt);
        EXPECT_EQ(dirty(t.rec(kOwner)), lock.has_value());
        struct stat file = {}, dir = {};
        ASSERT_EQ(
            stat(t.rec(kReseller).c_str(), &file) | stat(t.dir.at(t.id[kReseller]).c_str(), &dir),
            0);
        EXPECT_EQ(std::make_pair(file.st_mode & 07777, dir.st_mode & 07777),
                  std::make_pair(0660u, 0770u));
    }
}
