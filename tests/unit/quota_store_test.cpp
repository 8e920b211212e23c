// Quota store, disk measurement and the fast update on real files in a scratch directory; no
// database is involved.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <vector>

#include <gtest/gtest.h>

#include "quota.h"
#include "unit.hpp"

namespace {

using namespace unit;
using std::string;

// Files are handed to asterisk:asterisk; without that account the engine refuses to create any.
bool have_asterisk() {
    return ::getpwnam("asterisk") != nullptr && ::getgrnam("asterisk");
}

TEST(QuotaRecord, ReadsValueBeforeFirstDotAndRevisionAfterIt) {
    const struct {
        string file;
        int rc;
        long long value;
        int revision;
    } rows[] = {{"1234.7", 0, 1234, 7},
                {"512.3", 0, 512, 3},
                {"-5.2", 0, -5, 2},
                {"12.3.4", 0, 12, 3},
                {"7.", 0, 7, 0},
                {".4", 0, 0, 4},
                {"1234", -1, 0, 0},
                {"", -1, 0, 0},
                {"abc", -1, 0, 0},
                // Only the first 31 bytes count.
                {string(27, '0') + "42.9", 0, 42, 9},
                {string(28, '0') + "42.9", 0, 42, 0},
                {string(29, '0') + "42.9", -1, 0, 0}};
    TempDir dir;
    for (const auto &row : rows) {
        SCOPED_TRACE("file \"" + row.file + "\"");
        const int fd = ::open(dir.write("q", row.file).c_str(), O_RDONLY);
        long long value = 777, value_only = 777;
        int revision = 888;
        EXPECT_EQ(quota_read_internal(fd, &value, &revision), row.rc);
        EXPECT_EQ(value, row.rc == 0 ? row.value : 777) << "a failed read leaves outputs alone";
        EXPECT_EQ(revision, row.rc == 0 ? row.revision : 888);
        ::lseek(fd, 0, SEEK_SET);
        EXPECT_EQ(quota_read_internal(fd, &value_only, nullptr), row.rc);
        EXPECT_EQ(quota_read_internal(fd, nullptr, &revision), -1);
        ::close(fd);
    }
}

// A caller may hand in a descriptor opened for appending; the file must still end up holding
// exactly the new record.
TEST(QuotaRecord, WriteReplacesTheWholeFileWhateverTheOpenFlags) {
    const struct {
        int flags;
        string before;
        long long value;
        int revision, rc;
        string after;
    } rows[] = {{O_RDWR, "", 0, 1, 0, "0.1"},
                {O_RDWR, "123456789.5", 0, 1, 0, "0.1"},
                {O_RDWR, "1.1", 1234567, 12, 0, "1234567.12"},
                {O_RDWR, "9.9", -1, -1, 0, "-1.-1"},
                {O_RDWR, "9.9", LLONG_MAX, INT_MAX, 0, "9223372036854775807.2147483647"},
                // 32 characters do not fit a record: the file is left invalid, not stale.
                {O_RDWR, "9.9", LLONG_MIN, INT_MIN, -1, ""},
                {O_RDWR | O_APPEND, "1234.7", 5, 0, 0, "5.0"},
                {O_WRONLY | O_APPEND, "98765.12", 42, 3, 0, "42.3"},
                {O_RDWR | O_APPEND, "1.0", 123456, 9, 0, "123456.9"}};
    TempDir dir;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.before + " flags " + std::to_string(row.flags) + " <- " + row.after);
        const int fd = ::open(dir.write("q", row.before).c_str(), row.flags);
        EXPECT_EQ(quota_write_internal(fd, row.value, row.revision), row.rc);
        ::close(fd);
        EXPECT_EQ(read(dir / "q"), row.after);
    }
}

TEST(QuotaPaths, FollowTheAccountTree) {
    char *probe = nullptr;
    ASSERT_EQ(make_qpaths(5, 12, 0, 0, &probe, nullptr, nullptr), 0);
    string root = *take(probe);
    ASSERT_EQ(root.substr(root.size() - 3), "/12");
    root.resize(root.size() - 3);

    static char untouched[] = "untouched";
    const struct {
        int kind, reseller, client, owner, rc;
        const char *paths[3];  // reseller, client, owner below the root; null: untouched
    } rows[] = {
        {0, 12, 34, 56, 0, {"/12/fax.quota", "/12/34/fax.quota", "/12/34/56/fax.quota"}},
        {1, 12, 34, 56, 0, {"/12/sound.quota", "/12/34/sound.quota", "/12/34/56/sound.quota"}},
        {2, 12, 34, 0, 0, {"/12/recording.quota", "/12/34/recording.quota", nullptr}},
        {3, 7, 0, 56, 0, {"/7/voicemail.quota", nullptr, nullptr}},
        {4, 12, 34, 56, 0, {"/12/music.quota", "/12/34/music.quota", "/12/34/56/music.quota"}},
        {5, 12, 34, 0, 0, {"/12", "/12/34", nullptr}},
        {5, 12, 34, 56, 0, {"/12", "/12/34", "/12/34/56"}},
        {0, 0, 34, 56, -1, {}},
        {0, -3, 34, 56, -1, {}},
        {6, 12, 34, 56, -1, {}}};
    for (const auto &row : rows) {
        SCOPED_TRACE("kind " + std::to_string(row.kind) + " reseller " +
                     std::to_string(row.reseller) + " owner " + std::to_string(row.owner));
        char *got[3] = {untouched, untouched, untouched};
        EXPECT_EQ(
            make_qpaths(row.kind, row.reseller, row.client, row.owner, &got[0], &got[1], &got[2]),
            row.rc);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(got[i], row.paths[i] ? root + row.paths[i] : string(untouched));
            if (got[i] != untouched) std::free(got[i]);
        }
    }
    // Only the outputs asked for are built.
    char *c = untouched;
    EXPECT_EQ(make_qpaths(0, 12, 34, 56, nullptr, &c, nullptr), 0);
    EXPECT_EQ(take(c), root + "/12/34/fax.quota");
}

TEST(QuotaPaths, StrAppendAddsOneComponent) {
    const struct {
        const char *start;
        int number;
        const char *text;
        int flag;
        bool returns_path;
        const char *after;
    } rows[] = {{"a", 42, nullptr, 0, true, "a/42"}, {"a/", 7, nullptr, 0, true, "a/7"},
                {"", -3, nullptr, 0, true, "/-3"},   {"a", 0, "0042", 0, true, "a/42"},
                {"a", 0, "0042", 1, true, "a/0042"}, {"a", 0, "1020", 0, true, "a/1020"},
                {"a", 0, "0000", 0, true, "a/"},     {"a", 0, nullptr, 0, false, "a/"}};
    for (const auto &row : rows) {
        char *path = ::strdup(row.start);
        char *got = row.number ? quota_str_append(&path, row.number)
                               : quota_str_append(&path, 0, row.text, row.flag);
        EXPECT_EQ(got, row.returns_path ? path : nullptr) << row.after;
        EXPECT_STREQ(path, row.after);
        std::free(path);
    }
    EXPECT_EQ(quota_str_append(nullptr, 5), nullptr);
}

TEST(QuotaDirs, MakeDirsCreatesEveryMissingComponent) {
    TempDir dir;
    const mode_t old_umask = ::umask(0);
    dir.write("file", "x");
    ASSERT_EQ(::mkdir((dir / "old").c_str(), 0700), 0);
    uid_t uid = ::getuid();
    gid_t gid = ::getgid();
    if (const passwd *pw = ::getpwnam("asterisk")) uid = pw->pw_uid;
    if (const group *gr = ::getgrnam("asterisk")) gid = gr->gr_gid;
    const struct {
        string path;
        int rc, err;
        std::vector<string> created;  // below the scratch dir, mode 0770
    } rows[] = {{"a/b/c", 0, 0, {"a", "a/b", "a/b/c"}},
                {"t/u/", 0, 0, {"t", "t/u"}},
                {"a/b/c", 0, 0, {}},
                {"old/new", 0, 0, {"old/new"}},
                {"file/sub", -1, ENOTDIR, {}},
                {"file", -1, ENOTDIR, {}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path);
        errno = 12345;
        EXPECT_EQ(make_dirs((dir / row.path).c_str(), 0770, uid, gid), row.rc);
        EXPECT_EQ(errno, row.err);
        for (const string &made : row.created) {
            struct stat st;
            ASSERT_EQ(::stat((dir / made).c_str(), &st), 0) << made;
            EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFDIR | 0770u) << made;
            if (::getuid() == 0) {
                EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(uid, gid)) << made;
            }
        }
    }
    ::umask(old_umask);
    struct stat st;
    ASSERT_EQ(::stat((dir / "old").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u) << "existing directories are left alone";
    errno = 0;
    EXPECT_EQ(make_dirs(nullptr, 0770, uid, gid), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(QuotaDirs, DirtyMarkLifecycle) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    TempDir dir;
    const string quota = dir.write("fax.quota", "5.0");
    EXPECT_EQ(is_dirty(quota.c_str()), 0);
    EXPECT_EQ(set_dirty(quota.c_str()), 0);
    EXPECT_EQ(is_dirty(quota.c_str()), 1);
    EXPECT_EQ(read(quota + ".dirty"), "") << "a mark is an empty file";
    EXPECT_EQ(read(quota), "5.0") << "marking never touches the quota file";
    struct stat st;
    ASSERT_EQ(::stat((quota + ".dirty").c_str(), &st), 0);
    if (::getuid() == 0) {
        EXPECT_EQ(st.st_uid, ::getpwnam("asterisk")->pw_uid);
    }
    EXPECT_EQ(set_dirty(quota.c_str()), 0) << "marking twice is harmless";
    EXPECT_EQ(unset_dirty(quota.c_str()), 0);
    EXPECT_EQ(is_dirty(quota.c_str()), 0);
    EXPECT_EQ(unset_dirty(quota.c_str()), -1);
    EXPECT_EQ(set_dirty((dir / "missing/dir/fax.quota").c_str()), -1);
}

TEST(QuotaMeasure, SumsApparentSizesOfRegularFiles) {
    TempDir dir;
    // plain: 100 + 50 at the top, 10 one level down.
    qxtest::write_file(dir / "plain/a", 100);
    qxtest::write_file(dir / "plain/b", 50);
    qxtest::write_file(dir / "plain/sub/c", 10);
    fs::create_directories(dir / "plain/empty");
    // links: followed to files and directories; dangling ones and loops are skipped.
    qxtest::write_file(dir / "outside/f", 7);
    qxtest::write_file(dir / "outside/d/g", 5);
    qxtest::write_file(dir / "links/.hidden", 3);
    fs::create_symlink(dir / "outside/f", dir / "links/file_link");
    fs::create_directory_symlink(dir / "outside/d", dir / "links/dir_link");
    fs::create_symlink(dir / "nowhere", dir / "links/dangling");
    fs::create_directory_symlink(dir / "links", dir / "links/loop");
    ASSERT_EQ(::mkfifo((dir / "links/fifo").c_str(), 0600), 0);
    fs::create_directories(dir / "empty");
    const struct {
        string path;
        int recurse;
        long long start;
        int rc;
        long long total, dirsize;
    } rows[] = {{"plain", 1, 0, 0, 160, 159},      {"plain", 0, 0, 0, 150, 159},
                {"plain/", 1, 1000, 0, 1160, 159}, {"links", 1, 0, 0, 15, 14},
                {"links", 0, 0, 0, 10, 14},        {"empty", 1, 0, 0, 0, -1},
                {"missing", 1, 42, -1, 42, -1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path + (row.recurse ? " recursive" : " flat"));
        const string path = dir / row.path;
        long long total = row.start;
        EXPECT_EQ(compute_quota(path.c_str(), &total, row.recurse), row.rc);
        EXPECT_EQ(total, row.total);
        char *buffer = ::strdup(path.c_str());
        total = row.start;
        EXPECT_EQ(compute_quota_dir(&buffer, &total, row.recurse), row.rc);
        EXPECT_EQ(total, row.total);
        EXPECT_EQ(take(buffer), path) << "the walk hands its path buffer back unchanged";
        EXPECT_EQ(quota_get_dirsize(path.c_str()), row.dirsize);
    }
}

TEST(QuotaFastUpdate, AppliesDeltaOrMarksFileDirty) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    const struct {
        Opt before;  // nullopt: no file
        bool dirty_before;
        long long delta;
        int result;
        Opt after;
        bool dirty_after;
    } rows[] = {{"200.4", false, -500, 0, "0.5", false},
                {"200.4", false, 300, 500, "500.5", false},
                {"7.3", false, 0, 7, "7.3", false},
                {no, false, 0, 0, "0.1", false},
                {no, false, 42, 42, "42.1", false},
                {no, false, -42, 0, "0.1", false},
                {"abc", false, 5, -1, "abc", true},
                {"", false, 5, -1, "", true},
                {"-1.3", false, 5, -1, "-1.3", true},
                {"5.-1", false, 5, 5, "5.-1", true},
                {"9.2", true, 1, -1, "9.2", true},
                {no, true, 1, -1, no, true},
                // The caller sees the value through 32 bits.
                {"4294967396.0", false, 0, 100, "4294967396.0", false},
                {"2147483647.0", false, 1, INT_MIN, "2147483648.1", false}};
    int n = 0;
    for (const auto &row : rows) {
        TempDir dir;
        const string rel = "r" + std::to_string(n++) + "/fax.quota", path = dir / rel;
        SCOPED_TRACE(row.before.value_or("missing") + " delta " + std::to_string(row.delta));
        if (row.before) dir.write(rel, *row.before);
        if (row.dirty_before) dir.write(rel + ".dirty", "");
        EXPECT_EQ(quota_upd_fast_internal(path.c_str(), row.delta, 30), row.result);
        EXPECT_EQ(read(path), row.after);
        EXPECT_EQ(is_dirty(path.c_str()), row.dirty_after ? 1 : 0);
    }
    EXPECT_EQ(quota_upd_fast_internal("no-slash.quota", 1, 30), -1);
    EXPECT_EQ(quota_upd_fast_internal(nullptr, 1, 30), -1);
}

// The engine pauses between lock attempts; this program's nanosleep counts the pauses and can
// let go of a lock held on another descriptor during one, so the wait is judged by its outcome
// (taken or given up), never by the clock.
int pauses = -1, release_at = 0, holder = -1;

}  // namespace

extern "C" int nanosleep(const timespec *req, timespec *rem) {
    if (pauses >= 0 && ++pauses == release_at) ::flock(holder, LOCK_UN);
    const int err = ::clock_nanosleep(CLOCK_MONOTONIC, 0, req, rem);
    return err ? (errno = err, -1) : 0;
}

namespace {

TEST(QuotaFastUpdate, GivesUpALockHeldElsewhereAfterWaitOver10PlusOnePauses) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    const struct {
        int wait, released_in_pause, result, pauses;
    } rows[] = {
        {30, 0, -1, 4}, {-1, 0, -1, 1},  {0, 0, -1, 1}, {9, 0, -1, 1},
        {10, 0, -1, 2}, {30, 3, 105, 3},  // freed in the last pause followed by an attempt: taken
        {30, 4, -1, 4}};                  // freed in the pause it gives up after
    TempDir dir;
    const string path = dir.write("sound.quota", "100.2");
    for (const auto &row : rows) {
        SCOPED_TRACE("wait " + std::to_string(row.wait) + " freed in pause " +
                     std::to_string(row.released_in_pause));
        holder = ::open(path.c_str(), O_RDWR);
        ASSERT_EQ(::flock(holder, LOCK_EX), 0);
        pauses = 0, release_at = row.released_in_pause;
        EXPECT_EQ(quota_upd_fast_internal(path.c_str(), 5, row.wait), row.result);
        EXPECT_EQ(pauses, row.pauses);
        pauses = -1;
        ::close(holder);
        EXPECT_EQ(read(path), row.result < 0 ? "100.2" : "105.3");
        EXPECT_EQ(is_dirty(path.c_str()), row.result < 0 ? 1 : 0);
        unset_dirty(path.c_str());
        dir.write("sound.quota", "100.2");
    }
}

}  // namespace
