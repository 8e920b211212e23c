// Verification and the fast update as the telephony side calls them: the account's ancestry and
// limits come from the sandbox database (through the cache), usage from real quota files, and
// the verdict is both returned and printed on standard output.
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quota.h"
#include "qxtest.hpp"
#include "sqlsession.h"

namespace fs = std::filesystem;
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

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

constexpr int kRecording = 2;
constexpr std::array<const char *, 5> kKindFiles = {"fax", "sound", "recording", "voicemail",
                                                    "music"};
constexpr std::array<const char *, 5> kLimitPrefs = {"fax_storage", "max_sound", "max_record",
                                                     "max_voice", "max_moh"};
constexpr char kVerifyLine[] =
    " + quota_verify(target:%d, resid:%d, clid:%d, extid:%d) returned:%d (if >0 it means: "
    "client.id:%d, client.level:%d)\n";

std::string quota_root() {
    return qxtest::path("/var/lib/quorvexquota");
}

// One reseller > client > user chain of fresh accounts with no quota files yet.
struct Tree {
    int reseller = 0, client = 0, owner = 0;

    std::string reseller_dir() const { return quota_root() + "/" + std::to_string(reseller); }
    std::string client_dir() const { return reseller_dir() + "/" + std::to_string(client); }
    std::string owner_dir() const { return client_dir() + "/" + std::to_string(owner); }
    std::string file(const std::string &dir, int kind) const {
        return dir + "/" + kKindFiles[kind] + ".quota";
    }
};

// Three trees per block of fresh ids, so that a long table does not use up the id space.
Tree new_tree() {
    static int base = 0;
    static int used = 3;
    if (used == 3) {
        base = qxtest::fresh_ids();
        used = 0;
    }
    Tree t;
    t.reseller = base + 3 * used;
    t.client = t.reseller + 1;
    t.owner = t.reseller + 2;
    ++used;
    for (int id : {t.reseller, t.client, t.owner}) {
        qxtest::redis(
            {"DEL", "res:inf:mng:" + std::to_string(id), "res:pre:mng:" + std::to_string(id)});
    }
    // Ids are reused after a sandbox reset; quota files of an earlier life must not count.
    std::error_code ec;
    fs::remove_all(t.reseller_dir(), ec);
    qxtest::add_account(t.reseller, 0, 10);
    qxtest::add_account(t.client, t.reseller, 50);
    qxtest::add_account(t.owner, t.client, 100);
    return t;
}

// Trees use the first nine ids of their block; the tenth is never created.
int never_created(const Tree &t) {
    return t.reseller / 10 * 10 + 9;
}

std::string verify_line(int kind, int reseller, int client, int owner, int result) {
    char buf[512];
    std::snprintf(buf, sizeof buf, kVerifyLine, kind, reseller, client, owner, result,
                  result % 10000000, result / 10000000);
    return buf;
}

struct Verdict {
    int result;
    std::string out;
};

Verdict verify(int account, int kind) {
    ::testing::internal::CaptureStdout();
    const int result = quota_verify(account, kind);
    std::fflush(stdout);
    return {result, ::testing::internal::GetCapturedStdout()};
}

// An exclusive flock on its own open file description: it conflicts with the engine's lock
// although both live in this process.
class HeldLock {
  public:
    explicit HeldLock(const std::string &path) : fd_(::open(path.c_str(), O_RDWR)) {
        locked_ = fd_ >= 0 && ::flock(fd_, LOCK_EX | LOCK_NB) == 0;
    }
    ~HeldLock() {
        if (fd_ >= 0) ::close(fd_);
    }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;
    bool locked() const { return locked_; }

  private:
    int fd_;
    bool locked_ = false;
};

class QuotaVerify : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }
    void SetUp() override {
        // Created files go to asterisk:asterisk; without that account the engine creates none.
        if (!::getpwnam("asterisk") || !::getgrnam("asterisk"))
            GTEST_SKIP() << "needs the asterisk user and group";
    }
};

enum class Full { kNone, kOwner, kClient, kReseller };

TEST_F(QuotaVerify, ReportsTheDeepestLevelAtOrOverItsLimit) {
    enum class Who { kOwner, kClient, kReseller };
    struct Row {
        const char *what;
        Who account;
        const char *owner_kib, *client_kib, *reseller_kib;  // limit prefs; null: none
        const char *owner_rec, *client_rec, *reseller_rec;  // quota files; null: none
        bool owner_dirty;
        bool owner_locked;
        Full expected;
        const char *owner_after;  // owner file afterwards; null: none
        bool owner_dirty_after;
    };
    const Row rows[] = {
        {"owner at its limit", Who::kOwner, "10", nullptr, nullptr, "10240.3", "10240.0", "10240.0",
         false, false, Full::kOwner, "10240.3", false},
        {"one byte below falls through to a full client", Who::kOwner, "10", "10", nullptr,
         "10239.3", "10240.0", "10240.0", false, false, Full::kClient, "10239.3", false},
        {"client below too, reseller full", Who::kOwner, "10", "20", "30", "10239.3", "20479.1",
         "30720.9", false, false, Full::kReseller, "10239.3", false},
        {"every level one byte below", Who::kOwner, "10", "20", "30", "10239.3", "20479.1",
         "30719.9", false, false, Full::kNone, "10239.3", false},
        {"over the limit counts as full", Who::kOwner, "10", "10", "10", "999999.0", "999999.0",
         "999999.0", false, false, Full::kOwner, "999999.0", false},
        {"a dirty owner is within limits", Who::kOwner, "10", "10", nullptr, "99999.0", "10239.0",
         "99999.0", true, false, Full::kNone, "99999.0", true},
        {"a dirty owner hands over to the client", Who::kOwner, "10", "10", nullptr, "99999.0",
         "10240.0", "0.0", true, false, Full::kClient, "99999.0", true},
        {"2 GiB wraps negative in 32 bits", Who::kOwner, "10", "10", "10", "2147483648.5", "0.0",
         "0.0", false, false, Full::kNone, "2147483648.5", false},
        {"2^32 + 10240 wraps to 10240", Who::kOwner, "10", nullptr, nullptr, "4294977536.1", "0.0",
         "0.0", false, false, Full::kOwner, "4294977536.1", false},
        {"2^32 + 10239 wraps below the limit", Who::kOwner, "10", nullptr, nullptr, "4294977535.1",
         "0.0", "0.0", false, false, Full::kNone, "4294977535.1", false},
        {"no preference means no limit", Who::kOwner, nullptr, "10", nullptr, "999999.0", "10240.0",
         "0.0", false, false, Full::kClient, "999999.0", false},
        {"a negative limit is never checked", Who::kOwner, "-1", nullptr, nullptr, "10240.0", "0.0",
         "0.0", false, false, Full::kNone, "10240.0", false},
        {"a missing file is created and 0 is at a limit of 0", Who::kOwner, "0", nullptr, nullptr,
         nullptr, "0.0", "0.0", false, false, Full::kOwner, "0.1", false},
        {"a missing file is created and read as 0", Who::kOwner, "10", "10", nullptr, nullptr,
         "10240.0", "0.0", false, false, Full::kClient, "0.1", false},
        {"a record without a dot is marked dirty", Who::kOwner, "10", "10", nullptr, "abc",
         "10240.0", "0.0", false, false, Full::kClient, "abc", true},
        {"a lock held elsewhere is not waited for", Who::kOwner, "10", nullptr, nullptr, "10240.0",
         "0.0", "0.0", false, true, Full::kNone, "10240.0", true},
        {"a client is checked from its own level", Who::kClient, "0", "10", nullptr, "999999.0",
         "10240.0", "0.0", false, false, Full::kClient, "999999.0", false},
        {"a reseller is checked alone", Who::kReseller, nullptr, "0", "10", nullptr, "99999.0",
         "10240.0", false, false, Full::kReseller, nullptr, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const Tree t = new_tree();
        if (row.owner_kib) qxtest::add_pref(t.owner, "max_record", row.owner_kib);
        if (row.client_kib) qxtest::add_pref(t.client, "max_record", row.client_kib);
        if (row.reseller_kib) qxtest::add_pref(t.reseller, "max_record", row.reseller_kib);
        const std::string owner_file = t.file(t.owner_dir(), kRecording);
        if (row.owner_rec) put(owner_file, row.owner_rec);
        if (row.owner_dirty) put(owner_file + ".dirty", "");
        if (row.client_rec) put(t.file(t.client_dir(), kRecording), row.client_rec);
        if (row.reseller_rec) put(t.file(t.reseller_dir(), kRecording), row.reseller_rec);

        int account = t.owner, resid = t.reseller, clid = t.client, extid = t.owner;
        if (row.account == Who::kClient) account = t.client, extid = 0;
        if (row.account == Who::kReseller) account = t.reseller, clid = 0, extid = 0;
        int expected = 0;
        switch (row.expected) {
            case Full::kNone:
                break;
            case Full::kOwner:
                expected = t.owner + 1000000000;
                break;
            case Full::kClient:
                expected = t.client + 500000000;
                break;
            case Full::kReseller:
                expected = t.reseller + 100000000;
                break;
        }

        std::optional<HeldLock> lock;
        if (row.owner_locked) {
            lock.emplace(owner_file);
            ASSERT_TRUE(lock->locked());
        }
        qxtest::LogCapture log;
        const Verdict v = verify(account, kRecording);
        EXPECT_EQ(v.result, expected);
        EXPECT_EQ(v.out, verify_line(kRecording, resid, clid, extid, expected));
        // Only a verdict other than "within limits" is worth an error in the log.
        EXPECT_EQ(log.contains(" returned:" + std::to_string(expected) + " "), expected != 0);
        lock.reset();

        EXPECT_EQ(qxtest::read_file(owner_file),
                  row.owner_after ? std::optional<std::string>(row.owner_after) : std::nullopt);
        EXPECT_EQ(dirty(owner_file), row.owner_dirty_after);
    }
}

TEST_F(QuotaVerify, EachKindReadsItsOwnPreferenceAndFile) {
    for (int kind = 0; kind < 5; ++kind) {
        SCOPED_TRACE(kKindFiles[kind]);
        const Tree t = new_tree();
        // Every other kind is far from its limit, so reading the wrong one shows as "within".
        for (int other = 0; other < 5; ++other) {
            const bool same = other == kind;
            qxtest::add_pref(t.owner, kLimitPrefs[other], same ? "10" : "100000");
            put(t.file(t.owner_dir(), other), same ? "10240.0" : "0.0");
        }
        const int full = t.owner + 1000000000;
        const Verdict v = verify(t.owner, kind);
        EXPECT_EQ(v.result, full);
        EXPECT_EQ(v.out, verify_line(kind, t.reseller, t.client, t.owner, full));
    }
}

TEST_F(QuotaVerify, FailuresAndTheRootAreReportedToo) {
    const Tree t = new_tree();
    const int root = qxtest::fresh_ids();
    qxtest::redis({"DEL", "res:inf:mng:" + std::to_string(root)});
    qxtest::add_account(root, 0, 0);
    qxtest::add_pref(t.owner, "max_record", "0");
    const int unknown = never_created(t);
    struct Row {
        const char *what;
        int account, kind, result;
    };
    const Row rows[] = {
        {"kind 5 is not a single kind", t.owner, 5, -1},
        {"negative kind", t.owner, -1, -1},
        {"unknown account", unknown, kRecording, -2},
        {"the root has no limits", root, kRecording, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const Verdict v = verify(row.account, row.kind);
        EXPECT_EQ(v.result, row.result);
        EXPECT_EQ(v.out, verify_line(row.kind, 0, 0, 0, row.result));
    }
    // Bad kinds are refused before anything is looked at or created.
    EXPECT_FALSE(fs::exists(t.owner_dir()));
}

TEST_F(QuotaVerify, UpdateWritesTheAccountAndEveryAncestor) {
    enum class Who { kOwner, kClient, kReseller };
    struct Row {
        Who account;
        long long delta;
        bool owner_file, client_file;
        const char *record;  // of every file written
    };
    const Row rows[] = {
        {Who::kOwner, 4096, true, true, "4096.1"},
        {Who::kOwner, -4096, true, true, "0.1"},
        {Who::kClient, 77, false, true, "77.1"},
        {Who::kReseller, 0, false, false, "0.1"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(static_cast<int>(row.account)) + " delta " +
                     std::to_string(row.delta));
        const Tree t = new_tree();
        const int account = row.account == Who::kOwner    ? t.owner
                            : row.account == Who::kClient ? t.client
                                                          : t.reseller;
        // The engine decides the modes of what it creates, not its caller's umask.
        const mode_t caller_umask = ::umask(077);
        EXPECT_EQ(quota_update(account, kRecording, row.delta, 30), 0);
        EXPECT_EQ(::umask(caller_umask), 077) << "the caller's umask is given back";

        const std::optional<std::string> written(row.record);
        EXPECT_EQ(qxtest::read_file(t.file(t.owner_dir(), kRecording)),
                  row.owner_file ? written : std::nullopt);
        EXPECT_EQ(qxtest::read_file(t.file(t.client_dir(), kRecording)),
                  row.client_file ? written : std::nullopt);
        const std::string reseller_file = t.file(t.reseller_dir(), kRecording);
        EXPECT_EQ(qxtest::read_file(reseller_file), written);
        struct stat st {};
        ASSERT_EQ(::stat(reseller_file.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0660u);
        ASSERT_EQ(::stat(t.reseller_dir().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0770u);
        if (::getuid() == 0) {
            EXPECT_EQ(st.st_uid, ::getpwnam("asterisk")->pw_uid);
            EXPECT_EQ(st.st_gid, ::getgrnam("asterisk")->gr_gid);
        }
    }
}

TEST_F(QuotaVerify, UpdateRefusesBadKindsAndUnknownAccounts) {
    const Tree t = new_tree();
    const int unknown = never_created(t);
    struct Row {
        int account, kind, result;
    };
    const Row rows[] = {
        {t.owner, 5, -1},
        {t.owner, -1, -1},
        {t.owner, 6, -1},
        {unknown, kRecording, -2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("account " + std::to_string(row.account) + " kind " +
                     std::to_string(row.kind));
        EXPECT_EQ(quota_update(row.account, row.kind, 100, 30), row.result);
    }
    EXPECT_FALSE(fs::exists(t.reseller_dir()));
}

// A lock held elsewhere on the owner's file costs the caller its wait (a negative one meaning
// 30 ms, one try per 10 ms step), leaves that file marked dirty and untouched, and does not keep
// the ancestors from being updated.
TEST_F(QuotaVerify, UpdateTriesALockForItsWaitThenMarksTheFileDirty) {
    const struct {
        int wait, tries;
    } rows[] = {{-1, 4}, {-100000, 4}, {30, 4}, {0, 1}, {19, 2}, {50, 6}};
    for (const auto &row : rows) {
        SCOPED_TRACE("wait " + std::to_string(row.wait));
        const Tree t = new_tree();
        const std::string owner_file = t.file(t.owner_dir(), kRecording);
        put(owner_file, "500.2");
        ASSERT_EQ(quota_update(t.owner, kRecording, 0, 30), 0);  // creates the ancestors at 0.1
        HeldLock lock(owner_file);
        ASSERT_TRUE(lock.locked());
        g_refused_locks = 0;
        EXPECT_EQ(quota_update(t.owner, kRecording, 25, row.wait), 0);
        EXPECT_EQ(g_refused_locks, row.tries);
        EXPECT_EQ(qxtest::read_file(owner_file), "500.2");
        EXPECT_TRUE(dirty(owner_file));
        EXPECT_EQ(qxtest::read_file(t.file(t.client_dir(), kRecording)), "25.2");
        EXPECT_EQ(qxtest::read_file(t.file(t.reseller_dir(), kRecording)), "25.2");
    }
}

}  // namespace
