// Quota engine: per-account quota files with dirty marks, usage measurement on disk and in the
// database, the bottom-up subtree refresh, reading, and the fast update and verification used by
// the telephony components.
//
// Quota files are shared between processes. Every writer holds an exclusive flock on the quota
// file itself while it rewrites it; the slow refresh blocks for it, the fast update only tries a
// few times and leaves a dirty mark when it cannot keep a file exact, so that the next slow
// refresh recomputes it from the real data.
#include "quota.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <strings.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "quota_refresh.hpp"
#include "sql_util.hpp"
#include "utils.h"
#include "zarn_base.h"
#include "zarn_db_files.h"
#include "zarn_string.h"
#include "zarn_user.h"

namespace {

// ---- names, statements, formats and messages -------------------------------------------------

constexpr char kSrc[] = "../main/quota";
constexpr int kLogChannel = 3;
constexpr int kLogError = 3;
constexpr int kLogDebug = 7;

constexpr char kMysqlErrorFmt[] = "../main/quota:%s:%d -MySQL error: %s\n";
constexpr char kConditionFailedFmt[] = "%s:%d:condition failed\n";
// Faults of the refresh and of the writers. They go out at error priority: a quota value the
// engine could not keep exact is what the telephony side must never trust unknowingly.
constexpr char kNotRefreshedFmt[] =
    "%s:%d:quota of account %s, kind %s not refreshed: %s; old value kept, marked dirty\n";
constexpr char kSubtreeFailedFmt[] =
    "%s:%d:quota of account %s not refreshed: %s; its files keep their old values, marked dirty\n";
constexpr char kFileErrorFmt[] = "%s:%d:cannot %s %s: %s\n";
constexpr char kSettingsErrorFmt[] = "%s:%d:quota settings from %s cannot be used: %s\n";
constexpr char kStrictValueFmt[] = "%s:%d:%s: %s must be yes or no, not \"%s\"\n";
constexpr char kVerifyFmt[] =
    " + quota_verify(target:%d, resid:%d, clid:%d, extid:%d) returned:%d (if >0 it means: "
    "client.id:%d, client.level:%d)\n";

// The blanks of the children statement are part of it, as the database logs show it.
constexpr char kChildrenQuery[] =
    " SELECT client.id, client.level  FROM client WHERE client.parent_client_id = '%s' ";
constexpr char kChildIdsQuery[] =
    "SELECT client.id FROM client WHERE client.parent_client_id = '%s'";
// A refresh worker asks once per account what the sequential walk asks once per child and kind.
constexpr char kChildSumsPart[] =
    "SELECT %d, e.client_id, SUM(er.filesize) FROM %s as er, extension as e, client as c WHERE "
    "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id='%s' GROUP BY e.client_id";
constexpr char kUnionAll[] = " UNION ALL ";

constexpr char kResellerPathFmt[] = "%s/%d/_placeholder_.quota";
constexpr char kClientPathFmt[] = "%s/%d/%d/_placeholder_.quota";
constexpr char kOwnerPathFmt[] = "%s/%d/%d/%d/_placeholder_.quota";
constexpr char kKindFileFmt[] = "%s/%s.quota";
constexpr char kChildFileFmt[] = "%s/%d/%s.quota";
constexpr char kDirtyFmt[] = "%s.dirty";
constexpr char kRecordFmt[] = "%lld.%d";
constexpr char kSoundDirFmt[] = "%s/sounds/.%s";
constexpr char kMusicDirFmt[] = "%s/music/%s";
constexpr char kVoicemailDirFmt[] = "%s/voicemail/%s/%s";
constexpr char kSpoolMediaDirFmt[] = "%s/%s/%s";
constexpr char kLevelFmt[] = "%d";

constexpr char kQuotaDirDirective[] = "QUORVEX_QUOTA_D";
constexpr char kStrictDirective[] = "QUOTA_STRICT_REFRESH";
constexpr char kAstDirsSection[] = "directories";
constexpr char kAstSpoolKey[] = "astspooldir";
constexpr char kAstVarlibKey[] = "astvarlibdir";
constexpr char kOwnerName[] = "asterisk";

constexpr int kKindCount = 5;
constexpr int kKindAll = QUOTA_KIND_ALL;
constexpr std::array<const char *, kKindCount> kKindNames = {"fax", "sound", "recording",
                                                             "voicemail", "music"};
constexpr std::array<const char *, kKindCount> kLimitPrefs = {"fax_storage", "max_sound",
                                                              "max_record", "max_voice", "max_moh"};
// Kinds kept in the database; the others are measured on disk.
constexpr std::array<const char *, kKindCount> kFileTables = {
    "extension_fax_center", nullptr, "extension_recording", "extension_voicemail", nullptr};
constexpr int kKindFax = 0;
constexpr int kKindSound = 1;
constexpr int kKindRecording = 2;
constexpr int kKindVoicemail = 3;
constexpr int kKindMusic = 4;

constexpr int kLevelRoot = 0;
constexpr int kLevelReseller = 10;
constexpr int kLevelClient = 50;
constexpr int kLevelOwner = 100;
constexpr int kLevelTop = 11;           // climbing stops below this level
constexpr int kLevelWithChildren = 99;  // accounts up to this level have child accounts
constexpr long long kLevelFactor = 10000000;

constexpr mode_t kFileMode = 0660;
constexpr mode_t kDirMode = 0770;
constexpr size_t kRecordMax = 31;    // a record never exceeds this many bytes
constexpr int kRevisionLimit = 999;  // fast updates allowed before a refresh recomputes
constexpr int kDefaultWait = 30;     // ms a fast update may wait for a lock
constexpr int kLockStepMs = 10;
constexpr float kLockStepSeconds = 0.01f;
constexpr unsigned kIdWidth = 4;
constexpr int kMaxClimb = 16;  // a healthy tree is four levels deep

// ---- small helpers ---------------------------------------------------------------------------

template <typename R, typename F>
R guarded(R fallback, F &&body) noexcept {
    try {
        return std::forward<F>(body)();
    } catch (...) {
        return fallback;
    }
}

std::optional<std::string> copy_or_none(const char *s) {
    if (!s) return std::nullopt;
    return std::string(s);
}

bool valid_kind(int kind) {
    return kind >= 0 && kind < kKindCount;
}

bool running_as_root() {
    return ::getuid() == 0;
}

// atoll/atoi as glibc defines them (saturating instead of undefined on overflow).
long long to_ll(const char *s) {
    return std::strtoll(s, nullptr, 10);
}
int to_int(const char *s) {
    return static_cast<int>(std::strtol(s, nullptr, 10));
}

long long saturating_add(long long a, long long b) {
    long long r;
    if (__builtin_add_overflow(a, b, &r)) return b > 0 ? LLONG_MAX : LLONG_MIN;
    return r;
}

void free_string_array(char **array, size_t count) {
    if (!array) return;
    for (size_t i = 0; i < count; ++i)
        std::free(array[i]);
    std::free(array);
}

// ---- settings --------------------------------------------------------------------------------

struct Settings {
    std::string quota_root;
    std::string spool_dir;
    std::string varlib_dir;
    // False when paths.conf names a quota root that cannot be used: the engine then refuses to
    // touch any quota file rather than guess where they live.
    bool usable = true;
    // With it, a refresh that could not measure or write something reports a failure, so that
    // a nightly job fails loudly instead of leaving only log lines and dirty marks.
    bool strict = false;
};

Settings g_settings;
std::once_flag g_settings_once;

bool strict_setting() {
    char *text = nullptr;
    const fr_conf_entry table[] = {{kStrictDirective, FR_CONF_STRING, &text}};
    parseconfig(QX_LOCAL_CONF, table, 1);
    qx::CStr owner(text);
    if (!text) return false;
    for (const char *yes : {"yes", "true", "on", "1"})
        if (strcasecmp(text, yes) == 0) return true;
    for (const char *no : {"no", "false", "off", "0"})
        if (strcasecmp(text, no) == 0) return false;
    FR_LOG(kSrc, kLogChannel, kLogError, kStrictValueFmt, kSrc, __LINE__, QX_LOCAL_CONF,
           kStrictDirective, text);
    return false;
}

void load_settings() {
    char *quota_dir = nullptr;
    const fr_conf_entry table[] = {{kQuotaDirDirective, FR_CONF_STRING, &quota_dir}};
    // A rejected QUORVEX_QUOTA_D line (too long, malformed) must not fall back to the default
    // root: the files would then be written where nobody reads them.
    const int rejected = parseconfig(QX_PATHS_CONF, table, 1);
    qx::CStr quota_dir_owner(quota_dir);
    g_settings.strict = strict_setting();
    if (rejected > 0) {
        FR_LOG(kSrc, kLogChannel, kLogError, kSettingsErrorFmt, kSrc, __LINE__, QX_PATHS_CONF,
               "a QUORVEX_QUOTA_D line was rejected");
        g_settings.usable = false;
    } else if (quota_dir && std::strlen(quota_dir) >= PATH_MAX) {
        FR_LOG(kSrc, kLogChannel, kLogError, kSettingsErrorFmt, kSrc, __LINE__, QX_PATHS_CONF,
               "QUORVEX_QUOTA_D is longer than a path may be");
        g_settings.usable = false;
    }

    const char *keys[] = {kAstSpoolKey, kAstVarlibKey, nullptr};
    safestr_t *values[2] = {nullptr, nullptr};
    get_astconf_section_values(QX_ASTERISK_CONF, kAstDirsSection, keys, values);
    auto take = [](safestr_t *value, const char *fallback) {
        std::string out = value ? safestr_cstr(value) : fallback;
        safestr_free(value);
        return out;
    };
    // Take both values first so that neither leaks if the other throws.
    std::string spool = take(values[0], QX_AST_SPOOL_DIR);
    std::string varlib = take(values[1], QX_AST_VARLIB_DIR);

    g_settings.quota_root = quota_dir && *quota_dir ? quota_dir : QX_QUOTA_DIR;
    g_settings.spool_dir = spool.empty() ? QX_AST_SPOOL_DIR : std::move(spool);
    g_settings.varlib_dir = varlib.empty() ? QX_AST_VARLIB_DIR : std::move(varlib);
}

// Loaded once per process; the telephony side calls the engine from several threads.
const Settings &settings() {
    std::call_once(g_settings_once, load_settings);
    return g_settings;
}

// ---- owner of created files ------------------------------------------------------------------

// 0 means "not looked up yet": asterisk is never root on a node.
std::atomic<uid_t> g_owner_uid{0};
std::atomic<gid_t> g_owner_gid{0};

bool owner_ids(uid_t &uid, gid_t &gid) {
    uid = g_owner_uid.load(std::memory_order_relaxed);
    gid = g_owner_gid.load(std::memory_order_relaxed);
    if (uid != 0 && gid != 0) return true;
    if (get_ids(kOwnerName, kOwnerName, &uid, &gid) != 0) return false;
    g_owner_uid.store(uid, std::memory_order_relaxed);
    g_owner_gid.store(gid, std::memory_order_relaxed);
    return true;
}

// A failed chown of a quota file or mark is tolerated: the file still holds the right value.
void give_to_owner(int fd) {
    if (!running_as_root()) return;
    uid_t uid;
    gid_t gid;
    if (owner_ids(uid, gid) && ::fchown(fd, uid, gid) != 0) {
        FR_LOG(kSrc, kLogChannel, kLogDebug, "%s:%d:chown failed: %s\n", kSrc, __LINE__,
               std::strerror(errno));
    }
}

// ---- paths -----------------------------------------------------------------------------------

std::string kind_path(std::string path, int kind) {
    size_t slash = path.rfind('/');
    if (kind == kKindAll) {
        path.resize(slash);
    } else {
        path.resize(slash + 1);
        path += kKindNames[kind];
        path += ".quota";
    }
    return path;
}

// Every quota path goes through these; with unusable settings they are empty, which every
// caller already treats as "no path".
std::string reseller_qpath(int kind, int reseller) {
    if (!settings().usable) return {};
    return kind_path(qx::format(kResellerPathFmt, settings().quota_root.c_str(), reseller), kind);
}
std::string client_qpath(int kind, int reseller, int client) {
    if (!settings().usable) return {};
    return kind_path(qx::format(kClientPathFmt, settings().quota_root.c_str(), reseller, client),
                     kind);
}
std::string owner_qpath(int kind, int reseller, int client, int owner) {
    if (!settings().usable) return {};
    return kind_path(
        qx::format(kOwnerPathFmt, settings().quota_root.c_str(), reseller, client, owner), kind);
}

std::string kind_file(const std::string &dir, int kind) {
    return qx::format(kKindFileFmt, dir.c_str(), kKindNames[kind]);
}

std::string dirty_mark(const char *path) {
    return qx::format(kDirtyFmt, path);
}

// Appends one path component: the number, or for 0 the text (without its leading zeros unless
// keep_zeros). Ids arrive zero-padded from some callers; directories never are.
void append_component(std::string &path, int number, const char *text, bool keep_zeros) {
    if (path.empty() || path.back() != '/') path.push_back('/');
    if (number != 0) {
        path += std::to_string(number);
        return;
    }
    if (!text) return;
    if (!keep_zeros) {
        while (*text == '0')
            ++text;
    }
    path += text;
}

// ---- records ---------------------------------------------------------------------------------

// How a record is read. A caller's descriptor may be anything, so the public reader reads on
// until end of file. The engine reads quota files it opened itself, which are regular files: there
// a short read is the end of the file. A reader holding the file's lock needs one read (kOnce); a
// reader without it needs two that agree (kStable), because a read on ext4 takes no inode lock and
// can copy the page while a writer's pwrite is halfway through it, and such a mix of two records
// parses as a value nobody wrote.
enum class ReadMode { kEof, kOnce, kStable };

// Bounds the rereads of a record that keeps changing under an unlocked reader; each writer holds
// its lock for microseconds, so agreement within a few tries is the rule.
constexpr int kStableReads = 16;

ssize_t read_all(int fd, char *buf, ReadMode mode) {
    size_t got = 0;
    while (got < kRecordMax) {
        ssize_t n = mode == ReadMode::kEof ? ::read(fd, buf + got, kRecordMax - got)
                                           : ::pread(fd, buf + got, kRecordMax - got, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
        if (mode != ReadMode::kEof) break;
    }
    return static_cast<ssize_t>(got);
}

// The record's bytes as two consecutive reads agree on them, or -1 (EAGAIN when they never did).
ssize_t read_stable(int fd, char *buf) {
    char again[kRecordMax];
    ssize_t got = read_all(fd, buf, ReadMode::kStable);
    for (int i = 0; got >= 0 && i < kStableReads; ++i) {
        const ssize_t next = read_all(fd, again, ReadMode::kStable);
        if (next < 0) return -1;
        if (next == got && std::memcmp(buf, again, static_cast<size_t>(got)) == 0) return got;
        std::memcpy(buf, again, static_cast<size_t>(next));
        got = next;
    }
    if (got >= 0) errno = EAGAIN;
    return -1;
}

int read_record(int fd, long long *value, int *revision, ReadMode mode) {
    if (!value) return -1;
    char buf[kRecordMax + 1];
    const ssize_t read = mode == ReadMode::kStable ? read_stable(fd, buf) : read_all(fd, buf, mode);
    if (read < 0) return -1;
    const size_t got = static_cast<size_t>(read);
    buf[got] = '\0';
    char *dot = std::strchr(buf, '.');
    if (!dot) return -1;
    *dot = '\0';
    // atoll would clamp a value beyond 64 bits to a plausible-looking maximum (and atoi wrap a
    // revision into range): such a record is damaged, not large.
    errno = 0;
    const long long parsed = std::strtoll(buf, nullptr, 10);
    if (errno == ERANGE) return -1;
    if (revision) {
        const long rev = std::strtol(dot + 1, nullptr, 10);
        if (errno == ERANGE || rev < INT_MIN || rev > INT_MAX) return -1;
        *revision = static_cast<int>(rev);
    }
    *value = parsed;
    return 0;
}

// Writes the record over the old one and then cuts the file to its length. Truncating to zero
// first would make ext4 start writeback at close (costly on every fast update) and would let an
// unlocked reader see an empty file; this way a reader always finds the new value before the
// first '.'. Writers hold the file's lock, so the end state is the same. old_size: the file's
// length as seen under that lock, when known; a record at least as long needs no cut, and a cut
// costs a journal transaction on ext4 even when it changes nothing. Returns the record's length,
// or -1.
int write_record(int fd, long long value, int revision, off_t old_size = -1) {
    char buf[kRecordMax + 1];
    int len = std::snprintf(buf, sizeof buf, kRecordFmt, value, revision);
    if (len < 1 || static_cast<size_t>(len) > kRecordMax) {
        // A record that cannot be formatted leaves an empty (invalid) file, never the old value.
        ::lseek(fd, 0, SEEK_SET);
        int ignored = ::ftruncate(fd, 0);
        (void)ignored;
        return -1;
    }
    size_t done = 0;
    const size_t total = static_cast<size_t>(len);
    while (done < total) {
        ssize_t n = ::pwrite(fd, buf + done, total - done, static_cast<off_t>(done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {  // no progress on a regular file: give up rather than spin
            errno = ENOSPC;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    const bool longer_before = old_size < 0 || old_size > static_cast<off_t>(total);
    if (longer_before && ::ftruncate(fd, static_cast<off_t>(total)) != 0) return -1;
    return static_cast<int>(total);
}

int write_record_emptying_first(int fd, long long value, int revision) {
    if (::lseek(fd, 0, SEEK_SET) < 0 || ::ftruncate(fd, 0) != 0) return -1;
    char buf[kRecordMax + 1];
    int len = std::snprintf(buf, sizeof buf, kRecordFmt, value, revision);
    if (len < 1 || static_cast<size_t>(len) > kRecordMax) return -1;
    for (size_t done = 0; done < static_cast<size_t>(len);) {
        ssize_t n = ::write(fd, buf + done, static_cast<size_t>(len) - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = ENOSPC;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

// Opens a quota file or dirty mark without blocking, and only when it is a regular file: a FIFO
// or a device where a record belongs must not hang a refresh or a caller about to store a
// voicemail. Anything else fails with EINVAL, which open itself never gives for these flags.
// at: the directory a relative path starts from.
qx::UniqueFd open_regular(const char *path, int flags, mode_t mode = 0, int at = AT_FDCWD) {
    qx::UniqueFd fd(::openat(at, path, flags | O_NONBLOCK | O_CLOEXEC, mode));
    if (!fd) return fd;
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) return qx::UniqueFd();
    if (!S_ISREG(st.st_mode)) {
        fd.reset();
        errno = EINVAL;
    }
    return fd;
}

const char *error_text(int err) {
    return err == EINVAL ? "not a regular file" : std::strerror(err);
}

void log_file_error(int line, const char *action, const std::string &path, int err) {
    FR_LOG(kSrc, kLogChannel, kLogError, kFileErrorFmt, kSrc, line, action, path.c_str(),
           error_text(err));
}

// Opens an existing quota file read-write or creates it (0660, given to asterisk). created
// tells the caller that the file holds no record yet.
qx::UniqueFd open_quota_file(const char *path, bool &created, int at = AT_FDCWD) {
    created = false;
    qx::UniqueFd fd = open_regular(path, O_RDWR, 0, at);
    if (fd || errno != ENOENT) return fd;
    fd.reset(::openat(at, path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (fd) {
        created = true;
        give_to_owner(fd.get());
        return fd;
    }
    // Another process created it in between: it is an existing file now.
    if (errno == EEXIST) fd = open_regular(path, O_RDWR, 0, at);
    return fd;
}

int lock_blocking(int fd) {
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) return -1;
    }
    return 0;
}

// ---- directories -----------------------------------------------------------------------------

// One path component: exists as a directory, is created, or stops the walk with errno.
int ensure_dir(const char *path, mode_t mode, uid_t uid, gid_t gid) {
    struct stat st;
    if (::stat(path, &st) == 0) {
        if (S_ISDIR(st.st_mode)) return 0;
        errno = ENOTDIR;
        return -1;
    }
    if (::mkdir(path, mode) != 0) {
        // Several processes create the same account directories; losing that race is fine.
        int err = errno;
        if (err == EEXIST && ::stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return 0;
        errno = err;
        return -1;
    }
    if (running_as_root() && ::chown(path, uid, gid) != 0) return -1;
    return 0;
}

int create_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid) {
    // Account directories exist on every refresh but the first: when the whole path resolves to
    // a directory every component does, so one stat answers for all of them.
    struct stat st;
    if (*path && ::stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        errno = 0;
        return 0;
    }
    std::string copy(path);
    int err = 0;
    for (size_t i = 1; i < copy.size() && err == 0; ++i) {
        if (copy[i] != '/') continue;
        copy[i] = '\0';
        if (ensure_dir(copy.c_str(), mode, uid, gid) != 0) err = errno;
        copy[i] = '/';
    }
    if (err == 0 && (copy.empty() || copy.back() != '/')) {
        if (ensure_dir(copy.c_str(), mode, uid, gid) != 0) err = errno;
    }
    errno = err;
    return err == 0 ? 0 : -1;
}

// ---- lookups a refresh worker asks once per account -------------------------------------------

// Round trips, not work, bound a refresh. A refresh worker therefore asks for all children of an
// account at once what the sequential walk asks child by child and kind by kind: the sums of the
// owners' stored files, and the child list its own files are summed over. The sequential run
// never does: with one process its statements stay exactly those it has always issued. Whatever
// the batch cannot answer (a failed statement, an id not in the database's form) falls back to
// the child's own statement.
struct ChildBatch {
    bool enabled = false;
    std::string parent;  // the account whose children the sums are for; empty: none
    bool sums_ok = false;
    std::unordered_map<int, std::array<long long, kKindCount>> sums;
    // The child ids of the account whose own files are being summed, for all its kinds.
    std::string ids_of;
    std::vector<std::optional<std::string>> ids;

    void forget_children() {
        parent.clear();
        sums_ok = false;
        sums.clear();
    }
};

ChildBatch &child_batch() {
    static ChildBatch batch;
    return batch;
}

// The id as the database prints it: only then is a lookup by number the same as by text.
bool plain_id(const char *id, int &n) {
    if (!id) return false;
    n = to_int(id);
    return n > 0 && std::to_string(n) == id;
}

// Fetches the stored-file sums the children of id will ask for, when they are owners whose
// files are all rewritten.
void batch_children(const char *id, int kind, bool children_are_owners, int child_force) {
    ChildBatch &b = child_batch();
    b.forget_children();
    if (!b.enabled || !id || !children_are_owners || child_force < 1) return;
    std::string statement;
    for (int k = 0; k < kKindCount; ++k) {
        if (!kFileTables[k] || (kind != kKindAll && kind != k)) continue;
        if (!statement.empty()) statement += kUnionAll;
        statement += qx::format(kChildSumsPart, k, kFileTables[k], id);
    }
    if (statement.empty()) return;
    qx::SessionGuard sess;
    if (!sess) return;
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess.get(), 1, &raw, "%s", statement.c_str());
    qx::Result result(raw);
    if (rc != 0 || !result) return;
    while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
        int child = 0;
        if (!row[0] || !plain_id(row[1], child)) {
            b.sums.clear();
            return;
        }
        auto [at, fresh] = b.sums.try_emplace(child);
        if (fresh) at->second.fill(0);
        // SUM over no rows is NULL, which the child's own statement reads as 0.
        at->second[to_int(row[0]) % kKindCount] = row[2] ? std::strtoll(row[2], nullptr, 10) : 0;
    }
    b.parent = id;
    b.sums_ok = true;
}

// The database sum of one owner's stored files, when the batch holds it.
bool batched_sum(int kind, const char *id, const char *parent_id, long long &sum) {
    const ChildBatch &b = child_batch();
    int owner = 0;
    if (!b.sums_ok || !parent_id || b.parent != parent_id || !plain_id(id, owner)) return false;
    const auto at = b.sums.find(owner);
    sum = at == b.sums.end() ? 0 : at->second[kind];
    return true;
}

// ---- quota files a walk has just settled -----------------------------------------------------

// The quota files one walk has just written, with the values they hold: a parent sums its children
// from here instead of opening every child file again, which is most of the file work of a refresh.
// A file is listed only once its dirty mark is known to be gone, so such a sum is as exact as one
// over the files read back. The entries of an account's children are dropped once the account's own
// files are done, and the whole list at the end of the walk.
struct FreshFiles {
    std::unordered_map<std::string, long long> values;
    std::vector<std::string> order;

    void add(const std::string &path, long long value) {
        if (values.insert_or_assign(path, value).second) order.push_back(path);
    }
    const long long *find(const std::string &path) const {
        const auto at = values.find(path);
        return at == values.end() ? nullptr : &at->second;
    }
    void forget(size_t from, size_t to) {
        to = std::min(to, order.size());
        if (from >= to) return;
        for (size_t i = from; i < to; ++i)
            values.erase(order[i]);
        order.erase(order.begin() + static_cast<std::ptrdiff_t>(from),
                    order.begin() + static_cast<std::ptrdiff_t>(to));
    }
};

// Per thread: telephony processes may refresh from several threads at once.
FreshFiles &fresh_files() {
    thread_local FreshFiles files;
    return files;
}

// One top-level walk: nothing it settled outlives it, since later callers may find the files
// changed.
struct FreshScope {
    FreshScope() = default;
    FreshScope(const FreshScope &) = delete;
    FreshScope &operator=(const FreshScope &) = delete;
    ~FreshScope() { fresh_files().forget(0, SIZE_MAX); }
};

// ---- usage on disk ---------------------------------------------------------------------------

struct DirKey {
    dev_t dev;
    ino_t ino;
};

// The first thing a measurement could not see. A directory that does not exist holds no media;
// one that exists but cannot be read makes the sum a guess.
struct Unmeasured {
    int err = 0;
    std::string path;
    void note(const std::string &where, int e) {
        if (err != 0) return;
        err = e;
        path = where;
    }
    explicit operator bool() const { return err != 0; }
};

bool absent(int err) {
    return err == ENOENT || err == ENOTDIR;
}

// Walks one directory with a single path buffer shared by the whole recursion: names are
// appended for the descent and cut off again. Entries are measured relative to the open
// directory, which spares the kernel a lookup of the whole path per file.
// self: the directory's own stat when the caller already made it (every level below the top).
int walk_dir(std::string &path, long long &total, bool recurse, std::vector<DirKey> &ancestors,
             Unmeasured &missed, const struct stat *self = nullptr) {
    qx::Dir dir(::opendir(path.c_str()));
    if (!dir) {
        if (!absent(errno)) missed.note(path, errno);
        return -1;
    }
    if (path.empty()) return -1;
    const size_t base = path.size();
    if (path.back() != '/') path.push_back('/');
    const size_t name_at = path.size();
    const int dfd = ::dirfd(dir.get());

    // Links to an ancestor would otherwise make the walk go round until the path is too long.
    struct stat top;
    if (recurse && !self && ::fstat(dfd, &top) == 0) self = &top;
    const bool tracked = recurse && self;
    if (tracked) ancestors.push_back({self->st_dev, self->st_ino});

    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(dir.get());
        if (!entry) {
            if (errno != 0) missed.note(path, errno);
            break;
        }
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        struct stat st;
        if (::fstatat(dfd, name, &st, 0) != 0) {
            // A dangling or looping link, or a file deleted meanwhile, holds nothing; a file
            // that cannot be examined might.
            if (!absent(errno) && errno != ELOOP) missed.note(path + name, errno);
            continue;
        }
        if (S_ISREG(st.st_mode)) {
            total = saturating_add(total, st.st_size);
        } else if (S_ISDIR(st.st_mode) && recurse) {
            bool cycle = false;
            for (const DirKey &a : ancestors)
                cycle |= a.dev == st.st_dev && a.ino == st.st_ino;
            if (cycle) continue;
            path.append(name);
            walk_dir(path, total, recurse, ancestors, missed, &st);
            path.resize(name_at);
        }
    }
    if (tracked) ancestors.pop_back();
    path.resize(base);
    return 0;
}

int measure_dir(std::string path, long long &total, bool recurse, Unmeasured &missed) {
    path.reserve(PATH_MAX);
    std::vector<DirKey> ancestors;
    return walk_dir(path, total, recurse, ancestors, missed);
}

int measure_dir(std::string path, long long &total, bool recurse) {
    Unmeasured ignored;
    return measure_dir(std::move(path), total, recurse, ignored);
}

// Media directories of one account and kind. -1 when the level or kind has none.
int media_dirs(int kind, int level, const char *reseller_id, const char *client_id,
               const char *owner_id, std::vector<std::string> &out) {
    const char *own = nullptr;
    switch (level) {
        case kLevelReseller:
            own = reseller_id;
            break;
        case kLevelClient:
            own = client_id;
            break;
        case kLevelOwner:
            own = owner_id;
            break;
        default:
            return -1;
    }
    if (!own || !*own) return -1;
    const Settings &s = settings();
    switch (kind) {
        case kKindSound:
            out.push_back(qx::format(kSoundDirFmt, s.varlib_dir.c_str(), own));
            return 0;
        case kKindMusic:
            out.push_back(qx::format(kMusicDirFmt, s.varlib_dir.c_str(), own));
            return 0;
        case kKindVoicemail:
        case kKindFax:
        case kKindRecording:
            break;
        default:
            return -1;
    }
    if (level != kLevelOwner) return -1;
    // Voicemail boxes are named by the short numbers; fax and recordings by the full ones.
    const int numbers_only = kind == kKindVoicemail ? 1 : 0;
    size_t count = 0;
    char **numbers =
        qx_user_get_extensions_sess(nullptr, client_id, to_int(own), numbers_only, &count);
    if (!numbers) return 0;
    struct Release {
        char **list;
        size_t n;
        ~Release() { free_string_array(list, n); }
    } release{numbers, count};
    const char *client = client_id ? client_id : "";
    for (size_t i = 0; i < count; ++i) {
        if (!numbers[i]) continue;
        if (kind == kKindVoicemail) {
            out.push_back(qx::format(kVoicemailDirFmt, s.spool_dir.c_str(), client, numbers[i]));
        } else {
            out.push_back(qx::format(kSpoolMediaDirFmt, s.spool_dir.c_str(),
                                     kind == kKindFax ? "fax" : "monitor", numbers[i]));
        }
    }
    return 0;
}

// ---- SQL helpers -----------------------------------------------------------------------------

// Runs a statement with one text argument. On failure it logs as every module does and returns
// false; func names the engine operation in the message.
bool query_rows(const qx::SessionGuard &sess, const char *func, int line, qx::Result &result,
                const char *arg, bool children) {
    MYSQL_RES *res = nullptr;
    int rc = children ? fr_sql_conn_query(sess.get(), 1, &res, kChildrenQuery, arg)
                      : fr_sql_conn_query(sess.get(), 1, &res, kChildIdsQuery, arg);
    result.reset(res);
    if (rc != 0) {
        FR_LOG(kSrc, kLogChannel, kLogDebug, kMysqlErrorFmt, func, line, sess.error());
        return false;
    }
    if (!result) {
        FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, line);
        return false;
    }
    return true;
}

// ---- subtree refresh -------------------------------------------------------------------------

// What one refresh could not keep exact. Each fault is logged where it happens; the count only
// tells the entry point whether to report the refresh as failed (strict setting).
struct RefreshFaults {
    int count = 0;
};

bool mark_dirty(const std::string &path) {
    if (set_dirty(path.c_str()) == 0) return true;
    log_file_error(__LINE__, "create the dirty mark of", path, errno);
    return false;
}

// A failed write may have left part of the new record over the old one, or an empty file:
// either would read as a value. The dirty mark says so; a file just created holds nothing worth
// keeping, and where no mark can be made the record is made unreadable instead.
void spoil_failed_write(int fd, const std::string &path, bool created) {
    const bool marked = mark_dirty(path);
    if (created) {
        ::unlink(path.c_str());
    } else if (!marked && ::ftruncate(fd, 0) != 0) {
        log_file_error(__LINE__, "empty the damaged quota file", path, errno);
    }
}

bool rev_in_range(const char *path, long long &value, int at = AT_FDCWD) {
    qx::UniqueFd fd = open_regular(path, O_RDONLY, 0, at);
    if (!fd) return false;
    int revision = -1;
    if (read_record(fd.get(), &value, &revision, ReadMode::kStable) != 0) return false;
    return revision >= 0 && revision <= kRevisionLimit;
}

// An account's quota directory, opened on first use for the file lookups of all its kinds and
// children: each file is then found from it instead of through the whole path again. Where it
// cannot be opened, files are looked up by their full paths as before.
class AccountDir {
  public:
    explicit AccountDir(const std::string &dir) : dir_(dir) {}

    // The directory to start from and the name of path below it; AT_FDCWD and path itself when
    // the directory is not open.
    int at(const std::string &path, const char *&name) {
        if (!tried_) {
            tried_ = true;
            fd_.reset(::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        name = path.c_str();
        if (!fd_ || path.compare(0, dir_.size(), dir_) != 0) return AT_FDCWD;
        const char *rest = path.c_str() + dir_.size();
        if (*rest != '/') return AT_FDCWD;
        while (*rest == '/')
            ++rest;
        if (!*rest) return AT_FDCWD;
        name = rest;
        return fd_.get();
    }

    // The skip test of an unforced refresh: the file is not marked dirty and holds a record
    // whose revision is in range. value, when given, receives the record's value: that takes two
    // reads that agree, where the test alone needs one, since a record torn by a concurrent
    // update still carries one of the two revisions. One listing of the directory answers for
    // the marks and file types of all kinds, where a lookup per file used to; whatever the
    // listing cannot tell (links, unknown types) is asked of the file itself as before.
    bool clean_and_current(const std::string &path, long long *value) {
        const char *name = nullptr;
        const int at = this->at(path, name);
        const std::string mark = dirty_mark(name);
        const unsigned char mark_type = listed(at, mark.c_str());
        if (mark_type == DT_UNKNOWN || mark_type == DT_LNK) {
            if (::faccessat(at, mark.c_str(), F_OK, 0) == 0) return false;
        } else if (mark_type != kAbsent) {
            return false;
        }
        long long scratch = 0;
        if (listed(at, name) != DT_REG) return rev_in_range(name, value ? *value : scratch, at);
        qx::UniqueFd fd(::openat(at, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        int revision = -1;
        const ReadMode mode = value ? ReadMode::kStable : ReadMode::kOnce;
        if (!fd || read_record(fd.get(), value ? value : &scratch, &revision, mode) != 0)
            return false;
        return revision >= 0 && revision <= kRevisionLimit;
    }

  private:
    // Not a d_type value: the listing has no entry of that name.
    static constexpr unsigned char kAbsent = 0xff;

    // The type the listing gives a name directly in the directory, or DT_UNKNOWN when there is
    // no listing to ask.
    unsigned char listed(int at, const char *name) {
        if (at == AT_FDCWD || std::strchr(name, '/')) return DT_UNKNOWN;
        if (!listed_) list();
        if (!listing_ok_) return DT_UNKNOWN;
        for (const auto &[entry, type] : entries_)
            if (entry == name) return type;
        return kAbsent;
    }

    void list() {
        listed_ = true;
        alignas(struct dirent64) char buf[kListingBuffer];
        for (;;) {
            const ssize_t got = ::getdents64(fd_.get(), buf, sizeof buf);
            if (got <= 0) {
                listing_ok_ = got == 0;
                return;
            }
            for (ssize_t at = 0; at < got;) {
                const auto *entry = reinterpret_cast<const struct dirent64 *>(buf + at);
                at += entry->d_reclen;
                // Only quota files and their marks are ever asked about.
                const std::string_view n(entry->d_name);
                if (n.ends_with(".quota") || n.ends_with(".dirty"))
                    entries_.emplace_back(n, entry->d_type);
            }
        }
    }

    static constexpr size_t kListingBuffer = 16384;

    const std::string &dir_;
    bool tried_ = false;
    qx::UniqueFd fd_;
    bool listed_ = false;
    bool listing_ok_ = false;
    std::vector<std::pair<std::string, unsigned char>> entries_;
};

// is_dirty for a file found from a directory.
bool dirty_at(int at, const char *name) {
    return ::faccessat(at, dirty_mark(name).c_str(), F_OK, 0) == 0;
}

// The ids of the account's children, as the children statement returns them; a row without id
// ends the list. A refresh worker asks once for all kinds of the account.
bool child_ids(const char *id, std::vector<std::optional<std::string>> &out, std::string &cause) {
    ChildBatch &b = child_batch();
    if (b.enabled && b.ids_of == id) {
        out = b.ids;
        return true;
    }
    out.clear();
    qx::SessionGuard sess;
    if (!sess) {
        FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, __LINE__);
        cause = "no database session for the children";
        return false;
    }
    qx::Result result;
    if (!query_rows(sess, "grab_child_quotas", __LINE__, result, id, false)) {
        cause = qx::format("children query failed: %s", sess.error());
        return false;
    }
    while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
        out.push_back(copy_or_none(row[0]));
        if (!row[0]) break;
    }
    if (b.enabled) {
        b.ids_of = id;
        b.ids = out;
    }
    return true;
}

// Adds the children's values of one kind. exact stays true only when every child's file was
// read: a missing, unreadable or dirty child file means the child's own refresh failed, and a
// sum over it would only look right.
int child_sum(const char *id, int kind, const char *dir, AccountDir &account_dir, long long &sum,
              bool &exact, std::string &cause) {
    exact = false;
    if (!id || !dir || !valid_kind(kind)) return -1;
    std::vector<std::optional<std::string>> ids;
    if (!child_ids(id, ids, cause)) return -1;
    exact = true;
    for (const std::optional<std::string> &child : ids) {
        if (!child) {
            exact = false;
            cause = "a child without id";
            return -1;
        }
        std::string path = qx::format(kChildFileFmt, dir, to_int(child->c_str()), kKindNames[kind]);
        if (const long long *fresh = fresh_files().find(path)) {
            if (*fresh >= 0) sum = saturating_add(sum, *fresh);
            continue;
        }
        const char *name = nullptr;
        const int at = account_dir.at(path, name);
        qx::UniqueFd fd = open_regular(name, O_RDONLY, 0, at);
        long long value = -1;
        if (!fd) {
            if (exact) cause = qx::format("child file %s: %s", path.c_str(), error_text(errno));
            exact = false;
            continue;
        }
        if (read_record(fd.get(), &value, nullptr, ReadMode::kStable) != 0) {
            if (exact) cause = qx::format("child file %s holds no valid record", path.c_str());
            exact = false;
            continue;
        }
        if (dirty_at(at, name)) {
            if (exact) cause = qx::format("child file %s is marked dirty", path.c_str());
            exact = false;
        }
        // A negative value is a record that says "unknown": it adds nothing, as it always did.
        if (value >= 0) sum = saturating_add(sum, value);
    }
    return 0;
}

// Writes one record under a blocking lock. opened: the file could be opened or created. The
// result is true only when the file holds the new record; any failure is logged and the file
// marked.
// at and name: where to find the file, when not by path.
bool write_quota(const std::string &path, long long value, int revision, bool &opened,
                 int at = AT_FDCWD, const char *name = nullptr) {
    bool created;
    qx::UniqueFd fd = open_quota_file(name ? name : path.c_str(), created, at);
    opened = static_cast<bool>(fd);
    if (!fd) {
        const int err = errno;
        log_file_error(__LINE__, "open quota file", path, err);
        // Without its directory there is no file to distrust and no place for a mark.
        if (err != ENOENT) mark_dirty(path);
        return false;
    }
    // The record is written even without the lock: a refresh must not leave a stale value. The
    // lock goes with the descriptor, closed on return, with no unlock call of its own.
    (void)lock_blocking(fd.get());
    struct stat st;
    const off_t old_size = ::fstat(fd.get(), &st) == 0 ? st.st_size : -1;
    const bool written = write_record(fd.get(), value, revision, old_size) >= 0;
    if (!written) {
        const int err = errno;
        log_file_error(__LINE__, "write quota file", path, err);
        spoil_failed_write(fd.get(), path, created);
    }
    return written;
}

int real_update(const char *path, long long value, int revision) {
    bool opened;
    write_quota(path, value, revision, opened);
    return opened ? 0 : -1;
}

// Bytes the account itself uses of one kind, before its children are added. False, with the
// cause, when some input could not be measured.
bool own_usage(int kind, int level, const char *id, const char *parent_id,
               const char *grandparent_id, long long &used, std::string &cause) {
    used = 0;
    if (kFileTables[kind]) {
        if (level != kLevelOwner) return true;
        // No files at all is a NULL sum, which reads as 0; -1 is the failure.
        long long sum = 0;
        if (!batched_sum(kind, id, parent_id, sum))
            sum = qx_get_db_files_quota(kFileTables[kind], kLevelOwner, id);
        if (sum == -1) {
            cause = qx::format("the database sum over %s failed", kFileTables[kind]);
            return false;
        }
        used = sum < 0 ? 0 : sum;
        return true;
    }
    std::vector<std::string> dirs;
    switch (level) {
        case kLevelReseller:
            media_dirs(kind, level, id, nullptr, nullptr, dirs);
            break;
        case kLevelClient:
            media_dirs(kind, level, parent_id, id, nullptr, dirs);
            break;
        case kLevelOwner:
            media_dirs(kind, level, grandparent_id, parent_id, id, dirs);
            break;
        default:
            break;
    }
    Unmeasured missed;
    for (const std::string &d : dirs) {
        long long one = 0;
        measure_dir(d, one, true, missed);
        used = saturating_add(used, one);
    }
    if (!missed) return true;
    cause = qx::format("cannot read %s: %s", missed.path.c_str(), std::strerror(missed.err));
    return false;
}

struct ChildRow {
    std::string id;
    int level;
    bool complete;
};

// An account whose subtree could not be walked keeps its files, marked for the next refresh.
void abandon_account(const char *id, int kind, const std::string &dir, const char *cause,
                     RefreshFaults &faults) {
    ++faults.count;
    FR_LOG(kSrc, kLogChannel, kLogError, kSubtreeFailedFmt, kSrc, __LINE__, id ? id : "?", cause);
    if (dir.empty()) return;
    const int first = kind == kKindAll ? 0 : kind;
    const int last = kind == kKindAll ? kKindCount - 1 : kind;
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) return;  // nothing there yet to distrust
    for (int k = first; k <= last; ++k)
        mark_dirty(kind_file(dir, k));
}

// The account's own files, over its children's files as they are now. current receives each
// value written, and with want_value also each value found clean. -1 only when the files could
// not be owned by asterisk.
int refresh_own_files(const char *id, const char *parent_id, const char *grandparent_id, int level,
                      int kind, const std::string &dir, int force, long long &current,
                      bool want_value, RefreshFaults &faults) {
    const int first = kind == kKindAll ? 0 : kind;
    const int last = kind == kKindAll ? kKindCount - 1 : kind;
    bool dirs_tried = false;
    bool dirs_ready = false;
    child_batch().ids_of.clear();
    AccountDir account_dir(dir);
    for (int k = first; k <= last; ++k) {
        const std::string path = kind_file(dir, k);
        // A file left as it is gives no value to the parent's sum, which reads it again: in a
        // clean tree no parent is summed, and the skip test is the whole unforced refresh.
        if (force < 1 && account_dir.clean_and_current(path, want_value ? &current : nullptr))
            continue;

        std::string cause;
        long long own = 0;
        bool exact = own_usage(k, level, id, parent_id, grandparent_id, own, cause);
        long long children = 0;
        if (exact && level <= kLevelWithChildren)
            child_sum(id, k, dir.c_str(), account_dir, children, exact, cause);
        if (!exact) {
            ++faults.count;
            FR_LOG(kSrc, kLogChannel, kLogError, kNotRefreshedFmt, kSrc, __LINE__, id,
                   kKindNames[k], cause.c_str());
            mark_dirty(path);
            continue;
        }
        current = saturating_add(own, children);

        uid_t uid;
        gid_t gid;
        if (!owner_ids(uid, gid)) {
            ++faults.count;
            FR_LOG(kSrc, kLogChannel, kLogError, kNotRefreshedFmt, kSrc, __LINE__, id,
                   kKindNames[k], "user or group asterisk not found");
            return -1;
        }
        // One directory for all kinds of the account: create it once.
        if (!dirs_tried) {
            dirs_tried = true;
            dirs_ready = create_dirs(dir.c_str(), kDirMode, uid, gid) == 0;
            if (!dirs_ready) {
                const int err = errno;
                log_file_error(__LINE__, "create quota directory", dir, err);
            }
        }
        bool opened;
        const char *name = nullptr;
        const int at = dirs_ready ? account_dir.at(path, name) : AT_FDCWD;
        if (dirs_ready && write_quota(path, current, 0, opened, at, name)) {
            if (::unlinkat(at, dirty_mark(name).c_str(), 0) == 0 || errno == ENOENT)
                fresh_files().add(path, current);
        } else {
            ++faults.count;
        }
    }
    return 0;
}

int walk_subtree(const char *id, const char *parent_id, const char *grandparent_id, int level,
                 int kind, std::string &dir, long long *total_out, int force, long long *scratch,
                 RefreshFaults &faults) {
    long long current = 0;
    const size_t base = dir.size();
    // Whatever way the walk ends, the caller gets its buffer back and the last value seen.
    struct Finish {
        std::string &dir;
        size_t base;
        long long *out;
        const long long &value;
        ~Finish() {
            dir.resize(base);
            if (out) *out = value;
        }
    } finish{dir, base, total_out, current};

    if (dir.empty() || !id || kind < 0 || kind > kKindAll) {
        abandon_account(id, kind, dir, "no quota directory", faults);
        return -1;
    }
    if (dir.back() != '/') dir.push_back('/');
    const size_t child_at = dir.size();
    // The children's settled files serve this account's sums only.
    struct ForgetChildren {
        size_t from;
        size_t to = SIZE_MAX;
        ~ForgetChildren() { fresh_files().forget(from, to); }
    } forget_children{fresh_files().order.size()};

    // Children first, so that this account sums the values they have just written.
    if (level <= kLevelWithChildren) {
        std::vector<ChildRow> children;
        {
            qx::SessionGuard sess;
            if (!sess) {
                FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, __LINE__);
                dir.resize(base);
                abandon_account(id, kind, dir, "no database session", faults);
                return -1;
            }
            qx::Result result;
            if (!query_rows(sess, "quota_update_subtree", __LINE__, result, id, true)) {
                dir.resize(base);
                abandon_account(id, kind, dir, "the children query failed", faults);
                return -1;
            }
            // Copied out so that the session goes back to the pool before the descent.
            while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
                if (!row[0] || !row[1]) {
                    children.push_back({std::string(), 0, false});
                    break;
                }
                children.push_back({row[0], to_int(row[1]), true});
            }
        }
        const bool owners = std::any_of(children.begin(), children.end(), [](const ChildRow &c) {
            return c.complete && c.level == kLevelOwner;
        });
        batch_children(id, kind, owners, force - 1);
        struct Forget {
            ~Forget() { child_batch().forget_children(); }
        } forget;
        for (const ChildRow &child : children) {
            if (!child.complete) {
                dir.resize(base);
                abandon_account(id, kind, dir, "a child row without id or level", faults);
                return -1;
            }
            append_component(dir, 0, child.id.c_str(), false);
            walk_subtree(child.id.c_str(), id, parent_id, child.level, kind, dir, nullptr,
                         force - 1, scratch, faults);
            dir.resize(child_at);
        }
    }
    dir.resize(base);
    forget_children.to = fresh_files().order.size();
    return refresh_own_files(id, parent_id, grandparent_id, level, kind, dir, force, current,
                             total_out != nullptr, faults);
}

// What a refresh target's walk starts from.
struct Target {
    qx::CStr id;
    qx::CStr parent_str;
    qx::CStr grandparent_str;
    std::string dir;
    int level = -1;
    int parent = 0;
    int grandparent = 0;
};

// 0, or the failure the refresh reports: -1 without a session, -2 when the target is unknown,
// or the error of the grandparent lookup.
int look_up(int account_id, Target &t) {
    qx::SessionGuard sess;
    if (!sess) {
        FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, __LINE__);
        return -1;
    }
    t.id.reset(ast_pad_id(account_id, kIdWidth));
    if (!t.id) return -2;
    char *text = nullptr;
    if (get_parid_level(sess.get(), account_id, &t.parent, &text, &t.level, nullptr) != 0)
        return -2;
    t.parent_str.reset(text);

    switch (t.level) {
        case kLevelReseller:
            t.dir = reseller_qpath(kKindAll, account_id);
            break;
        case kLevelClient:
            if (t.parent >= 1) t.dir = client_qpath(kKindAll, t.parent, account_id);
            break;
        case kLevelOwner: {
            char *gtext = nullptr;
            int rc = get_parentid(sess.get(), t.parent, &t.grandparent, &gtext);
            if (rc != 0) return rc;
            t.grandparent_str.reset(gtext);
            if (t.grandparent >= 1)
                t.dir = owner_qpath(kKindAll, t.grandparent, t.parent, account_id);
            break;
        }
        default:
            break;
    }
    if (t.level == kLevelReseller && account_id < 1) t.dir.clear();
    return 0;
}

int slow_refresh(int account_id, int kind, long long *total, int force, long long *scratch) {
    if (kind < 0 || kind > kKindAll) return -1;
    qx::refresh::UmaskGuard umask_guard;

    Target t;
    const int rc = look_up(account_id, t);
    if (rc != 0) return rc;
    RefreshFaults faults;
    FreshScope scope;
    // Only lookup failures are the caller's business; a walk that stops early still ran,
    // unless the node asked for every fault to count.
    walk_subtree(t.id.get(), t.parent_str.get(), t.grandparent_str.get(), t.level, kind, t.dir,
                 total, force, scratch, faults);
    return faults.count > 0 && settings().strict ? -1 : 0;
}

const char *text_or_null(const std::optional<std::string> &s) {
    return s ? s->c_str() : nullptr;
}

}  // namespace

namespace qx::refresh {

int look_up_target(int account_id, int force, Account &out, std::vector<int> &ancestors) {
    Target t;
    const int rc = look_up(account_id, t);
    if (rc != 0) return rc;
    out.id = copy_or_none(t.id.get());
    out.parent = copy_or_none(t.parent_str.get());
    out.grandparent = copy_or_none(t.grandparent_str.get());
    out.dir = t.dir;
    out.level = t.level;
    out.force = force;
    ancestors.clear();
    if (t.parent > 0) ancestors.push_back(t.parent);
    if (t.grandparent > 0) ancestors.push_back(t.grandparent);
    return 0;
}

bool children_of(const Account &account, std::vector<Account> &out) {
    out.clear();
    if (account.dir.empty() || !account.id || account.level > kLevelWithChildren) return false;
    qx::SessionGuard sess;
    if (!sess) return false;
    qx::Result result;
    if (!query_rows(sess, "quota_update_subtree", __LINE__, result, account.id->c_str(), true))
        return false;
    std::string base = account.dir;
    if (base.back() != '/') base.push_back('/');
    while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
        if (!row[0] || !row[1]) return false;
        Account child;
        child.id = row[0];
        child.parent = account.id;
        child.grandparent = account.parent;
        child.level = to_int(row[1]);
        child.force = account.force - 1;
        child.dir = base;
        append_component(child.dir, 0, row[0], false);
        out.push_back(std::move(child));
    }
    return true;
}

int walk(const Account &account, int kind) {
    RefreshFaults faults;
    FreshScope scope;
    std::string dir = account.dir;
    long long scratch = 0;
    walk_subtree(text_or_null(account.id), text_or_null(account.parent),
                 text_or_null(account.grandparent), account.level, kind, dir, nullptr,
                 account.force, &scratch, faults);
    return faults.count;
}

int refresh_own(const Account &account, int kind) {
    RefreshFaults faults;
    FreshScope scope;
    long long current = 0;
    refresh_own_files(text_or_null(account.id), text_or_null(account.parent),
                      text_or_null(account.grandparent), account.level, kind, account.dir,
                      account.force, current, false, faults);
    return faults.count;
}

void abandon(const Account &account, int kind, const char *cause) {
    RefreshFaults faults;
    abandon_account(text_or_null(account.id), kind, account.dir, cause, faults);
}

bool strict() {
    return settings().strict;
}

void batch_lookups() {
    child_batch().enabled = true;
}

}  // namespace qx::refresh

namespace {

// ---- reading ---------------------------------------------------------------------------------

int read_quota(unsigned account_id, unsigned parent_id, unsigned grandparent_id, int kind,
               long long *values, int *revisions) {
    if (kind < 0 || kind > kKindAll || !values || account_id == 0) return -1;
    if (grandparent_id != 0 && (account_id == 0 || parent_id == 0)) return -1;
    const int first = kind == kKindAll ? 0 : kind;
    const int last = kind == kKindAll ? kKindCount - 1 : kind;
    for (int k = first, slot = 0; k <= last; ++k, ++slot) {
        values[slot] = -1;
        if (revisions) revisions[slot] = -1;
        std::string path;
        if (grandparent_id != 0) {
            if (static_cast<int>(grandparent_id) >= 1)
                path = owner_qpath(k, static_cast<int>(grandparent_id), static_cast<int>(parent_id),
                                   static_cast<int>(account_id));
        } else if (parent_id != 0) {
            if (static_cast<int>(parent_id) >= 1)
                path = client_qpath(k, static_cast<int>(parent_id), static_cast<int>(account_id));
        } else if (static_cast<int>(account_id) >= 1) {
            path = reseller_qpath(k, static_cast<int>(account_id));
        }
        if (path.empty()) continue;
        qx::UniqueFd fd = open_regular(path.c_str(), O_RDONLY);
        if (fd)
            read_record(fd.get(), &values[slot], revisions ? &revisions[slot] : nullptr,
                        ReadMode::kStable);
    }
    return 0;
}

int read_quota_sql(int account_id, int kind, long long *values, int *revisions) {
    int parent = 0;
    int grandparent = 0;
    int level = -1;
    {
        qx::SessionGuard sess;
        if (!sess) {
            FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, __LINE__);
            return -1;
        }
        int rc = get_parid_level(sess.get(), account_id, &parent, nullptr, &level, nullptr);
        if (rc != 0) return rc;
        if (level == kLevelOwner) {
            rc = get_parentid(sess.get(), parent, &grandparent, nullptr);
            if (rc != 0) return rc;
        }
    }
    const auto id = static_cast<unsigned>(account_id);
    switch (level) {
        case kLevelReseller:
            return read_quota(id, 0, 0, kind, values, revisions);
        case kLevelClient:
            return read_quota(id, static_cast<unsigned>(parent), 0, kind, values, revisions);
        case kLevelOwner:
            return read_quota(id, static_cast<unsigned>(parent), static_cast<unsigned>(grandparent),
                              kind, values, revisions);
        default:
            return -1;
    }
}

int parid_level(SessionHandle *sess, int account_id, int *parent, char **parent_str, int *level,
                char **level_str) {
    int found = qx_account_get_level_sess(sess, account_id);
    qx::CStr text(qx_account_get_parent_str_sess(sess, account_id));
    if (found < 0 || !text) return -2;
    if (level) *level = found;
    if (level_str) *level_str = qx::c_copy(qx::format(kLevelFmt, found).c_str());
    if (found != kLevelRoot) {
        if (parent) *parent = to_int(text.get());
        if (parent_str) *parent_str = *text ? text.release() : nullptr;
    }
    return 0;
}

// ---- fast update and verification ------------------------------------------------------------

struct Ancestry {
    int reseller = 0;
    int client = 0;
    int owner = 0;
    long long reseller_limit = -1;
    long long client_limit = -1;
    long long owner_limit = -1;
};

long long limit_of(int account_id, int kind) {
    qx::CStr text(qx_account_get_pref(account_id, kLimitPrefs[kind]));
    if (!text) return -1;
    long long kib = to_ll(text.get());
    long long bytes;
    if (__builtin_mul_overflow(kib, 1024LL, &bytes)) return kib > 0 ? LLONG_MAX : LLONG_MIN;
    return bytes;
}

// Climbs from the account to the top of its tree. Returns 0, 1 when a root account was met,
// or the lookup's error. With with_limits, each level's limit for kind is read on the way.
int climb(SessionHandle *sess, int account_id, int kind, bool with_limits, Ancestry &out) {
    int current = account_id;
    int current_level = kLevelOwner + 1;
    for (int step = 0; current_level >= kLevelTop; ++step) {
        // Guards against a parent cycle in a damaged tree.
        if (step == kMaxClimb) return -1;
        int parent = 0;
        int level = -1;
        int rc = get_parid_level(sess, current, &parent, nullptr, &level, nullptr);
        if (rc != 0) return rc;
        if (level == kLevelRoot && with_limits) return 1;
        switch (level) {
            case kLevelOwner:
                out.owner = current;
                if (with_limits) out.owner_limit = limit_of(current, kind);
                break;
            case kLevelClient:
                out.client = current;
                if (with_limits) out.client_limit = limit_of(current, kind);
                break;
            case kLevelReseller:
                out.reseller = current;
                if (with_limits) out.reseller_limit = limit_of(current, kind);
                break;
            default:
                break;
        }
        current_level = level;
        current = parent;
    }
    return 0;
}

int fast_update_file(const char *path, long long delta, int wait) {
    int tries = wait / kLockStepMs;
    if (!path) return -1;
    const char *slash = std::strrchr(path, '/');
    if (!slash) return -1;
    uid_t uid;
    gid_t gid;
    if (!owner_ids(uid, gid)) return -1;
    if (is_dirty(path)) return -1;

    bool created = false;
    qx::UniqueFd fd = open_regular(path, O_RDWR);
    if (!fd) {
        // Something other than a file where the record belongs is an unreadable record.
        const int err = errno;
        if (err == EINVAL) set_dirty(path);
        if (err != ENOENT) return -1;
        // The account directory is created on first need only; existing ones cost nothing.
        create_dirs(std::string(path, static_cast<size_t>(slash - path)).c_str(), kDirMode, uid,
                    gid);
        fd = open_quota_file(path, created);
        if (!fd) {
            const int err = errno;
            if (err != ENOENT) log_file_error(__LINE__, "create quota file", path, err);
            if (err == EINVAL) set_dirty(path);
            return -1;
        }
    }

    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        fine_sleep(kLockStepSeconds);
        if (--tries < 0) {
            set_dirty(path);
            return -1;
        }
    }
    struct Unlock {
        int fd;
        ~Unlock() { ::flock(fd, LOCK_UN); }
    } unlock{fd.get()};

    long long value = 0;
    int revision = 0;
    if (!created) {
        value = -1;
        revision = -1;
        if (read_record(fd.get(), &value, &revision, ReadMode::kOnce) != 0 || value == -1 ||
            revision == -1) {
            set_dirty(path);
            return static_cast<int>(value);
        }
    }
    if (delta != 0 || created) {
        value = saturating_add(value, delta);
        if (value < 0) value = 0;
        revision = static_cast<int>(static_cast<unsigned>(revision) + 1u);
        if (write_record(fd.get(), value, revision) < 0) {
            const int err = errno;
            log_file_error(__LINE__, "write quota file", path, err);
            spoil_failed_write(fd.get(), path, created);
        }
    }
    // Callers have always seen the value through an int; large values wrap, as they always did.
    return static_cast<int>(value);
}

int fast_update(int kind, long long delta, int wait, int reseller_id, int client_id, int owner_id) {
    if (reseller_id < 1 || !valid_kind(kind) || !settings().usable) return -1;
    // Deepest first: the account's own file is the one its caller checks next.
    if (client_id != 0 && owner_id != 0)
        fast_update_file(owner_qpath(kind, reseller_id, client_id, owner_id).c_str(), delta, wait);
    if (client_id != 0)
        fast_update_file(client_qpath(kind, reseller_id, client_id).c_str(), delta, wait);
    fast_update_file(reseller_qpath(kind, reseller_id).c_str(), delta, wait);
    return 0;
}

int update(int account_id, int kind, long long delta, int wait) {
    if (!valid_kind(kind)) return -1;
    if (wait < 0) wait = kDefaultWait;
    qx::refresh::UmaskGuard umask_guard;
    Ancestry a;
    {
        qx::SessionGuard sess;
        if (!sess) {
            FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, __LINE__);
            return -1;
        }
        int rc = climb(sess.get(), account_id, kind, false, a);
        if (rc != 0) return rc;
    }
    return fast_update(kind, delta, wait, a.reseller, a.client, a.owner) == 0 ? 0 : -1;
}

int encode_full(int account_id, int level) {
    return static_cast<int>(static_cast<long long>(account_id) + level * kLevelFactor);
}

// One level of the verification: its encoded result when full, else 0.
int check_level(const std::string &path, long long limit, int account_id, int level) {
    if (limit < 0 || path.empty() || is_dirty(path.c_str())) return 0;
    // A zero delta reads the value under the same lock discipline as an update, without waiting.
    int used = fast_update_file(path.c_str(), 0, -1);
    return used >= 0 && used >= limit ? encode_full(account_id, level) : 0;
}

int verify_disk(int kind, int reseller_id, int client_id, int owner_id, long long reseller_limit,
                long long client_limit, long long owner_limit) {
    if (reseller_id < 1 || !valid_kind(kind) || !settings().usable) return -1;
    if (client_id != 0 && owner_id != 0) {
        int full = check_level(owner_qpath(kind, reseller_id, client_id, owner_id), owner_limit,
                               owner_id, kLevelOwner);
        if (full) return full;
    }
    if (client_id != 0) {
        int full = check_level(client_qpath(kind, reseller_id, client_id), client_limit, client_id,
                               kLevelClient);
        if (full) return full;
    }
    return check_level(reseller_qpath(kind, reseller_id), reseller_limit, reseller_id,
                       kLevelReseller);
}

int verify(int account_id, int kind, Ancestry &a) {
    if (!valid_kind(kind)) return -1;
    {
        qx::SessionGuard sess;
        if (!sess) {
            FR_LOG(kSrc, kLogChannel, kLogDebug, kConditionFailedFmt, kSrc, __LINE__);
            return -1;
        }
        int rc = climb(sess.get(), account_id, kind, true, a);
        if (rc == 1) return 0;
        if (rc != 0) return rc;
    }
    return verify_disk(kind, a.reseller, a.client, a.owner, a.reseller_limit, a.client_limit,
                       a.owner_limit);
}

}  // namespace

// ---- quota store -----------------------------------------------------------------------------

extern "C" int get_conf(void) {
    return guarded(0, [] {
        settings();
        return 0;
    });
}

extern "C" int get_ids(const char *user_name, const char *group_name, uid_t *uid, gid_t *gid) {
    return guarded(-1, [&] {
        long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
        if (user_name && uid) {
            struct passwd pw;
            struct passwd *found = nullptr;
            int rc;
            while ((rc = ::getpwnam_r(user_name, &pw, buf.data(), buf.size(), &found)) == ERANGE)
                buf.resize(buf.size() * 2);
            if (rc != 0 || !found) return -1;
            *uid = found->pw_uid;
        }
        if (group_name && gid) {
            struct group gr;
            struct group *found = nullptr;
            int rc;
            while ((rc = ::getgrnam_r(group_name, &gr, buf.data(), buf.size(), &found)) == ERANGE)
                buf.resize(buf.size() * 2);
            if (rc != 0 || !found) return -1;
            *gid = found->gr_gid;
        }
        return 0;
    });
}

extern "C" int make_qpaths(int kind, int reseller_id, int client_id, int owner_id,
                           char **reseller_path, char **client_path, char **owner_path) {
    return guarded(-1, [&] {
        if (kind < 0 || kind > kKindAll || reseller_id < 1 || !settings().usable) return -1;
        qx::CStr owner;
        qx::CStr client;
        qx::CStr reseller;
        if (owner_path && client_id != 0 && owner_id != 0) {
            owner.reset(qx::c_copy(owner_qpath(kind, reseller_id, client_id, owner_id)));
            if (!owner) return -1;
        }
        if (client_path && client_id != 0) {
            client.reset(qx::c_copy(client_qpath(kind, reseller_id, client_id)));
            if (!client) return -1;
        }
        if (reseller_path) {
            reseller.reset(qx::c_copy(reseller_qpath(kind, reseller_id)));
            if (!reseller) return -1;
        }
        if (owner) *owner_path = owner.release();
        if (client) *client_path = client.release();
        if (reseller) *reseller_path = reseller.release();
        return 0;
    });
}

extern "C" int make_dpath(int kind, int level, const char *reseller_id, const char *client_id,
                          const char *owner_id, char ***paths, int *count) {
    return guarded(-1, [&] {
        if (!paths || !count) return -1;
        std::vector<std::string> dirs;
        if (media_dirs(kind, level, reseller_id, client_id, owner_id, dirs) != 0) return -1;
        *paths = nullptr;
        *count = 0;
        if (dirs.empty()) return 0;
        auto **array = static_cast<char **>(std::calloc(dirs.size(), sizeof(char *)));
        if (!array) return -1;
        for (size_t i = 0; i < dirs.size(); ++i) {
            array[i] = qx::c_copy(dirs[i]);
            if (!array[i]) {
                free_string_array(array, i);
                return -1;
            }
        }
        *paths = array;
        *count = static_cast<int>(dirs.size());
        return 0;
    });
}

extern "C" char *quota_str_append(char **path, int number, ...) {
    if (!path || !*path) return nullptr;
    const char *text = nullptr;
    int flag = 0;
    if (number == 0) {
        va_list ap;
        va_start(ap, number);
        text = va_arg(ap, const char *);
        flag = va_arg(ap, int);
        va_end(ap);
    }
    return guarded(static_cast<char *>(nullptr), [&]() -> char * {
        std::string grown(*path);
        append_component(grown, number, text, flag != 0);
        auto *p = static_cast<char *>(std::realloc(*path, grown.size() + 1));
        if (!p) return nullptr;
        std::memcpy(p, grown.c_str(), grown.size() + 1);
        *path = p;
        // A missing text still leaves the separator, but tells the caller nothing was appended.
        return number == 0 && !text ? nullptr : p;
    });
}

extern "C" int quota_read_internal(int fd, long long *value, int *revision) {
    return read_record(fd, value, revision, ReadMode::kEof);
}

extern "C" int quota_write_internal(int fd, long long value, int revision) {
    // pwrite ignores its offset on a descriptor opened for appending, so a caller's O_APPEND
    // descriptor gets the plain order: empty the file, then write. The engine's own descriptors
    // never append and take the cheaper path directly.
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_APPEND)) return write_record_emptying_first(fd, value, revision);
    const int len = write_record(fd, value, revision);
    if (len < 0) return -1;
    // Leave the offset after the record, where a sequential write would have left it; the
    // engine closes its own descriptors right after writing and skips this.
    ::lseek(fd, len, SEEK_SET);
    return 0;
}

extern "C" int make_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    return guarded(-1, [&] { return create_dirs(path, mode, uid, gid); });
}

extern "C" int is_dirty(const char *path) {
    if (!path) return 0;
    return guarded(0, [&] { return ::access(dirty_mark(path).c_str(), F_OK) == 0 ? 1 : 0; });
}

extern "C" int set_dirty(const char *path) {
    if (!path) return -1;
    return guarded(-1, [&] {
        qx::UniqueFd fd =
            open_regular(dirty_mark(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC, kFileMode);
        if (!fd) return -1;
        uid_t uid;
        gid_t gid;
        if (!owner_ids(uid, gid)) return -1;
        // The mark works whoever owns it; a failed chown must not hide it.
        if (running_as_root()) {
            int ignored = ::fchown(fd.get(), uid, gid);
            (void)ignored;
        }
        return 0;
    });
}

extern "C" int unset_dirty(const char *path) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    return guarded(-1, [&] { return ::unlink(dirty_mark(path).c_str()); });
}

// ---- usage measurement -----------------------------------------------------------------------

extern "C" int compute_quota_dir(char **path, long long *total, int recurse) {
    if (!path || !*path || !total) return -1;
    // The buffer the caller handed in comes back unchanged, as the walk restores it anyway.
    return guarded(-1, [&] { return measure_dir(*path, *total, recurse != 0); });
}

extern "C" int compute_quota(const char *path, long long *total, int recurse) {
    if (!path || !total) return -1;
    return guarded(-1, [&] { return measure_dir(path, *total, recurse != 0); });
}

extern "C" long long quota_get_dirsize(const char *path) {
    // Starts at -1 on purpose: callers have always received the byte total minus one, and -1
    // for a directory that cannot be read.
    long long total = -1;
    compute_quota(path, &total, 1);
    return total;
}

// ---- subtree refresh -------------------------------------------------------------------------

extern "C" int quota_update_slow(int account_id, int kind, long long *total, int force) {
    long long scratch = 0;
    return quota_update_slow_internal(account_id, kind, total, force, &scratch);
}

extern "C" int quota_update_slow_internal(int account_id, int kind, long long *total, int force,
                                          long long *scratch) {
    return guarded(-1, [&] { return slow_refresh(account_id, kind, total, force, scratch); });
}

extern "C" int quota_update_subtree(const char *id, const char *parent_id,
                                    const char *grandparent_id, int level, int kind, char **dir,
                                    long long *total, int force, long long *scratch) {
    return guarded(-1, [&] {
        std::string buffer = dir && *dir ? *dir : "";
        RefreshFaults faults;
        return walk_subtree(id, parent_id, grandparent_id, level, kind, buffer, total, force,
                            scratch, faults);
    });
}

extern "C" int grab_child_quotas(const char *id, const char * /*parent_id*/,
                                 const char * /*grandparent_id*/, int kind, const char *dir,
                                 long long *sum) {
    if (!sum) return -1;
    return guarded(-1, [&] {
        bool exact;
        std::string cause;
        const std::string dir_text = dir ? dir : "";
        AccountDir account_dir(dir_text);
        return child_sum(id, kind, dir, account_dir, *sum, exact, cause);
    });
}

extern "C" int is_rev_inrange(const char *path, long long *value) {
    if (!path) return 0;
    long long scratch = -1;
    return rev_in_range(path, value ? *value : scratch) ? 1 : 0;
}

extern "C" int quota_real_update(const char *path, long long value, int revision) {
    if (!path) return -1;
    return real_update(path, value, revision);
}

// ---- reading ---------------------------------------------------------------------------------

extern "C" int quota_read(unsigned account_id, unsigned parent_id, unsigned grandparent_id,
                          int kind, long long *values, int *revisions) {
    return guarded(-1, [&] {
        return read_quota(account_id, parent_id, grandparent_id, kind, values, revisions);
    });
}

extern "C" int quota_read_sql(int account_id, int kind, long long *values, int *revisions) {
    return guarded(-1, [&] { return read_quota_sql(account_id, kind, values, revisions); });
}

extern "C" int get_parid_level(SessionHandle *sess, int account_id, int *parent, char **parent_str,
                               int *level, char **level_str) {
    return guarded(
        -2, [&] { return parid_level(sess, account_id, parent, parent_str, level, level_str); });
}

extern "C" int get_parentid(SessionHandle *sess, int account_id, int *parent, char **parent_str) {
    qx::CStr text(qx_account_get_parent_str_sess(sess, account_id));
    if (!text) return -1;
    if (parent) *parent = to_int(text.get());
    if (parent_str) *parent_str = *text ? text.release() : nullptr;
    return 0;
}

// ---- fast update and verification ------------------------------------------------------------

extern "C" int quota_update(int account_id, int kind, long long delta, int wait) {
    return guarded(-1, [&] { return update(account_id, kind, delta, wait); });
}

extern "C" int quota_update_fast(int kind, long long delta, int wait, int reseller_id,
                                 int client_id, int owner_id) {
    return guarded(
        -1, [&] { return fast_update(kind, delta, wait, reseller_id, client_id, owner_id); });
}

extern "C" int quota_upd_fast_internal(const char *path, long long delta, int wait) {
    return guarded(-1, [&] { return fast_update_file(path, delta, wait); });
}

extern "C" int quota_verify(int account_id, int kind) {
    Ancestry a;
    int result = guarded(-1, [&] { return verify(account_id, kind, a); });
    if (result != 0) {
        FR_LOG(kSrc, kLogChannel, kLogError, kVerifyFmt, kind, a.reseller, a.client, a.owner,
               result, static_cast<int>(result % kLevelFactor),
               static_cast<int>(result / kLevelFactor));
    }
    // The telephony side's logs have always carried this line; operators grep for it.
    std::printf(kVerifyFmt, kind, a.reseller, a.client, a.owner, result,
                static_cast<int>(result % kLevelFactor), static_cast<int>(result / kLevelFactor));
    return result;
}

extern "C" int quota_verify_disk(int kind, int reseller_id, int client_id, int owner_id,
                                 long long reseller_limit, long long client_limit,
                                 long long owner_limit) {
    return guarded(-1, [&] {
        return verify_disk(kind, reseller_id, client_id, owner_id, reseller_limit, client_limit,
                           owner_limit);
    });
}

extern "C" int fine_sleep(float seconds) {
    if (!(seconds >= 0.0f)) {
        errno = EINVAL;
        return -1;
    }
    struct timespec req;
    constexpr float kMaxSeconds = 1e15f;  // far beyond any wait, and safe to convert
    if (seconds > kMaxSeconds) seconds = kMaxSeconds;
    req.tv_sec = static_cast<time_t>(seconds);
    long nsec = static_cast<long>((seconds - static_cast<float>(req.tv_sec)) * 1e9f);
    req.tv_nsec = nsec < 0 ? 0 : (nsec > 999999999L ? 999999999L : nsec);
    struct timespec rem;
    while (::nanosleep(&req, &rem) != 0) {
        if (errno != EINTR) return -1;
        req = rem;
    }
    return 0;
}
