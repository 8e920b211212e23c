// Quota store, disk measurement and the fast update on real files in a scratch directory; no
// database is involved.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quota.h"
#include "qxtest.hpp"

namespace fs = std::filesystem;

namespace {

class ScratchDir {
  public:
    ScratchDir() {
        char tmpl[] = "/tmp/quota_store_XXXXXX";
        const char *made = ::mkdtemp(tmpl);
        path_ = made ? made : "";
    }
    ~ScratchDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

void put(const std::string &path, const std::string &bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

std::optional<std::string> content(const std::string &path) {
    return qxtest::read_file(path);
}

// Files are handed to asterisk:asterisk; without that account the engine refuses to create any.
bool have_asterisk() {
    return ::getpwnam("asterisk") != nullptr && ::getgrnam("asterisk");
}

struct CFree {
    void operator()(char *p) const { std::free(p); }
};
using CPtr = std::unique_ptr<char, CFree>;

// ---- records --------------------------------------------------------------------------------

TEST(QuotaRecord, ReadsValueBeforeFirstDotAndRevisionAfterIt) {
    struct Row {
        std::string file;
        int rc;
        long long value;
        int revision;
    };
    const Row rows[] = {
        {"1234.7", 0, 1234, 7},
        {"512.3", 0, 512, 3},
        {"-5.2", 0, -5, 2},
        {"12.3.4", 0, 12, 3},
        {"7.", 0, 7, 0},
        {".4", 0, 0, 4},
        {"1234", -1, 0, 0},
        {"", -1, 0, 0},
        {"abc", -1, 0, 0},
        // Only the first 31 bytes count.
        {std::string(27, '0') + "42.9", 0, 42, 9},
        {std::string(28, '0') + "42.9", 0, 42, 0},
        {std::string(29, '0') + "42.9", -1, 0, 0},
    };
    ScratchDir dir;
    for (const Row &row : rows) {
        SCOPED_TRACE("file \"" + row.file + "\"");
        put(dir / "q", row.file);
        int fd = ::open((dir / "q").c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
        long long value = 777;
        int revision = 888;
        EXPECT_EQ(quota_read_internal(fd, &value, &revision), row.rc);
        EXPECT_EQ(value, row.rc == 0 ? row.value : 777) << "a failed read leaves outputs alone";
        EXPECT_EQ(revision, row.rc == 0 ? row.revision : 888);

        ::lseek(fd, 0, SEEK_SET);
        long long value_only = 777;
        EXPECT_EQ(quota_read_internal(fd, &value_only, nullptr), row.rc);
        EXPECT_EQ(quota_read_internal(fd, nullptr, &revision), -1);
        ::close(fd);
    }
}

TEST(QuotaRecord, WriteReplacesTheWholeFile) {
    struct Row {
        std::string before;
        long long value;
        int revision;
        int rc;
        std::string after;
    };
    const Row rows[] = {
        {"", 0, 1, 0, "0.1"},
        {"123456789.5", 0, 1, 0, "0.1"},
        {"1.1", 1234567, 12, 0, "1234567.12"},
        {"9.9", -1, -1, 0, "-1.-1"},
        {"9.9", LLONG_MAX, INT_MAX, 0, "9223372036854775807.2147483647"},
        // 32 characters do not fit a record: the file is left invalid, not stale.
        {"9.9", LLONG_MIN, INT_MIN, -1, ""},
    };
    ScratchDir dir;
    for (const Row &row : rows) {
        SCOPED_TRACE("write " + std::to_string(row.value) + "." + std::to_string(row.revision));
        put(dir / "q", row.before);
        int fd = ::open((dir / "q").c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(quota_write_internal(fd, row.value, row.revision), row.rc);
        ::close(fd);
        EXPECT_EQ(content(dir / "q"), row.after);
    }
}

// ---- paths ----------------------------------------------------------------------------------

// A caller may hand in a descriptor opened for appending; the file must still end up holding
// exactly the new record.
struct WriteRow {
    const char *label;
    int flags;
    const char *before;
    long long value;
    int revision;
    const char *after;
};

TEST(QuotaRecord, WriteReplacesTheWholeContentWhateverTheOpenFlags) {
    char tmpl[] = "/tmp/quota_record_XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const WriteRow rows[] = {
        {"read-write", O_RDWR, "1234.7", 5, 0, "5.0"},
        {"read-write, appending", O_RDWR | O_APPEND, "1234.7", 5, 0, "5.0"},
        {"write-only, appending", O_WRONLY | O_APPEND, "98765.12", 42, 3, "42.3"},
        {"appending over a shorter record", O_RDWR | O_APPEND, "1.0", 123456, 9, "123456.9"},
    };
    for (const WriteRow &row : rows) {
        SCOPED_TRACE(row.label);
        const std::string path = dir + "/fax.quota";
        {
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            out << row.before;
        }
        const int fd = ::open(path.c_str(), row.flags);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(quota_write_internal(fd, row.value, row.revision), 0);
        ::close(fd);
        EXPECT_EQ(qxtest::read_file(path).value_or("<missing>"), row.after);
    }
    std::error_code ec;
    fs::remove_all(dir, ec);
}

TEST(QuotaPaths, FollowTheAccountTree) {
    char *probe = nullptr;
    ASSERT_EQ(make_qpaths(5, 12, 0, 0, &probe, nullptr, nullptr), 0);
    CPtr probe_owner(probe);
    std::string root(probe);
    ASSERT_GT(root.size(), 3u);
    ASSERT_EQ(root.substr(root.size() - 3), "/12");
    root.resize(root.size() - 3);

    static char untouched[] = "untouched";
    struct Row {
        int kind, reseller, client, owner;
        int rc;
        const char *reseller_path, *client_path, *owner_path;  // below the root; null: untouched
    };
    const Row rows[] = {
        {0, 12, 34, 56, 0, "/12/fax.quota", "/12/34/fax.quota", "/12/34/56/fax.quota"},
        {1, 12, 34, 56, 0, "/12/sound.quota", "/12/34/sound.quota", "/12/34/56/sound.quota"},
        {2, 12, 34, 0, 0, "/12/recording.quota", "/12/34/recording.quota", nullptr},
        {3, 7, 0, 56, 0, "/7/voicemail.quota", nullptr, nullptr},
        {4, 12, 34, 56, 0, "/12/music.quota", "/12/34/music.quota", "/12/34/56/music.quota"},
        {5, 12, 34, 0, 0, "/12", "/12/34", nullptr},
        {5, 12, 34, 56, 0, "/12", "/12/34", "/12/34/56"},
        {0, 0, 34, 56, -1, nullptr, nullptr, nullptr},
        {0, -3, 34, 56, -1, nullptr, nullptr, nullptr},
        {6, 12, 34, 56, -1, nullptr, nullptr, nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("kind " + std::to_string(row.kind) + " ids " + std::to_string(row.reseller) +
                     "/" + std::to_string(row.client) + "/" + std::to_string(row.owner));
        char *r = untouched, *c = untouched, *o = untouched;
        EXPECT_EQ(make_qpaths(row.kind, row.reseller, row.client, row.owner, &r, &c, &o), row.rc);
        for (auto [got, want] : {std::pair{r, row.reseller_path}, std::pair{c, row.client_path},
                                 std::pair{o, row.owner_path}}) {
            if (want) {
                EXPECT_EQ(got, root + want);
            } else {
                EXPECT_EQ(got, untouched);
            }
            if (got != untouched) std::free(got);
        }
    }
    // Only the outputs asked for are built.
    char *c = untouched;
    EXPECT_EQ(make_qpaths(0, 12, 34, 56, nullptr, &c, nullptr), 0);
    EXPECT_EQ(std::string(c), root + "/12/34/fax.quota");
    std::free(c);
}

TEST(QuotaPaths, StrAppendAddsOneComponent) {
    struct Row {
        const char *start;
        int number;
        const char *text;
        int flag;
        bool returns_path;
        const char *after;
    };
    const Row rows[] = {
        {"a", 42, nullptr, 0, true, "a/42"}, {"a/", 7, nullptr, 0, true, "a/7"},
        {"", -3, nullptr, 0, true, "/-3"},   {"a", 0, "0042", 0, true, "a/42"},
        {"a", 0, "0042", 1, true, "a/0042"}, {"a", 0, "1020", 0, true, "a/1020"},
        {"a", 0, "0000", 0, true, "a/"},     {"a", 0, nullptr, 0, false, "a/"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.start) + " + " + std::to_string(row.number) + "/" +
                     (row.text ? row.text : "(null)") + "/" + std::to_string(row.flag));
        char *path = ::strdup(row.start);
        char *got = row.number ? quota_str_append(&path, row.number)
                               : quota_str_append(&path, 0, row.text, row.flag);
        EXPECT_EQ(got != nullptr, row.returns_path);
        if (got) {
            EXPECT_EQ(got, path);
        }
        EXPECT_STREQ(path, row.after);
        std::free(path);
    }
    EXPECT_EQ(quota_str_append(nullptr, 5), nullptr);
}

// ---- directories and dirty marks ------------------------------------------------------------

class UmaskZero {
  public:
    UmaskZero() : old_(::umask(0)) {}
    ~UmaskZero() { ::umask(old_); }

  private:
    mode_t old_;
};

TEST(QuotaDirs, MakeDirsCreatesEveryMissingComponent) {
    ScratchDir dir;
    UmaskZero umask_zero;
    put(dir / "file", "x");
    ASSERT_EQ(::mkdir((dir / "old").c_str(), 0700), 0);
    uid_t uid = ::getuid();
    gid_t gid = ::getgid();
    if (const passwd *pw = ::getpwnam("asterisk")) uid = pw->pw_uid;
    if (const group *gr = ::getgrnam("asterisk")) gid = gr->gr_gid;

    struct Row {
        std::string path;
        int rc;
        int err;
        std::vector<std::string> created;  // below the scratch dir, mode 0770
    };
    const Row rows[] = {
        {"a/b/c", 0, 0, {"a", "a/b", "a/b/c"}},
        {"t/u/", 0, 0, {"t", "t/u"}},
        {"a/b/c", 0, 0, {}},
        {"old/new", 0, 0, {"old/new"}},
        {"file/sub", -1, ENOTDIR, {}},
        {"file", -1, ENOTDIR, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.path);
        errno = 12345;
        EXPECT_EQ(make_dirs((dir / row.path).c_str(), 0770, uid, gid), row.rc);
        EXPECT_EQ(errno, row.err);
        for (const std::string &made : row.created) {
            struct stat st;
            ASSERT_EQ(::stat((dir / made).c_str(), &st), 0) << made;
            EXPECT_TRUE(S_ISDIR(st.st_mode));
            EXPECT_EQ(st.st_mode & 07777, 0770u) << made;
            if (::getuid() == 0) {
                EXPECT_EQ(st.st_uid, uid);
                EXPECT_EQ(st.st_gid, gid);
            }
        }
    }
    struct stat st;
    ASSERT_EQ(::stat((dir / "old").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u) << "existing directories are left alone";

    errno = 0;
    EXPECT_EQ(make_dirs(nullptr, 0770, uid, gid), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(QuotaDirs, DirtyMarkLifecycle) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    ScratchDir dir;
    const std::string quota = dir / "fax.quota";
    put(quota, "5.0");
    EXPECT_EQ(is_dirty(quota.c_str()), 0);
    EXPECT_EQ(set_dirty(quota.c_str()), 0);
    EXPECT_EQ(is_dirty(quota.c_str()), 1);
    EXPECT_EQ(content(quota + ".dirty"), "") << "a mark is an empty file";
    EXPECT_EQ(content(quota), "5.0") << "marking never touches the quota file";
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

// ---- measurement ----------------------------------------------------------------------------

TEST(QuotaMeasure, SumsApparentSizesOfRegularFiles) {
    ScratchDir dir;
    // plain: 100 + 50 at the top, 10 one level down.
    qxtest::write_file(dir / "plain/a", 100);
    qxtest::write_file(dir / "plain/b", 50);
    qxtest::write_file(dir / "plain/sub/c", 10);
    ASSERT_EQ(::mkdir((dir / "plain/empty").c_str(), 0700), 0);
    // links: followed to files and directories; dangling ones and loops are skipped.
    qxtest::write_file(dir / "outside/f", 7);
    qxtest::write_file(dir / "outside/d/g", 5);
    qxtest::write_file(dir / "links/.hidden", 3);
    fs::create_symlink(dir / "outside/f", dir / "links/file_link");
    fs::create_directory_symlink(dir / "outside/d", dir / "links/dir_link");
    fs::create_symlink(dir / "nowhere", dir / "links/dangling");
    fs::create_directory_symlink(dir / "links", dir / "links/loop");
    ASSERT_EQ(::mkfifo((dir / "links/fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mkdir((dir / "empty").c_str(), 0700), 0);

    struct Row {
        std::string path;
        int recurse;
        long long start;
        int rc;
        long long total;
        long long dirsize;
    };
    const Row rows[] = {
        {"plain", 1, 0, 0, 160, 159},      {"plain", 0, 0, 0, 150, 159},
        {"plain/", 1, 1000, 0, 1160, 159}, {"links", 1, 0, 0, 15, 14},
        {"links", 0, 0, 0, 10, 14},        {"empty", 1, 0, 0, 0, -1},
        {"missing", 1, 42, -1, 42, -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.path + (row.recurse ? " recursive" : " flat"));
        const std::string path = dir / row.path;
        long long total = row.start;
        EXPECT_EQ(compute_quota(path.c_str(), &total, row.recurse), row.rc);
        EXPECT_EQ(total, row.total);

        char *buffer = ::strdup(path.c_str());
        total = row.start;
        EXPECT_EQ(compute_quota_dir(&buffer, &total, row.recurse), row.rc);
        EXPECT_EQ(total, row.total);
        EXPECT_EQ(std::string(buffer), path) << "the walk hands its path buffer back unchanged";
        std::free(buffer);

        EXPECT_EQ(quota_get_dirsize(path.c_str()), row.dirsize);
    }
}

// ---- fast update ----------------------------------------------------------------------------

TEST(QuotaFastUpdate, AppliesDeltaOrMarksFileDirty) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    struct Row {
        std::optional<std::string> before;  // nullopt: no file
        bool dirty_before;
        long long delta;
        int result;
        std::optional<std::string> after;
        bool dirty_after;
    };
    const Row rows[] = {
        {"200.4", false, -500, 0, "0.5", false},
        {"200.4", false, 300, 500, "500.5", false},
        {"7.3", false, 0, 7, "7.3", false},
        {std::nullopt, false, 0, 0, "0.1", false},
        {std::nullopt, false, 42, 42, "42.1", false},
        {std::nullopt, false, -42, 0, "0.1", false},
        {"abc", false, 5, -1, "abc", true},
        {"", false, 5, -1, "", true},
        {"-1.3", false, 5, -1, "-1.3", true},
        {"5.-1", false, 5, 5, "5.-1", true},
        {"9.2", true, 1, -1, "9.2", true},
        {std::nullopt, true, 1, -1, std::nullopt, true},
        // The caller sees the value through 32 bits.
        {"4294967396.0", false, 0, 100, "4294967396.0", false},
        {"2147483647.0", false, 1, INT_MIN, "2147483648.1", false},
    };
    int n = 0;
    for (const Row &row : rows) {
        ScratchDir dir;
        const std::string path = dir / ("r" + std::to_string(n++) + "/fax.quota");
        SCOPED_TRACE((row.before ? "\"" + *row.before + "\"" : std::string("missing")) +
                     (row.dirty_before ? " dirty" : "") + " delta " + std::to_string(row.delta));
        if (row.before) put(path, *row.before);
        if (row.dirty_before) put(path + ".dirty", "");
        EXPECT_EQ(quota_upd_fast_internal(path.c_str(), row.delta, 30), row.result);
        EXPECT_EQ(content(path), row.after);
        EXPECT_EQ(is_dirty(path.c_str()), row.dirty_after ? 1 : 0);
    }
    EXPECT_EQ(quota_upd_fast_internal("no-slash.quota", 1, 30), -1);
    EXPECT_EQ(quota_upd_fast_internal(nullptr, 1, 30), -1);
}

// Holds an exclusive lock on a file from another process until destroyed.
class ForeignLock {
  public:
    explicit ForeignLock(const std::string &path) {
        int ready[2], release[2];
        if (::pipe(ready) != 0 || ::pipe(release) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            ::close(release[1]);
            int fd = ::open(path.c_str(), O_RDWR);
            char byte = fd >= 0 && ::flock(fd, LOCK_EX) == 0 ? 'y' : 'n';
            if (::write(ready[1], &byte, 1) != 1) ::_exit(2);
            ::read(release[0], &byte, 1);  // until the parent closes its end
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(release[0]);
        char byte = 'n';
        locked_ = pid_ > 0 && ::read(ready[0], &byte, 1) == 1 && byte == 'y';
        ::close(ready[0]);
        release_ = release[1];
    }
    ~ForeignLock() {
        if (release_ >= 0) ::close(release_);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    ForeignLock(const ForeignLock &) = delete;
    ForeignLock &operator=(const ForeignLock &) = delete;
    bool locked() const { return locked_; }

  private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool locked_ = false;
};

TEST(QuotaFastUpdate, GivesUpOnALockHeldElsewhereAfterItsWait) {
    if (!have_asterisk()) GTEST_SKIP() << "needs the asterisk user and group";
    struct Row {
        int wait;
        int attempts;  // each failed attempt is followed by a 10 ms pause
    };
    const Row rows[] = {{30, 4}, {-1, 1}, {0, 1}, {9, 1}, {10, 2}};
    ScratchDir dir;
    const std::string path = dir / "sound.quota";
    put(path, "100.2");
    for (const Row &row : rows) {
        SCOPED_TRACE("wait " + std::to_string(row.wait));
        ForeignLock lock(path);
        ASSERT_TRUE(lock.locked());
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(quota_upd_fast_internal(path.c_str(), 5, row.wait), -1);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
        EXPECT_GE(ms, row.attempts * 10);
        EXPECT_LT(ms, row.attempts * 10 + 500);
        EXPECT_EQ(content(path), "100.2");
        EXPECT_EQ(is_dirty(path.c_str()), 1);
        unset_dirty(path.c_str());
    }
    // Once the other process is gone the same call goes through.
    EXPECT_EQ(quota_upd_fast_internal(path.c_str(), 5, 30), 105);
    EXPECT_EQ(content(path), "105.3");
}

}  // namespace
