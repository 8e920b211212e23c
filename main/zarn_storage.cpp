// File storage: sessions that put media files into the local POSIX store or hand them to S3
// through the host's transfer service, a local cache of S3 objects, and the upload and delete
// queues kept as sorted sets in the DisDB.
//
// Threads: the configuration (and the registered service table and node id) is one
// process-wide value behind a reader-writer lock; a session copies what it needs when it is
// made, so a reload never changes a session under way. The process-wide cache handle has a
// lock of its own: queue writes use it shared, a re-initialisation replaces it exclusively. A
// session is shared with the service's completion thread: its status and final path change
// only under its own mutex (the status with a signal), and whichever release drops the
// reference count below 1 destroys it.
#include "zarn_storage.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>
#include <new>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "sql_util.hpp"
#include "zarn_base.h"
#include "zarn_cache.h"
#include "zarn_string.h"
#include "zarn_velkan.h"

namespace {

constexpr char kSrc[] = "../main/zarn_storage";
constexpr int kChannel = 3;
constexpr int kError = 3;
constexpr int kWarning = 4;
constexpr int kDebug = 7;

// ---- messages ---------------------------------------------------------------------------
constexpr char kMsgCondition[] = "%s:%d:condition failed\n";
constexpr char kMsgFatalInit[] = "FATAL: Failed to initialize the storage system.\n\n";
constexpr char kMsgDisdbInit[] = "Failed to initialize connection to the DisDB server.\n\n";
constexpr char kMsgCreated[] = "%s:%d:Storage session [%p] created.\n\n";
constexpr char kMsgDestroyed[] = "%s:%d:Storage session [%p] destroyed.\n\n";
constexpr char kMsgS3Disabled[] =
    "S3 engine is disabled due to a configuration error. Storing file to POSIX\n";
constexpr char kMsgUnknownStoreType[] = "Requested to store unknown resource type [%d].\n\n";
constexpr char kMsgTempFailed[] = "Failed to create temporary file [%s]: %s.\n\n";
constexpr char kMsgStoreFailed[] = "Failed to store file [%s]: %s.\n\n";
constexpr char kMsgQueueFailed[] = "Failed to queue file [%s].\n\n";
constexpr char kMsgDbUpdateFailed[] =
    "Fatal: Failed to update the database for the newly stored file [%s].\n\n";
constexpr char kMsgMysql[] = "../main/zarn_storage:%s:%d -MySQL error: %s\n";
constexpr char kMsgInvalidEngine[] =
    "Invalid storage engine specified [%s]. Cannot retrieve file.\n\n";
constexpr char kMsgCannotRetrieve[] = "Cannot retrieve requested file from storage [%s]: %s.\n\n";
constexpr char kMsgUnknownRetrieveType[] = "Requested to retrieve unknown resource type [%d].\n\n";
constexpr char kMsgUnknownDeleteType[] = "Requested to delete unknown resource type [%d].\n\n";
constexpr char kMsgS3RetrieveDisabled[] =
    "The S3 storage engine is disabled due to a configuration error. Cannot retrieve file "
    "from S3.\n";
constexpr char kMsgRemoveFailed[] = "Could not remove file [%s]: %s.\n\n";
constexpr char kMsgAddDelete[] = "%s:%d:Adding member [%s] to delete queue.\n\n";
constexpr char kMsgAddVoicemail[] =
    "%s:%d:Adding voicemail recursive member [%s] to delete queue.\n\n";
constexpr char kMsgAddFax[] = "%s:%d:Adding fax recursive member [%s] to delete queue.\n\n";
constexpr char kMsgAddRecording[] =
    "%s:%d:Adding recording recursive member [%s] to delete queue.\n\n";
constexpr char kMsgCacheRemove[] = "Failed to remove file from storage cache [%s]: %d %s.\n\n";
constexpr char kMsgUpQueueOk[] = "%s:%d:cache_zaddval(storage:upqueue:%s:%s, %s): success\n\n";
constexpr char kMsgUpQueueErr[] = "%s:%d:cache_zaddval(storage:upqueue:%s:%s, %s): error %s\n\n";
constexpr char kMsgDelQueueOk[] = "%s:%d:cache_zaddval(storage:delqueue:%s:%s, %s): success\n\n";
constexpr char kMsgDelQueueErr[] = "%s:%d:cache_zaddval(storage:delqueue:%s:%s, %s): error %s\n\n";
constexpr char kMsgMemberAlloc[] = "Failed to allocate memory for member_key\n\n";
constexpr char kMsgBadSetting[] = "Invalid %s value [%.64s] in <%s>: %s.\n\n";
constexpr char kMsgConfUnreadable[] = "Cannot read <%s>: %s.\n\n";
constexpr char kWhyUnknownSystem[] = "not s3 or posix, using posix";
constexpr char kWhyNotNumber[] = "not a whole number, keeping the default";
constexpr char kWhyEmpty[] = "empty, keeping the default";
constexpr char kWhyTooLong[] = "longer than 4095 characters";
constexpr char kWhyNotSwitch[] = "not yes or no, taking yes";

// ---- statements, keys, formats ------------------------------------------------------------
constexpr char kSqlRecordLocation[] =
    "UPDATE `%s` SET %s = '%s', se = '%s', az = '%s' WHERE id = '%d' LIMIT 1";
constexpr char kKeyUpQueue[] = "storage:upqueue:%s:%s";
constexpr char kKeyDelQueue[] = "storage:delqueue:%s:%s";
constexpr char kMemberUpload[] = "%s:%s";
constexpr char kMemberDeleteObject[] = "%s:o:%s";
constexpr char kMemberDeleteOwner[] = "%s:r:%s";
constexpr char kObjectKey[] = "%s/%d/%d/%d.%s";
constexpr char kOwnerPrefix[] = "%s/%d/%d";
constexpr char kPosixDefaultName[] = "%s/%d/%d/%d.%s";
constexpr char kJoin[] = "%s/%s";
constexpr char kCachePath[] = "%s/%s/%s";
constexpr char kTempName[] = "%s/%s.%s";
constexpr char kMonitorDir[] = "%s/monitor";
constexpr char kMonitorTmp[] = "%s/tmp";
constexpr char kVoicemailDir[] = "%s/voicemail";
constexpr char kVoicemailTmp[] = "%s/voicemail/tmp";
constexpr char kFaxDir[] = "%s/fax";
constexpr char kFaxTmp[] = "%s/fax/tmp";

constexpr char kEngineWordPosix[] = "posix";
constexpr char kEngineWordS3[] = "s3";
constexpr char kShard[] = "main";

// Y is missing from the alphabet; names drawn from it have always looked like this.
constexpr char kNameAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXZabcdefghijklmnopqrstuvwxyz";
constexpr int kNameAlphabetSize = 61;
static_assert(sizeof kNameAlphabet - 1 == kNameAlphabetSize);
constexpr size_t kTempNameLength = 16;
constexpr int kTempAttempts = 5;
constexpr size_t kMaxExtension = 15;
constexpr size_t kMaxDirPath = 4095;
constexpr mode_t kMode = 0770;

// ---- configuration file -------------------------------------------------------------------
constexpr char kConfSystem[] = "STORAGE_SYSTEM";
constexpr char kConfTransferIn[] = "STORAGE_TRANSFERIN_D";
constexpr char kConfTransferOut[] = "STORAGE_TRANSFEROUT_D";
constexpr char kConfCache[] = "STORAGE_CACHE_D";
constexpr char kConfCacheExpire[] = "STORAGE_CACHE_EXPIRE";
constexpr char kConfTrashExpire[] = "STORAGE_TRASH_EXPIRE";
constexpr char kConfUploadInterval[] = "S3_UPL_INTERVAL";
// Whether initialisation (re)creates the DisDB client; the queues need it, so it is on unless
// a node says otherwise (no, off, false or 0).
constexpr char kConfDisdb[] = "STORAGE_DISDB";

#define ST_LOG(priority, ...) FR_LOG(kSrc, kChannel, (priority), __VA_ARGS__)
#define ST_CONDITION_FAILED() ST_LOG(kDebug, kMsgCondition, kSrc, __LINE__)

struct Config {
    int engine = QX_STORAGE_ENGINE_POSIX;
    std::string transfer_in = QX_STORAGE_TRANSFERIN_DIR;
    std::string transfer_out = QX_STORAGE_TRANSFEROUT_DIR;
    std::string cache = QX_STORAGE_CACHE_DIR;
    int cache_expire = 48;
    int trash_expire = 1;
    int upload_interval = 120;
    std::string base_dir;
    std::string monitor_dir;
    bool disdb = true;
};

// Everything below is guarded by g_lock.
std::shared_mutex g_lock;
Config g_config;
std::optional<qx_storage_api> g_api;
qx::CStr g_node_id;

// Guards the process-wide cache handle (*ast_cache_handle()) against its replacement by a
// re-initialisation: queue writes hold it shared for the whole call, the replacement exclusively.
// A separate lock, so that a slow DisDB never holds up a session start.
std::shared_mutex g_client_lock;

struct Snapshot {
    Config config;
    std::optional<qx_storage_api> api;
    std::optional<std::string> node_id;
};

Snapshot snapshot() {
    std::shared_lock lock(g_lock);
    Snapshot s{g_config, g_api, std::nullopt};
    if (g_node_id) s.node_id = g_node_id.get();
    return s;
}

const char *type_word(int type) {
    switch (type) {
        case QX_STORAGE_RECORDING:
            return "rc";
        case QX_STORAGE_VOICEMAIL:
            return "vm";
        case QX_STORAGE_FAX:
            return "fx";
        default:
            return "misc";
    }
}

const char *type_table(int type) {
    switch (type) {
        case QX_STORAGE_RECORDING:
            return "extension_recording";
        case QX_STORAGE_VOICEMAIL:
            return "extension_voicemail";
        case QX_STORAGE_FAX:
            return "extension_fax_center";
        default:
            return nullptr;
    }
}

const char *type_name_column(int type) {
    return type == QX_STORAGE_FAX ? "file_name" : "filename";
}

// The POSIX folder of a type and the folder its temporary files are made in; false for a type
// that has none.
bool posix_folders(const Config &c, int type, std::string *folder, std::string *tmp) {
    switch (type) {
        case QX_STORAGE_RECORDING:
            *folder = c.monitor_dir;
            if (tmp) *tmp = qx::format(kMonitorTmp, c.monitor_dir.c_str());
            return true;
        case QX_STORAGE_VOICEMAIL:
            *folder = qx::format(kVoicemailDir, c.base_dir.c_str());
            if (tmp) *tmp = qx::format(kVoicemailTmp, c.base_dir.c_str());
            return true;
        case QX_STORAGE_FAX:
            *folder = qx::format(kFaxDir, c.base_dir.c_str());
            if (tmp) *tmp = qx::format(kFaxTmp, c.base_dir.c_str());
            return true;
        default:
            return false;
    }
}

std::string cache_path(const Config &c, const std::string &name) {
    return qx::format(kCachePath, c.cache.c_str(), kShard, name.c_str());
}

// mkdir -p with the store's mode; an existing directory is fine.
bool make_dirs(const std::string &dir) {
    if (dir.empty()) return false;
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/') continue;
        std::string part = dir.substr(0, pos);
        if (::mkdir(part.c_str(), kMode) != 0 && errno != EEXIST) return false;
    }
    struct stat st;
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string parent_dir(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Copies through a temporary name and renames, so that a reader of the destination (a cache
// lookup on another thread) never sees a half-written file.
bool copy_file(const std::string &from, const std::string &to) {
    if (!make_dirs(parent_dir(to))) return false;
    qx::UniqueFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in) return false;
    std::string tmp = to + ".XXXXXX";
    qx::UniqueFd out(::mkostemp(tmp.data(), O_CLOEXEC));
    if (!out) return false;
    bool ok = true;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        for (ssize_t off = 0; off < n && ok;) {
            ssize_t w = ::write(out.get(), buf + off, static_cast<size_t>(n - off));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) ok = false;
            off += w > 0 ? w : 0;
        }
        if (!ok) break;
    }
    if (ok) ok = ::fchmod(out.get(), kMode) == 0;
    if (ok) ok = ::close(out.release()) == 0;
    if (ok) ok = ::rename(tmp.c_str(), to.c_str()) == 0;
    if (!ok) {
        const int saved = errno;
        ::unlink(tmp.c_str());
        errno = saved;
    }
    return ok;
}

// Adds one member to a queue on the DisDB's non-persistent handle, with the queue's
// diagnostics. True when the write was accepted.
bool queue_member(const char *key_fmt, const char *ok_msg, const char *err_msg,
                  const std::string &member, int line, const char *func) {
    const auto zadd = [&] {
        return cache_zaddval(0, qx_get_tstamp(), member.c_str(), key_fmt, kEngineWordS3, kShard);
    };
    std::optional<int> done;
    {
        std::shared_lock lock(g_client_lock);
        if (std::atomic_ref<vk_client_t *>(*ast_cache_handle()).load(std::memory_order_acquire))
            done = zadd();
    }
    // Without a client the call creates one, which must not happen on two threads at once.
    if (!done) {
        std::unique_lock lock(g_client_lock);
        done = zadd();
    }
    const int rc = *done;
    if (kDebug <= fr_log_threshold) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        if (rc == 0)
            fr_log_impl(kSrc, line, func, kChannel, kDebug, ok_msg, kSrc, line, kEngineWordS3,
                        kShard, member.c_str());
        else
            fr_log_impl(kSrc, line, func, kChannel, kDebug, err_msg, kSrc, line, kEngineWordS3,
                        kShard, member.c_str(), vk_strerror(rc));
#pragma GCC diagnostic pop
    }
    return rc == 0;
}

bool queue_upload(const std::string &member, int line, const char *func) {
    return queue_member(kKeyUpQueue, kMsgUpQueueOk, kMsgUpQueueErr, member, line, func);
}

bool queue_delete(const std::string &member, int line, const char *func) {
    return queue_member(kKeyDelQueue, kMsgDelQueueOk, kMsgDelQueueErr, member, line, func);
}

bool s3_usable(const std::optional<qx_storage_api> &api) {
    return api && api->s3_usable && api->s3_usable() != 0;
}

std::string cut_extension(const char *ext) {
    if (!ext) return {};
    return std::string(std::string_view(ext).substr(0, kMaxExtension));
}

}  // namespace

struct qx_storage_session {
    Config config;
    std::optional<qx_storage_api> api;
    std::optional<std::string> node_id;
    int engine = QX_STORAGE_ENGINE_POSIX;
    int type = 0;
    int first_id = 0;
    int second_id = 0;
    int file_id = 0;
    std::string extension;
    std::string folder;
    std::string temp_path;
    bool temp_consumed = false;  // the temporary file became the stored file
    std::optional<std::string> requested_name;
    std::string final_path;
    std::string stored_name;
    std::string shard;
    std::optional<std::string> location;
    void *download_request = nullptr;

    std::mutex mutex;
    std::condition_variable changed;
    int status = QX_STORAGE_PENDING;  // guarded by mutex
    std::atomic<int> refs{1};

    ~qx_storage_session() {
        if (!temp_path.empty() && !temp_consumed) ::unlink(temp_path.c_str());
        if (download_request && api && api->release_download)
            api->release_download(download_request);
    }
};

namespace {

// Every way a session ends (the last release, or a failure while making it) goes through here.
struct SessionDeleter {
    void operator()(qx_storage_session *s) const {
        ST_LOG(kDebug, kMsgDestroyed, kSrc, __LINE__, static_cast<void *>(s));
        std::unique_ptr<qx_storage_session> own(s);
    }
};
using SessionOwner = std::unique_ptr<qx_storage_session, SessionDeleter>;

// The final path is read by other threads (qx_storage_get_file_path) while a commit sets it.
void set_final_path(qx_storage_session *s, std::string path) {
    std::lock_guard lock(s->mutex);
    s->final_path = std::move(path);
}

void set_status(qx_storage_session *s, int status) {
    {
        std::lock_guard lock(s->mutex);
        s->status = status;
    }
    s->changed.notify_all();
}

// A pending session holding a snapshot of the configuration, logged as created.
SessionOwner new_session(int type) {
    Snapshot snap = snapshot();
    SessionOwner s(std::make_unique<qx_storage_session>().release());
    s->config = std::move(snap.config);
    s->api = snap.api;
    s->node_id = std::move(snap.node_id);
    s->engine = s->config.engine;
    s->type = type;
    ST_LOG(kDebug, kMsgCreated, kSrc, __LINE__, static_cast<void *>(s.get()));
    return s;
}

// Draws names until one can be created exclusively; collisions are retried, anything else
// ends the attempt at once.
bool create_temp_file(qx_storage_session *s, const std::string &folder) {
    std::string path;
    for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
        std::string name(kTempNameLength, '0');
        for (char &c : name)
            c = kNameAlphabet[std::rand() % kNameAlphabetSize];
        path = s->extension.empty()
                   ? qx::format(kJoin, folder.c_str(), name.c_str())
                   : qx::format(kTempName, folder.c_str(), name.c_str(), s->extension.c_str());
        qx::UniqueFd fd(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, kMode));
        if (fd) {
            s->temp_path = path;
            return true;
        }
        if (errno != EEXIST) break;
    }
    ST_LOG(kError, kMsgTempFailed, path.c_str(), std::strerror(errno));
    return false;
}

void record_location(qx_storage_session *s, const std::string &final_path) {
    const char *table = type_table(s->type);
    if (!table) return;  // files of other types have no database row
    const bool s3 = s->engine == QX_STORAGE_ENGINE_S3;
    qx::SessionGuard sess;
    if (!sess) {
        ST_LOG(kError, kMsgDbUpdateFailed, s3 ? s->stored_name.c_str() : final_path.c_str());
        return;
    }
    MYSQL_RES *raw = nullptr;
    const int rc =
        fr_sql_conn_query(sess.get(), 1, &raw, kSqlRecordLocation, table, type_name_column(s->type),
                          s3 ? s->stored_name.c_str() : "", s3 ? kEngineWordS3 : kEngineWordPosix,
                          s->location ? s->location->c_str() : "", s->file_id);
    qx::Result res(raw);
    if (rc != 0) ST_LOG(kDebug, kMsgMysql, __func__, __LINE__, sess.error());
}

int commit_posix(qx_storage_session *s) {
    const std::string &f = s->folder;
    std::string path;
    if (!s->requested_name)
        path = qx::format(kPosixDefaultName, f.c_str(), s->first_id, s->second_id, s->file_id,
                          s->extension.c_str());
    else if (!s->requested_name->empty() && (*s->requested_name)[0] == '/')
        path = *s->requested_name;
    else
        path = qx::format(kJoin, f.c_str(), s->requested_name->c_str());
    set_final_path(s, path);

    if (!make_dirs(parent_dir(path))) {
        ST_LOG(kError, kMsgStoreFailed, path.c_str(), std::strerror(errno));
        return -1;
    }
    if (::rename(s->temp_path.c_str(), path.c_str()) == 0) {
        s->temp_consumed = true;
    } else if (errno == EXDEV && copy_file(s->temp_path, path)) {
        // A name on another file system cannot be renamed to; the copy stands in.
    } else {
        ST_LOG(kError, kMsgStoreFailed, path.c_str(), std::strerror(errno));
        return -1;
    }
    ::chmod(path.c_str(), kMode);

    if (path.size() > f.size() && strncasecmp(path.c_str(), f.c_str(), f.size()) == 0)
        s->stored_name = path.substr(f.size() + 1);
    else
        s->stored_name = path;
    record_location(s, path);
    return 0;
}

int commit_s3(qx_storage_session *s) {
    s->stored_name = qx::format(kObjectKey, type_word(s->type), s->first_id, s->second_id,
                                s->file_id, s->extension.c_str());
    const std::string path = cache_path(s->config, s->stored_name);
    set_final_path(s, path);
    if (!copy_file(s->temp_path, path)) {
        ST_LOG(kError, kMsgStoreFailed, path.c_str(), std::strerror(errno));
        return -1;
    }
    std::string member;
    try {
        member = qx::format(kMemberUpload, s->location ? s->location->c_str() : "",
                            s->stored_name.c_str());
    } catch (const std::bad_alloc &) {
        ST_LOG(kError, kMsgMemberAlloc);
        return -1;
    }
    if (!queue_upload(member, __LINE__, __func__)) {
        ST_LOG(kError, kMsgQueueFailed, s->stored_name.c_str());
        return -1;
    }
    record_location(s, path);
    return 0;
}

// The service's completion: may run on any thread, before or after the download call returned.
void download_done(int code, const char *path, void *arg) {
    auto *s = static_cast<qx_storage_session *>(arg);
    int status = QX_STORAGE_FAILED;
    std::string cached;
    try {
        if (code == QX_STORAGE_DOWNLOAD_OK && path) {
            cached = cache_path(s->config, s->stored_name);
            if (copy_file(path, cached)) status = QX_STORAGE_READY;
            ::unlink(path);
        }
    } catch (...) {
        status = QX_STORAGE_FAILED;
    }
    {
        std::lock_guard lock(s->mutex);
        if (status == QX_STORAGE_READY)
            s->final_path.swap(cached);
        else
            s->final_path.clear();
        s->status = status;
    }
    s->changed.notify_all();
    qx_storage_release_session(s);
}

qx_storage_session *retrieve_posix(SessionOwner s, const char *stored_name) {
    if (!posix_folders(s->config, s->type, &s->folder, nullptr)) {
        ST_LOG(kError, kMsgUnknownRetrieveType, s->type);
        return nullptr;
    }
    std::string path = qx::format(kJoin, s->folder.c_str(), stored_name);
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        ST_LOG(kWarning, kMsgCannotRetrieve, path.c_str(), std::strerror(errno));
        return nullptr;
    }
    s->stored_name = stored_name;
    s->final_path = std::move(path);
    s->status = QX_STORAGE_READY;
    return s.release();
}

qx_storage_session *retrieve_s3(SessionOwner s, const char *stored_name, const char *extra) {
    if (!s3_usable(s->api)) {
        ST_LOG(kError, kMsgS3RetrieveDisabled);
        return nullptr;
    }
    s->shard = kShard;
    s->stored_name = stored_name;
    std::string cached = cache_path(s->config, s->stored_name);
    struct stat st;
    if (::stat(cached.c_str(), &st) == 0) {
        s->final_path = std::move(cached);
        s->status = QX_STORAGE_READY;
        return s.release();
    }

    // The download lands in a file of our own in the transfer-in directory, named like any
    // temporary file and carrying the object's extension.
    std::string_view base(stored_name);
    if (size_t slash = base.rfind('/'); slash != std::string_view::npos)
        base.remove_prefix(slash + 1);
    if (size_t dot = base.rfind('.'); dot != std::string_view::npos)
        s->extension = cut_extension(std::string(base.substr(dot + 1)).c_str());
    if (!make_dirs(s->config.transfer_in)) {
        ST_LOG(kError, kMsgTempFailed, s->config.transfer_in.c_str(), std::strerror(errno));
        return nullptr;
    }
    if (!create_temp_file(s.get(), s->config.transfer_in)) return nullptr;

    qx_storage_session *raw = s.release();
    raw->refs.fetch_add(1);  // the service's reference, given back by download_done
    void *request = raw->api->download
                        ? raw->api->download(stored_name, kShard, kEngineWordS3, extra,
                                             raw->temp_path.c_str(), download_done, raw)
                        : nullptr;
    if (!request) {
        set_status(raw, QX_STORAGE_FAILED);
        qx_storage_release_session(raw);
    } else {
        std::lock_guard lock(raw->mutex);
        raw->download_request = request;
    }
    return raw;
}

bool is_off(const char *value) {
    return value && (strcasecmp(value, "no") == 0 || strcasecmp(value, "off") == 0 ||
                     strcasecmp(value, "false") == 0 || std::strcmp(value, "0") == 0);
}

bool is_on(const char *value) {
    return value && (strcasecmp(value, "yes") == 0 || strcasecmp(value, "on") == 0 ||
                     strcasecmp(value, "true") == 0 || std::strcmp(value, "1") == 0);
}

// A whole decimal number that fits an int, the numbers the configuration reader accepts.
std::optional<int> to_int(const char *text) {
    errno = 0;
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < INT_MIN || v > INT_MAX)
        return std::nullopt;
    return static_cast<int>(v);
}

void report_setting(const char *directive, const char *value, const char *why) {
    ST_LOG(kError, kMsgBadSetting, directive, value, QX_STORAGE_CONF, why);
}

// Reads storage.conf over the defaults; a value that cannot be used is reported and the
// default stays. False when a setting makes the configuration unusable.
bool read_config(Config *c) {
    char *system = nullptr, *in = nullptr, *out = nullptr, *cache = nullptr, *disdb = nullptr;
    char *cache_expire = nullptr, *trash_expire = nullptr, *upload_interval = nullptr;
    // Numbers are read as text so that a malformed one is reported, not skipped.
    const fr_conf_entry table[] = {
        {kConfSystem, FR_CONF_STRING, &system},
        {kConfTransferIn, FR_CONF_STRING, &in},
        {kConfTransferOut, FR_CONF_STRING, &out},
        {kConfCache, FR_CONF_STRING, &cache},
        {kConfCacheExpire, FR_CONF_STRING, &cache_expire},
        {kConfTrashExpire, FR_CONF_STRING, &trash_expire},
        {kConfUploadInterval, FR_CONF_STRING, &upload_interval},
        {kConfDisdb, FR_CONF_STRING, &disdb},
    };
    // A node without storage.conf runs on the defaults; one that cannot read its file is told.
    // A file with a rejected line (already logged) is not loaded at all, so the configuration in
    // force stays.
    const int rejected = parseconfig(QX_STORAGE_CONF, table, sizeof table / sizeof table[0]);
    if (rejected < 0 && errno != ENOENT)
        ST_LOG(kError, kMsgConfUnreadable, QX_STORAGE_CONF, std::strerror(errno));
    qx::CStr own_system(system), own_in(in), own_out(out), own_cache(cache), own_disdb(disdb);
    qx::CStr own_cache_expire(cache_expire), own_trash_expire(trash_expire),
        own_upload_interval(upload_interval);
    if (rejected > 0) return false;

    c->engine = system && std::strcmp(system, kEngineWordS3) == 0 ? QX_STORAGE_ENGINE_S3
                                                                  : QX_STORAGE_ENGINE_POSIX;
    if (system && c->engine == QX_STORAGE_ENGINE_POSIX && std::strcmp(system, kEngineWordPosix))
        report_setting(kConfSystem, system, kWhyUnknownSystem);

    bool usable = true;
    const std::pair<const char *, const char *> dir_names[] = {
        {kConfTransferIn, in}, {kConfTransferOut, out}, {kConfCache, cache}};
    std::string *const dirs[] = {&c->transfer_in, &c->transfer_out, &c->cache};
    for (size_t i = 0; i < std::size(dirs); ++i) {
        const auto [name, value] = dir_names[i];
        if (!value) continue;
        if (!*value) {
            report_setting(name, value, kWhyEmpty);
        } else if (std::strlen(value) > kMaxDirPath) {
            report_setting(name, value, kWhyTooLong);
            usable = false;
        } else {
            *dirs[i] = value;
        }
    }

    const std::pair<const char *, const char *> int_names[] = {
        {kConfCacheExpire, cache_expire},
        {kConfTrashExpire, trash_expire},
        {kConfUploadInterval, upload_interval}};
    int *const ints[] = {&c->cache_expire, &c->trash_expire, &c->upload_interval};
    for (size_t i = 0; i < std::size(ints); ++i) {
        const auto [name, value] = int_names[i];
        if (!value) continue;
        if (auto n = to_int(value))
            *ints[i] = *n;
        else
            report_setting(name, value, kWhyNotNumber);
    }

    c->disdb = !is_off(disdb);
    if (disdb && c->disdb && !is_on(disdb)) report_setting(kConfDisdb, disdb, kWhyNotSwitch);

    for (const std::string *dir : {&c->base_dir, &c->monitor_dir})
        if (dir->size() > kMaxDirPath) return false;
    return usable;
}

// Clients replaced by a re-initialisation stay alive (and reachable) for the rest of the process:
// a thread may still be inside a call on one.
void retire_cache_client(vk_client_t *client) {
    static std::mutex mutex;
    // Constructed in static storage and never destroyed, so that the list outlives the static
    // destructors that run at exit while other threads may still be working.
    using List = std::vector<vk_client_t *>;
    alignas(List) static unsigned char storage[sizeof(List)];
    static List *const retired = ::new (storage) List();
    std::lock_guard lock(mutex);
    retired->push_back(client);
}

}  // namespace

extern "C" {

int qx_storage_load_config(const char *base_dir, const char *monitor_dir) {
    if (!base_dir || !*base_dir) {
        ST_CONDITION_FAILED();
        return -1;
    }
    try {
        Config c;
        c.base_dir = base_dir;
        c.monitor_dir = monitor_dir ? monitor_dir : qx::format(kMonitorDir, base_dir);
        if (!read_config(&c)) {
            ST_CONDITION_FAILED();
            return -1;
        }
        std::unique_lock lock(g_lock);
        g_config = std::move(c);
        return 0;
    } catch (...) {
        return -1;
    }
}

int qx_storage_initialize(const char *base_dir, const char *monitor_dir) {
    {
        std::unique_lock lock(g_lock);
        g_node_id.reset(get_nodeid());
    }
    if (qx_storage_load_config(base_dir, monitor_dir) != 0) {
        ST_LOG(kError, kMsgFatalInit);
        return -1;
    }
    bool disdb;
    {
        std::shared_lock lock(g_lock);
        disdb = g_config.disdb;
    }
    if (!disdb) return 0;
    // A fresh client, so that a re-initialisation after a configuration change talks to the
    // servers now configured. It is set up aside and then published: other threads may be
    // inside a call on the old client (the cache lock hooks do not exclude them), so the old
    // one is never freed, and nobody sees a missing or half-configured handle.
    vk_client_t *fresh = nullptr;
    const int rc = ast_vk_init(&fresh);
    if (fresh) {
        std::unique_lock lock(g_client_lock);
        // Lookups of other modules read the handle without this lock, atomically.
        std::atomic_ref<vk_client_t *> handle(*ast_cache_handle());
        ast_cache_wrlock();
        if (vk_client_t *old = handle.load(std::memory_order_acquire)) retire_cache_client(old);
        handle.store(fresh, std::memory_order_release);
        ast_cache_unlock();
    }
    if (rc != 0) {
        ST_LOG(kError, kMsgDisdbInit);
        return -1;
    }
    return 0;
}

void qx_storage_cleanup(void) {
    std::unique_lock lock(g_lock);
    g_node_id.reset();
}

void qx_storage_get_intervals(int *cache_expire, int *trash_expire, int *upload_interval) {
    std::shared_lock lock(g_lock);
    if (cache_expire) *cache_expire = g_config.cache_expire;
    if (trash_expire) *trash_expire = g_config.trash_expire;
    if (upload_interval) *upload_interval = g_config.upload_interval;
}

void qx_storage_register_api(const qx_storage_api *api) {
    std::unique_lock lock(g_lock);
    if (api)
        g_api = *api;
    else
        g_api.reset();
}

void qx_storage_unregister_api(void) {
    std::unique_lock lock(g_lock);
    g_api.reset();
}

int qx_storage_engine_from_text(const char *word) {
    if (!word || strcasecmp(word, kEngineWordPosix) == 0) return QX_STORAGE_ENGINE_POSIX;
    if (strcasecmp(word, kEngineWordS3) == 0) return QX_STORAGE_ENGINE_S3;
    return QX_STORAGE_ENGINE_INVALID;
}

qx_storage_session *qx_storage_session_create(int type, int first_id, int second_id,
                                              const char *extension) {
    try {
        SessionOwner s = new_session(type);
        if (s->config.base_dir.empty()) {  // never initialised
            ST_CONDITION_FAILED();
            return nullptr;
        }
        s->first_id = first_id;
        s->second_id = second_id;
        s->extension = cut_extension(extension);

        if (s->engine == QX_STORAGE_ENGINE_S3 && !s3_usable(s->api)) {
            ST_LOG(kWarning, kMsgS3Disabled);
            s->engine = QX_STORAGE_ENGINE_POSIX;
        }
        std::string tmp;
        if (s->engine == QX_STORAGE_ENGINE_POSIX) {
            if (!posix_folders(s->config, type, &s->folder, &tmp)) {
                ST_LOG(kError, kMsgUnknownStoreType, type);
                return nullptr;
            }
        } else {
            // Files leave for the object store from the shard's transfer-out folder.
            s->shard = kShard;
            tmp = qx::format(kJoin, s->config.transfer_out.c_str(), kShard);
        }
        if (!make_dirs(tmp)) {
            ST_LOG(kError, kMsgTempFailed, tmp.c_str(), std::strerror(errno));
            return nullptr;
        }
        if (!create_temp_file(s.get(), tmp)) return nullptr;

        if (s->api) {
            qx::CStr location(s->api->location
                                  ? s->api->location(s->node_id ? s->node_id->c_str() : nullptr,
                                                     nullptr, nullptr, nullptr)
                                  : nullptr);
            if (!location) {
                ST_CONDITION_FAILED();
                return nullptr;
            }
            s->location = location.get();
        }
        return s.release();
    } catch (...) {
        return nullptr;
    }
}

const char *qx_storage_get_temp_file(qx_storage_session *session) {
    if (!session || session->temp_path.empty()) return nullptr;
    return session->temp_path.c_str();
}

const char *qx_storage_get_file_path(qx_storage_session *session) {
    if (!session) return nullptr;
    std::lock_guard lock(session->mutex);
    return session->final_path.empty() ? nullptr : session->final_path.c_str();
}

int qx_storage_set_posix_filename(qx_storage_session *session, const char *name) {
    if (!session) return -1;
    try {
        if (name)
            session->requested_name = name;
        else
            session->requested_name.reset();
        return 0;
    } catch (...) {
        return -1;
    }
}

int qx_storage_commit_file(qx_storage_session *session, int file_id) {
    if (!session || session->temp_path.empty()) {
        ST_CONDITION_FAILED();
        return -1;
    }
    try {
        session->file_id = file_id;
        const int rc =
            session->engine == QX_STORAGE_ENGINE_S3 ? commit_s3(session) : commit_posix(session);
        set_status(session, rc == 0 ? QX_STORAGE_READY : QX_STORAGE_FAILED);
        return rc;
    } catch (...) {
        return -1;
    }
}

qx_storage_session *qx_storage_session_retrieve(int type, const char *stored_name,
                                                const char *engine, const char *extra) {
    const int e = qx_storage_engine_from_text(engine);
    if (e == QX_STORAGE_ENGINE_INVALID) {
        ST_LOG(kError, kMsgInvalidEngine, engine);
        return nullptr;
    }
    if (!stored_name) {
        ST_CONDITION_FAILED();
        return nullptr;
    }
    try {
        SessionOwner s = new_session(type);
        s->engine = e;
        return e == QX_STORAGE_ENGINE_POSIX ? retrieve_posix(std::move(s), stored_name)
                                            : retrieve_s3(std::move(s), stored_name, extra);
    } catch (...) {
        return nullptr;
    }
}

int qx_storage_wait_for_file(qx_storage_session *session) {
    if (!session) return QX_STORAGE_FAILED;
    std::unique_lock lock(session->mutex);
    session->changed.wait(lock, [session] { return session->status != QX_STORAGE_PENDING; });
    return session->status;
}

int qx_storage_get_session_status(qx_storage_session *session) {
    if (!session) return QX_STORAGE_FAILED;
    std::lock_guard lock(session->mutex);
    return session->status;
}

void qx_storage_ref_session(qx_storage_session *session) {
    if (session) session->refs.fetch_add(1);
}

void qx_storage_release_session(qx_storage_session *session) {
    if (!session) return;
    if (session->refs.fetch_sub(1) - 1 >= 1) return;
    SessionOwner owner(session);
}

int qx_storage_delete(int type, const char *stored_name, const char *engine, const char *location) {
    const int e = qx_storage_engine_from_text(engine);
    if (e == QX_STORAGE_ENGINE_INVALID) {
        errno = EINVAL;
        return -1;
    }
    try {
        Snapshot snap = snapshot();
        if (e == QX_STORAGE_ENGINE_POSIX) {
            std::string folder;
            if (!stored_name) {
                ST_CONDITION_FAILED();
                return -1;
            }
            if (!posix_folders(snap.config, type, &folder, nullptr)) {
                ST_LOG(kError, kMsgUnknownDeleteType, type);
                return -1;
            }
            std::string path = qx::format(kJoin, folder.c_str(), stored_name);
            if (::unlink(path.c_str()) != 0) {
                ST_LOG(kError, kMsgRemoveFailed, path.c_str(), std::strerror(errno));
                return -1;
            }
            return 0;
        }
        if (!location || !stored_name) return 0;  // nothing was ever uploaded
        std::string member = qx::format(kMemberDeleteObject, location, stored_name);
        ST_LOG(kDebug, kMsgAddDelete, kSrc, __LINE__, member.c_str());
        if (!queue_delete(member, __LINE__, __func__)) {
            errno = EIO;
            return -1;
        }
        const std::string cached = cache_path(snap.config, stored_name);
        if (::unlink(cached.c_str()) != 0 && errno != ENOENT)
            ST_LOG(kError, kMsgCacheRemove, cached.c_str(), errno, std::strerror(errno));
        return 0;
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
}

int qx_storage_delete_extension(int second_id, const char *text_a, int first_id, const char *text_b,
                                void *arg) {
    Snapshot snap;
    try {
        snap = snapshot();
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
    qx::CStr location(snap.api && snap.api->location
                          ? snap.api->location(snap.node_id ? snap.node_id->c_str() : nullptr,
                                               text_a, text_b, arg)
                          : nullptr);
    if (!location) {
        errno = ENOBUFS;
        return -1;
    }
    struct Owner {
        int type;
        const char *message;
    };
    const Owner owners[] = {
        {QX_STORAGE_VOICEMAIL, kMsgAddVoicemail},
        {QX_STORAGE_FAX, kMsgAddFax},
        {QX_STORAGE_RECORDING, kMsgAddRecording},
    };
    for (const Owner &o : owners) {
        std::string member;
        try {
            std::string prefix = qx::format(kOwnerPrefix, type_word(o.type), first_id, second_id);
            member = qx::format(kMemberDeleteOwner, location.get(), prefix.c_str());
        } catch (...) {
            errno = ENOMEM;
            return -1;
        }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        ST_LOG(kDebug, o.message, kSrc, __LINE__, member.c_str());
#pragma GCC diagnostic pop
        if (!queue_delete(member, __LINE__, __func__)) {
            errno = EIO;
            return -1;
        }
    }
    return 0;
}

}  // extern "C"
