// Quota store, disk measurement and the fast update on real files, without a database.
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>

#include <ctime>

#include "quota.h"
#include "unit.hpp"

// Files are handed to asterisk:asterisk; without that account the engine refuses to create any.
bool have_asterisk() {
    return ::getpwnam("asterisk") != nullptr && ::getgrnam("asterisk");
}

// Only the first 31 bytes of a record count; a failed read leaves the outputs alone.
TEST(QuotaRecord, ReadsValueBeforeFirstDotAndRevisionAfterIt) {
    const string z27(27, '0');
    const std::tuple<string, int, long long, int> rows[] = {
        {"1234.7", 0, 1234, 7},    {"-5.2", 0, -5, 2},
        {"12.3.4", 0, 12, 3},      {"7.", 0, 7, 0},
        {".4", 0, 0, 4},           {"1234", -1, 777, 888},
        {"", -1, 777, 888},        {z27 + "42.9", 0, 42, 9},
        {z27 + "042.9", 0, 42, 0}, {z27 + "0042.9", -1, 777, 888}};
    TempDir dir;
    for (const auto &[file, rc, want_value, want_revision] : rows) {
        const int fd = ::open(dir.write("q", file).c_str(), O_RDONLY);
        long long value = 777;
        int revision = 888;
        EXPECT_EQ(quota_read_internal(fd, &value, &revision), rc) << file;
        EXPECT_EQ(std::pair(value, revision), std::pair(want_value, want_revision)) << file;
        ::lseek(fd, 0, SEEK_SET);
        EXPECT_EQ(quota_read_internal(fd, &value, nullptr), rc);
        EXPECT_EQ(quota_read_internal(fd, nullptr, &revision), -1);
        ::close(fd);
    }
}

// A caller may hand in a descriptor opened for appending; the file must still end up holding
// exactly the new record. 32 characters do not fit a record: the file is left invalid, not stale.
TEST(QuotaRecord, WriteReplacesTheWholeFileWhateverTheOpenFlags) {
    const std::tuple<int, string, long long, int, int, string> rows[] = {
        {O_RDWR, "123456789.5", 0, 1, 0, "0.1"},
        {O_RDWR, "9.9", -1, -1, 0, "-1.-1"},
        {O_RDWR, "9.9", LLONG_MAX, INT_MAX, 0, "9223372036854775807.2147483647"},
        {O_RDWR, "9.9", LLONG_MIN, INT_MIN, -1, ""},
        {O_RDWR | O_APPEND, "1234.7", 5, 0, 0, "5.0"},
        {O_WRONLY | O_APPEND, "98765.12", 42, 3, 0, "42.3"}};
    TempDir dir;
    for (const auto &[flags, before, value, revision, rc, after] : rows) {
        const int fd = ::open(dir.write("q", before).c_str(), flags);
        EXPECT_EQ(quota_write_internal(fd, value, revision), rc) << after;
        ::close(fd);
        EXPECT_EQ(read(dir / "q"), after);
    }
}

// Paths of the reseller, client and owner levels below the quota root; null: left untouched.
TEST(QuotaPaths, FollowTheAccountTree) {
    static char untouched[] = "untouched";
    using Paths = std::vector<const char *>;
    const std::tuple<int, int, int, int, int, Paths> rows[] = {
        {0, 12, 34, 56, 0, {"/12/fax.quota", "/12/34/fax.quota", "/12/34/56/fax.quota"}},
        {1, 12, 34, 56, 0, {"/12/sound.quota", "/12/34/sound.quota", "/12/34/56/sound.quota"}},
        {2, 12, 34, 0, 0, {"/12/recording.quota", "/12/34/recording.quota", nullptr}},
        {3, 7, 0, 56, 0, {"/7/voicemail.quota", nullptr, nullptr}},
        {4, 12, 34, 56, 0, {"/12/music.quota", "/12/34/music.quota", "/12/34/56/music.quota"}},
        {5, 12, 34, 56, 0, {"/12", "/12/34", "/12/34/56"}},
        {0, 0, 34, 56, -1, {nullptr, nullptr, nullptr}},
        {0, -3, 34, 56, -1, {nullptr, nullptr, nullptr}},
        {6, 12, 34, 56, -1, {nullptr, nullptr, nullptr}}};
    for (const auto &[kind, reseller, client, owner, rc, paths] : rows) {
        char *got[3] = {untouched, untouched, untouched};
        EXPECT_EQ(make_qpaths(kind, reseller, client, owner, &got[0], &got[1], &got[2]), rc);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(got[i], paths[i] ? QX_QUOTA_DIR + string(paths[i]) : string(untouched))
                << "kind " << kind << " reseller " << reseller << " owner " << owner;
            if (got[i] != untouched) std::free(got[i]);
        }
    }
    char *c = untouched;  // only the outputs asked for are built
    EXPECT_EQ(make_qpaths(0, 12, 34, 56, nullptr, &c, nullptr), 0);
    EXPECT_EQ(take(c), QX_QUOTA_DIR "/12/34/fax.quota");
}

// A number, or a text whose leading zeros go unless kept; the return is the path or NULL.
TEST(QuotaPaths, StrAppendAddsOneComponent) {
    const std::tuple<const char *, int, const char *, int, bool, const char *> rows[] = {
        {"a", 42, nullptr, 0, true, "a/42"}, {"a/", 7, nullptr, 0, true, "a/7"},
        {"", -3, nullptr, 0, true, "/-3"},   {"a", 0, "0042", 0, true, "a/42"},
        {"a", 0, "0042", 1, true, "a/0042"}, {"a", 0, "1020", 0, true, "a/1020"},
        {"a", 0, "0000", 0, true, "a/"},     {"a", 0, nullptr, 0, false, "a/"}};
    for (const auto &[start, number, text, keep, returns_path, after] : rows) {
        char *path = ::strdup(start);
        char *got =
            number ? quota_str_append(&path, number) : quota_str_append(&path, 0, text, keep);
        EXPECT_EQ(got, returns_path ? path : nullptr) << after;
        EXPECT_STREQ(path, after);
        std::free(path);
    }
}

// Ownership of the directories the refresh makes is checked by the integration tests.
TEST(QuotaDirs, MakeDirsCreatesEveryMissingComponent) {
    TempDir dir;
    const mode_t old_umask = ::umask(0);
    dir.write("file", "x");
    ASSERT_EQ(::mkdir((dir / "old").c_str(), 0700), 0);
    using Made = std::vector<string>;  // below the scratch dir, mode 0770
    const std::tuple<string, int, int, Made> rows[] = {{"a/b/c", 0, 0, {"a", "a/b", "a/b/c"}},
                                                       {"t/u/", 0, 0, {"t", "t/u"}},
                                                       {"a/b/c", 0, 0, {}},
                                                       {"old/new", 0, 0, {"old/new"}},
                                                       {"file/sub", -1, ENOTDIR, {}},
                                                       {"file", -1, ENOTDIR, {}}};
    for (const auto &[path, rc, err, made] : rows) {
        errno = 12345;
        EXPECT_EQ(make_dirs((dir / path).c_str(), 0770, ::getuid(), ::getgid()), rc) << path;
        EXPECT_EQ(errno, err) << path;
        for (const string &m : made)
            EXPECT_EQ(fs::status(dir / m).permissions(), fs::perms(0770)) << m;
    }
    ::umask(old_umask);
    EXPECT_EQ(fs::status(dir / "old").permissions(), fs::perms(0700)) << "existing dirs kept";
    EXPECT_TRUE(make_dirs(nullptr, 0770, 0, 0) == -1 && errno == EINVAL);
}

// plain: 100 + 50 at the top, 10 one level down. links: followed to files and directories;
// dangling ones, loops and fifos are skipped.
TEST(QuotaMeasure, SumsApparentSizesOfRegularFiles) {
    TempDir dir;
    const std::pair<const char *, int> files[] = {{"plain/a", 100},    {"plain/b", 50},
                                                  {"plain/sub/c", 10}, {"outside/f", 7},
                                                  {"outside/d/g", 5},  {"links/.hidden", 3}};
    for (auto [file, size] : files)
        qxtest::write_file(dir / file, size);
    fs::create_directories(dir / "plain/empty");
    fs::create_directories(dir / "empty");
    fs::create_symlink(dir / "outside/f", dir / "links/file_link");
    fs::create_directory_symlink(dir / "outside/d", dir / "links/dir_link");
    fs::create_symlink(dir / "nowhere", dir / "links/dangling");
    fs::create_directory_symlink(dir / "links", dir / "links/loop");
    ASSERT_EQ(::mkfifo((dir / "links/fifo").c_str(), 0600), 0);
    const std::tuple<string, int, long long, int, long long, long long> rows[] = {
        {"plain", 1, 0, 0, 160, 159},      {"plain", 0, 0, 0, 150, 159},
        {"plain/", 1, 1000, 0, 1160, 159}, {"links", 1, 0, 0, 15, 14},
        {"links", 0, 0, 0, 10, 14},        {"empty", 1, 0, 0, 0, -1},
        {"missing", 1, 42, -1, 42, -1}};
    for (const auto &[rel, recurse, start, rc, want, dirsize] : rows) {
        const string path = dir / rel;
        long long total = start, total_dir = start;
        char *buffer = ::strdup(path.c_str());
        EXPECT_EQ(
            (std::tuple<int, long long, long long>{compute_quota(path.c_str(), &total, recurse),
                                                   total, quota_get_dirsize(path.c_str())}),
            std::tuple(rc, want, dirsize))
            << rel << (recurse ? " recursive" : " flat");
        EXPECT_EQ(compute_quota_dir(&buffer, &total_dir, recurse) == rc && total_dir == want, true);
        EXPECT_EQ(take(buffer), path) << "the walk hands its path buffer back unchanged";
    }
}

// A record it cannot trust is left as it is and marked dirty (the mark: an empty file beside it);
// the caller sees the value through 32 bits.
TEST(QuotaFastUpdate, AppliesDeltaOrMarksFileDirty) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    const std::tuple<Opt, bool, long long, int, Opt, bool> rows[] = {
        {"200.4", false, -500, 0, "0.5", false},
        {"200.4", false, 300, 500, "500.5", false},
        {"7.3", false, 0, 7, "7.3", false},
        {no, false, 0, 0, "0.1", false},
        {no, false, 42, 42, "42.1", false},
        {"", false, 5, -1, "", true},
        {"-1.3", false, 5, -1, "-1.3", true},
        {"5.-1", false, 5, 5, "5.-1", true},
        {"9.2", true, 1, -1, "9.2", true},
        {no, true, 1, -1, no, true},
        {"4294967396.0", false, 0, 100, "4294967396.0", false},
        {"2147483647.0", false, 1, INT_MIN, "2147483648.1", false}};
    for (const auto &[before, dirty_before, delta, result, after, dirty_after] : rows) {
        TempDir dir;
        const string path = dir / "r/fax.quota";
        if (before) dir.write("r/fax.quota", *before);
        if (dirty_before) dir.write("r/fax.quota.dirty", "");
        EXPECT_EQ(quota_upd_fast_internal(path.c_str(), delta, 30), result)
            << before.value_or("missing") << " delta " << delta;
        EXPECT_EQ(read(path), after);
        EXPECT_EQ(read(path + ".dirty"), dirty_after ? Opt("") : no);
        EXPECT_EQ(is_dirty(path.c_str()), dirty_after ? 1 : 0);
        EXPECT_EQ(unset_dirty(path.c_str()), dirty_after ? 0 : -1);
    }
    EXPECT_EQ(quota_upd_fast_internal("no-slash.quota", 1, 30), -1);
    EXPECT_EQ(set_dirty("/nonexistent/dir/fax.quota"), -1);
}

// The engine pauses between lock attempts; this program's nanosleep counts the pauses and can
// let go of a lock held on another descriptor during one, so the wait is judged by its outcome
// (taken or given up), never by the clock.
int pauses = -1, release_at = 0, holder = -1;

extern "C" int nanosleep(const timespec *req, timespec *rem) {
    if (pauses >= 0 && ++pauses == release_at) ::flock(holder, LOCK_UN);
    const int err = ::clock_nanosleep(CLOCK_MONOTONIC, 0, req, rem);
    return err ? (errno = err, -1) : 0;
}

// Freed in the last pause followed by an attempt, the lock is taken; freed in the pause it
// gives up after, it is not.
TEST(QuotaFastUpdate, GivesUpALockHeldElsewhereAfterWaitOver10PlusOnePauses) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    const std::tuple<int, int, int, int> rows[] = {{30, 0, -1, 4}, {-1, 0, -1, 1},  {9, 0, -1, 1},
                                                   {10, 0, -1, 2}, {30, 3, 105, 3}, {30, 4, -1, 4}};
    TempDir dir;
    const string path = dir.write("sound.quota", "100.2");
    for (const auto &[wait, released_in_pause, result, want_pauses] : rows) {
        holder = ::open(path.c_str(), O_RDWR);
        ASSERT_EQ(::flock(holder, LOCK_EX), 0);
        pauses = 0, release_at = released_in_pause;
        EXPECT_EQ(quota_upd_fast_internal(path.c_str(), 5, wait), result) << wait;
        EXPECT_EQ(pauses, want_pauses) << wait << " freed in pause " << released_in_pause;
        pauses = -1;
        ::close(holder);
        EXPECT_EQ(read(path), result < 0 ? "100.2" : "105.3");
        EXPECT_EQ(is_dirty(path.c_str()), result < 0 ? 1 : 0);
        unset_dirty(path.c_str());
        dir.write("sound.quota", "100.2");
    }
}
