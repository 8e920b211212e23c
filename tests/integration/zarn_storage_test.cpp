// File storage against real directories under the root, the sandbox DisDB and database, and a
// transfer service played by the test.

#include <cerrno>
#include <cmath>
#include <new>
#include <sstream>

#include "integration.hpp"
#include "qx_paths.h"
#include "zarn_storage.h"

// Allocations fail while set: the module's own out-of-memory paths, on demand.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static std::atomic<bool> g_fail_new{false};
void *operator new(std::size_t n) {
    if (g_fail_new) throw std::bad_alloc();
    if (void *p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept {
    std::free(p);
}
void operator delete(void *p, std::size_t) noexcept {
    std::free(p);
}

using qxtest::put;

constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXZabcdefghijklmnopqrstuvwxyz";
const std::string kUpQueue = "storage:upqueue:s3:main", kDelQueue = "storage:delqueue:s3:main";

struct Download {
    std::string args, target;  // args: "stored|shard|engine|extra"
    qx_storage_download_done_fn done;
    void *arg;
};

struct FakeService {
    std::atomic<bool> usable{true}, refuse{false}, starve_after_location{false};
    std::atomic<int> releases{0};
    std::string location = "zone-a", location_args;  // "node|a|b|arg" of the last query
    std::mutex mutex;
    std::vector<Download> downloads;
} *g_service = nullptr;

const char *or_dash(const char *s) {
    return s ? s : "-";
}

const qx_storage_api kApi = {
    [] { return g_service->usable ? 1 : 0; },
    [](const char *node, const char *a, const char *b, void *arg) -> char * {
        std::lock_guard lock(g_service->mutex);
        g_service->location_args = std::string(or_dash(node)) + "|" + or_dash(a) + "|" +
                                   or_dash(b) + "|" + (arg ? "arg" : "-");
        char *out = g_service->location.empty() ? nullptr : strdup(g_service->location.c_str());
        if (g_service->starve_after_location) g_fail_new = true;
        return out;
    },
    [](const char *stored, const char *shard, const char *engine, const char *extra,
       const char *target, qx_storage_download_done_fn done, void *arg) -> void * {
        if (g_service->refuse) return nullptr;
        std::lock_guard lock(g_service->mutex);
        g_service->downloads.push_back(
            {std::string(stored) + "|" + shard + "|" + engine + "|" + or_dash(extra), target, done,
             arg});
        return reinterpret_cast<void *>(g_service->downloads.size());
    },
    [](void *) { ++g_service->releases; },
};

std::string conf_text(const char *system) {
    return std::string("STORAGE_SYSTEM ") + system +
           "\nSTORAGE_TRANSFERIN_D " QX_STORAGE_TRANSFERIN_DIR
           "\nSTORAGE_TRANSFEROUT_D " QX_STORAGE_TRANSFEROUT_DIR
           "\nSTORAGE_CACHE_D " QX_STORAGE_CACHE_DIR
           "\nSTORAGE_CACHE_EXPIRE 7\nS3_UPL_INTERVAL 30\n";
}

class Storage : public SqlTest {
  protected:
    static std::string content(const char *p) {
        return p ? qxtest::read_file(p).value_or("?") : "-";
    }
    static std::string cache_file(const std::string &key) {
        return QX_STORAGE_CACHE_DIR "/main/" + key;
    }
    static std::string temp_dir(qx_storage_session *s) {
        return fs::path(qx_storage_get_temp_file(s)).parent_path();
    }

    void SetUp() override {
        ids_ = qxtest::fresh_ids();
        ext_ = qxtest::add_extension(ids_, "100", std::to_string(ids_) + "*100");
        base_ = qxtest::path("/var/tmp/storage-test/") + std::to_string(ids_);
        g_service = &service_;
        qx_storage_register_api(&kApi);
        init("posix");
    }
    void TearDown() override {
        qx_storage_unregister_api();
        qx_storage_cleanup();
        qxtest::clear_ids(ids_);
        // Queue members and cached objects all carry the owner ids.
        const std::string mine = "/" + std::to_string(ids_) + "/";
        for (const std::string &queue : {kUpQueue, kDelQueue}) {
            std::stringstream members(qxtest::redis({"ZRANGE", queue, "0", "-1"}));
            for (std::string m; std::getline(members, m);)
                if (m.find(mine) != std::string::npos) qxtest::redis({"ZREM", queue, m});
        }
        for (const char *word : {"rc", "vm", "fx"})
            fs::remove_all(cache_file(word + mine));
        fs::remove_all(base_);
    }

    void init(const char *system) {
        qxtest::ConfFile conf(QX_STORAGE_CONF, conf_text(system));
        ASSERT_EQ(qx_storage_initialize(base_.c_str(), nullptr), 0);
    }

    // A row of the type's table; its id is the file id of a commit.
    int add_row(const std::string &table) {
        return qxtest::sql_int("INSERT INTO " + table + " (extension_id) VALUES (" +
                               std::to_string(ext_) + "); SELECT LAST_INSERT_ID()");
    }
    // "name|engine|location" of a row, without the NULL columns.
    std::string stored(const std::string &table, const std::string &name_col, int id) {
        return *qxtest::sql_rows("SELECT CONCAT_WS('|', " + name_col + ", se, az) FROM " + table +
                                 " WHERE id=" + std::to_string(id))[0][0];
    }
    int ids_ = 0, ext_ = 0;
    std::string base_;
    FakeService service_;
};

// Each type in its folder, under the default name or the one requested (relative to the folder,
// or absolute: inside the folder it is stored relative, outside it cannot be retrieved); fax
// with S3 configured but unusable, which stores under POSIX too.
TEST_F(Storage, PosixStoresAndRetrievesEachType) {
    const struct {
        int type;
        const char *table, *name_col, *folder;
        bool s3_down;
        const char *name;  // requested (absolute ones below base_); null: the default
    } cases[] = {
        {1, "extension_recording", "filename", "/monitor", false, nullptr},
        {2, "extension_voicemail", "filename", "/voicemail", false, "/voicemail/Old/m1.gsm"},
        {2, "extension_voicemail", "filename", "/voicemail", false, "/elsewhere/m2.gsm"},
        {3, "extension_fax_center", "file_name", "/fax", true, "INBOX/m3.pdf"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name ? c.name : c.table);
        init(c.s3_down ? "s3" : "posix");
        service_.usable = !c.s3_down;
        const std::string folder = base_ + c.folder;
        const int id = add_row(c.table);
        qxtest::LogCapture log;
        qx_storage_session *s = qx_storage_session_create(c.type, 7, 8, "wav");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(log.contains("S3 engine is disabled due to a configuration error. Storing file "
                               "to POSIX"),
                  c.s3_down);
        EXPECT_EQ(qx_storage_get_session_status(s), 1);
        const std::string temp = qx_storage_get_temp_file(s);
        EXPECT_EQ(temp_dir(s), folder + "/tmp");
        put(temp, "payload");
        const std::string requested = !c.name ? "" : c.name[0] == '/' ? base_ + c.name : c.name;
        const std::string path = !c.name            ? folder + "/7/8/" + std::to_string(id) + ".wav"
                                 : c.name[0] == '/' ? requested
                                                    : folder + "/" + c.name;
        EXPECT_EQ(qx_storage_set_posix_filename(s, c.name ? requested.c_str() : nullptr), 0);
        ASSERT_EQ(qx_storage_commit_file(s, id), 0);
        EXPECT_EQ(qx_storage_get_file_path(s), path);
        EXPECT_EQ(content(path.c_str()), "payload");
        EXPECT_FALSE(fs::exists(temp));
        EXPECT_EQ(fs::status(path).permissions(), fs::perms(0770));
        qx_storage_release_session(s);
        // The POSIX store records no name: the path follows from the row.
        EXPECT_EQ(stored(c.table, c.name_col, id), "|posix|zone-a");
        EXPECT_EQ(qxtest::redis({"ZRANGE", kUpQueue, "0", "-1"}).find("/7/8/"), std::string::npos);
        if (!path.starts_with(folder)) continue;
        const std::string name = path.substr(folder.size() + 1);
        qx_storage_session *got = qx_storage_session_retrieve(c.type, name.c_str(), nullptr, "");
        ASSERT_NE(got, nullptr);
        EXPECT_EQ(qx_storage_wait_for_file(got), 3);
        EXPECT_EQ(qx_storage_get_file_path(got), path);
        qx_storage_release_session(got);
        EXPECT_EQ(qx_storage_delete(c.type, name.c_str(), "posix", nullptr), 0);
        EXPECT_FALSE(fs::exists(path));
        EXPECT_EQ(qx_storage_delete(c.type, name.c_str(), "posix", nullptr), -1);
        EXPECT_TRUE(log.contains("Could not remove file [" + path + "]"));
        EXPECT_EQ(qx_storage_session_retrieve(c.type, name.c_str(), "posix", ""), nullptr);
        EXPECT_TRUE(log.contains("Cannot retrieve requested file from storage [" + path));
        if (!c.s3_down) continue;
        EXPECT_EQ(qx_storage_session_retrieve(c.type, "fx/5/6/1.pdf", "s3", ""), nullptr);
        EXPECT_TRUE(
            log.contains("The S3 storage engine is disabled due to a configuration error. "
                         "Cannot retrieve file from S3."));
    }
    EXPECT_EQ(service_.downloads.size(), 0u);
}

TEST_F(Storage, TemporaryNamesAreSixteenDrawnCharactersAndTheCutExtension) {
    const std::pair<const char *, const char *> cases[] = {
        {nullptr, ""},
        {"", ""},
        {"wav", ".wav"},
        {"abcdefghijklmnopqrst", ".abcdefghijklmno"},
        {"abcdefghijklmno", ".abcdefghijklmno"}};  // cut to 15 characters
    for (auto [ext, suffix] : cases) {
        qx_storage_session *s = qx_storage_session_create(3, 1, 2, ext);
        ASSERT_NE(s, nullptr);
        const std::string name = fs::path(qx_storage_get_temp_file(s)).filename();
        ASSERT_EQ(name.size(), 16 + std::strlen(suffix)) << name;
        EXPECT_EQ(name.substr(16), suffix);
        EXPECT_EQ(name.substr(0, 16).find_first_not_of(kAlphabet), std::string::npos) << name;
        const std::string temp = qx_storage_get_temp_file(s);
        EXPECT_TRUE(fs::exists(temp));
        qx_storage_release_session(s);
        EXPECT_FALSE(fs::exists(temp)) << "the uncommitted temporary file outlived its session";
    }

    // Names are drawn with rand(): four taken names make the fifth draw, five fail the session.
    std::srand(4242);
    std::vector<std::string> names(5, base_ + "/fax/tmp/");
    for (auto &n : names) {
        for (int i = 0; i < 16; ++i)
            n += kAlphabet[std::rand() % 61];
        n += ".pdf";
    }
    for (size_t taken : {4u, 5u}) {
        for (size_t i = 0; i < taken; ++i)
            put(names[i], "taken");
        qxtest::LogCapture log;
        std::srand(4242);
        qx_storage_session *s = qx_storage_session_create(3, 1, 2, "pdf");
        EXPECT_EQ(s ? qx_storage_get_temp_file(s) : "-", taken == 4 ? names[4] : "-");
        if (s) qx_storage_release_session(s);
        EXPECT_EQ(log.contains("Failed to create temporary file [" + names[4] + "]"), taken == 5);
    }
    for (const auto &n : names)
        EXPECT_EQ(content(n.c_str()), "taken");
}

TEST_F(Storage, RejectsUnknownTypesAndEngines) {
    qxtest::LogCapture log;
    EXPECT_EQ(qx_storage_session_create(9, 1, 2, "wav"), nullptr);
    EXPECT_TRUE(log.contains("Requested to store unknown resource type [9]."));
    EXPECT_EQ(qx_storage_session_retrieve(9, "1/2/3.wav", "posix", ""), nullptr);
    EXPECT_TRUE(log.contains("Requested to retrieve unknown resource type [9]."));
    EXPECT_EQ(qx_storage_session_retrieve(1, "1/2/3.wav", "ftp", ""), nullptr);
    EXPECT_TRUE(log.contains("Invalid storage engine specified [ftp]. Cannot retrieve file."));
    errno = 0;
    EXPECT_EQ(qx_storage_delete(1, "1/2/3.wav", "s3x", "zone"), -1);
    EXPECT_EQ(errno, EINVAL);
    const std::pair<const char *, int> words[] = {{nullptr, 1}, {"Posix", 1}, {"S3", 2},
                                                  {"s3 ", -1},  {"posi", -1}, {"", -1}};
    for (auto [word, engine] : words)
        EXPECT_EQ(qx_storage_engine_from_text(word), engine) << or_dash(word);
}

TEST_F(Storage, ReleasingFreesTheSessionExactlyOnce) {
    qxtest::LogCapture log;
    qx_storage_session *s = qx_storage_session_create(1, 1, 2, "wav");
    ASSERT_NE(s, nullptr);
    char tag[64];
    std::snprintf(tag, sizeof tag, "Storage session [%p] destroyed.", static_cast<void *>(s));
    // References taken and given back from several threads at once.
    std::vector<std::thread> pool;
    for (int t = 0; t < 4; ++t)
        pool.emplace_back([s] {
            for (int i = 0; i < 1000; ++i)
                qx_storage_ref_session(s), qx_storage_release_session(s);
        });
    for (auto &t : pool)
        t.join();
    EXPECT_EQ(log.count(tag), 0u) << "destroyed while still referenced";
    qx_storage_release_session(s);
    EXPECT_EQ(log.count(tag), 1u);
}

// A commit caches the file and queues one upload; deletions queue members for the object and
// for all of an owner's objects. With the DisDB out of reach every queue write fails its call,
// and nothing is recorded or queued.
TEST_F(Storage, S3CommitAndDeletionsQueueMembersOrFailTheCall) {
    const std::string ids = std::to_string(ids_) + "/" + std::to_string(ids_ + 1);
    std::optional<qxtest::ConfFile> dead;
    for (bool up : {true, false}) {
        SCOPED_TRACE(up ? "DisDB up" : "DisDB down");
        const std::string loc = service_.location = (up ? "loc" : "q") + std::to_string(ids_);
        if (!up) {
            dead.emplace(qxtest::path("/etc/quorvex/disdbase.conf"),
                         "DISDBASE_HOST main:n:c:" + qxtest::path("/run/no-such-redis.sock") +
                             ":0\nDISDBASE_CREDENTIALS main:s:sandbox:1\n");
        }
        init("s3");
        qxtest::LogCapture log;
        const int id = add_row("extension_recording");
        const std::string key = "rc/" + ids + "/" + std::to_string(id) + ".wav";
        const time_t t0 = time(nullptr);
        qx_storage_session *s = qx_storage_session_create(1, ids_, ids_ + 1, "wav");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(temp_dir(s), QX_STORAGE_TRANSFEROUT_DIR "/main");
        put(qx_storage_get_temp_file(s), "s3 payload");
        ASSERT_EQ(qx_storage_commit_file(s, id), up ? 0 : -1);
        EXPECT_EQ(up ? qx_storage_get_file_path(s) : cache_file(key), cache_file(key));
        EXPECT_EQ(content(cache_file(key).c_str()), "s3 payload");
        qx_storage_release_session(s);
        EXPECT_EQ(log.contains("Failed to queue file [" + key + "]."), !up);
        EXPECT_EQ(stored("extension_recording", "filename", id), up ? key + "|s3|" + loc : "");
        // Queued once, scored with the time of the commit.
        const std::string queued = qxtest::redis({"ZRANGE", kUpQueue, "0", "-1"});
        EXPECT_EQ(queued.find(loc), up ? queued.rfind(loc) : std::string::npos);
        const std::string score = qxtest::redis({"ZSCORE", kUpQueue, loc + ":" + key});
        EXPECT_TRUE(up ? std::abs(std::stod(score) - t0) <= 1 : score == "(nil)") << score;

        errno = 0;
        EXPECT_EQ(qx_storage_delete(1, key.c_str(), "s3", loc.c_str()), up ? 0 : -1);
        EXPECT_EQ(errno, up ? errno : EIO);
        EXPECT_EQ(qxtest::redis({"ZSCORE", kDelQueue, loc + ":o:" + key}) != "(nil)", up);
        EXPECT_EQ(fs::exists(cache_file(key)), !up);
        // Nothing was ever uploaded without a location or a name.
        EXPECT_EQ(qx_storage_delete(1, nullptr, "s3", "x"), 0);
        EXPECT_EQ(qx_storage_delete(1, key.c_str(), "s3", nullptr), 0);

        errno = 0;
        EXPECT_EQ(qx_storage_delete_extension(ids_ + 1, "owner", ids_, "reseller", this),
                  up ? 0 : -1);
        EXPECT_EQ(errno, up ? errno : EIO);
        EXPECT_EQ(service_.location_args, "sandbox-node|owner|reseller|arg");
        for (auto [word, kind] :
             {std::pair{"vm", "voicemail"}, {"fx", "fax"}, {"rc", "recording"}}) {
            const std::string member = loc + ":r:" + word + "/" + ids;
            EXPECT_EQ(qxtest::redis({"ZSCORE", kDelQueue, member}) != "(nil)", up) << member;
            EXPECT_TRUE(!up || log.contains(std::string("Adding ") + kind + " recursive member"));
        }
    }
    // Memory runs out once the service told its location, or it cannot tell it.
    for (bool starve : {true, false}) {
        service_.starve_after_location = starve;
        if (!starve) service_.location.clear();
        errno = 0;
        EXPECT_EQ(qx_storage_delete_extension(ids_ + 1, "a", ids_, "b", nullptr), -1);
        g_fail_new = false;
        EXPECT_EQ(errno, starve ? ENOMEM : ENOBUFS);
    }
    service_.starve_after_location = false;
}

// A retrieval served from the cache, or a download completed (well or not) on the service's
// thread while the caller waits, or refused at once.
TEST_F(Storage, RetrievalWaitsForTheDownloadUnlessTheCacheHasTheFile) {
    init("s3");
    const struct {
        bool cached, refuse;
        int code, status;
        const char *content;
    } cases[] = {{true, false, 0, 3, "cached"},
                 {false, false, 3, 3, "downloaded"},
                 {false, false, 7, 4, "-"},
                 {false, true, 0, 4, "-"}};
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(n));
        const std::string key = "fx/" + std::to_string(ids_) + "/2/" + std::to_string(++n) + ".pdf";
        if (c.cached) put(cache_file(key), "cached");
        service_.refuse = c.refuse;
        service_.downloads.clear(), service_.releases = 0;
        qx_storage_session *s = qx_storage_session_retrieve(3, key.c_str(), "s3", "xtra");
        ASSERT_NE(s, nullptr);
        const bool downloads = !c.cached && !c.refuse;
        ASSERT_EQ(service_.downloads.size(), downloads ? 1u : 0u);
        std::thread completer;
        if (downloads) {
            EXPECT_EQ(qx_storage_get_session_status(s), 1);
            const Download d = service_.downloads.back();
            EXPECT_EQ(d.args, key + "|main|s3|xtra");
            EXPECT_EQ(fs::path(d.target).parent_path(), QX_STORAGE_TRANSFERIN_DIR);
            completer = std::thread([d, code = c.code] {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                put(d.target, "downloaded");
                d.done(code, code == 3 ? d.target.c_str() : nullptr, d.arg);
            });
        }
        EXPECT_EQ(qx_storage_wait_for_file(s), c.status);
        if (completer.joinable()) completer.join();
        EXPECT_EQ(content(qx_storage_get_file_path(s)), c.content);
        EXPECT_EQ(fs::exists(cache_file(key)), c.status == 3);
        if (downloads && c.status == 3) {  // moved into the cache
            EXPECT_FALSE(fs::exists(service_.downloads.back().target));
        }
        qx_storage_release_session(s);
        EXPECT_EQ(service_.releases, downloads ? 1 : 0);
    }
    service_.refuse = false;
}

TEST_F(Storage, LoadsSettingsAndReportsValuesItCannotUse) {
    const std::string conf = std::string("<") + QX_STORAGE_CONF + ">";
    auto bad = [&](const char *directive, const char *value) {
        return std::string("Invalid ") + directive + " value [" + value + "] in " + conf + ": ";
    };
    const struct {
        std::string conf, logged;  // logged at error priority; "" for nothing
        int rc, cache, trash, upload;
        bool s3;  // sessions stage their files for the object store
    } cases[] = {
        {conf_text("s3") + "STORAGE_TRASH_EXPIRE -2\nSTORAGE_DISDB yes\n", "", 0, 7, -2, 30, true},
        {"STORAGE_SYSTEM S3\n", bad("STORAGE_SYSTEM", "S3"), 0, 48, 1, 120, false},  // lower case
        {"STORAGE_CACHE_EXPIRE 7x\nS3_UPL_INTERVAL 9\n", bad("STORAGE_CACHE_EXPIRE", "7x"), 0, 48,
         1, 9, false},
        {"STORAGE_TRASH_EXPIRE two\n", bad("STORAGE_TRASH_EXPIRE", "two"), 0, 48, 1, 120, false},
        {"S3_UPL_INTERVAL 99999999999\n", bad("S3_UPL_INTERVAL", "99999999999"), 0, 48, 1, 120,
         false},
        // The default transfer-out folder stays when the configured one is unusable.
        {"STORAGE_SYSTEM s3\nSTORAGE_TRANSFEROUT_D \"\"\n", bad("STORAGE_TRANSFEROUT_D", ""), 0, 48,
         1, 120, true},
        {"STORAGE_DISDB maybe\n", bad("STORAGE_DISDB", "maybe"), 0, 48, 1, 120, false},
        // The reader rejects a path too long, the load fails, and the configuration in force stays.
        {"STORAGE_CACHE_EXPIRE 5\nSTORAGE_CACHE_D /" + std::string(5000, 'x') + "\n",
         "of " + conf + " sets STORAGE_CACHE_D", -1, 48, 1, 120, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.conf.substr(0, 60));
        qxtest::LogCapture log;
        {
            qxtest::ConfFile file(QX_STORAGE_CONF, c.conf);
            EXPECT_EQ(qx_storage_load_config(base_.c_str(), nullptr), c.rc);
        }
        EXPECT_EQ(log.count(c.logged.empty() ? conf : c.logged, 3), c.logged.empty() ? 0u : 1u);
        int cache = 0, trash = 0, upload = 0;
        qx_storage_get_intervals(&cache, &trash, &upload);
        EXPECT_EQ(std::make_tuple(cache, trash, upload),
                  std::make_tuple(c.cache, c.trash, c.upload));
        qx_storage_session *s = qx_storage_session_create(1, 1, 2, "wav");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(temp_dir(s), c.s3 ? QX_STORAGE_TRANSFEROUT_DIR "/main" : base_ + "/monitor/tmp");
        qx_storage_release_session(s);
    }
    EXPECT_EQ(qx_storage_load_config(nullptr, nullptr), -1);
}

// Sessions made, committed, read and released on several threads while the module is
// initialised again and again (the DisDB client replaced each time) and the engine flips
// between POSIX and S3: the ThreadSanitizer build runs this for data races.
TEST_F(Storage, SessionsRunWhileTheModuleIsReinitialised) {
    qxtest::ConfFile conf(QX_STORAGE_CONF, conf_text("s3"));
    constexpr int kThreads = 4, kFiles = 6;
    std::vector<int> ids;
    for (int i = 0; i < kThreads * kFiles; ++i)
        ids.push_back(add_row("extension_recording"));
    std::atomic<int> workers_left{kThreads};
    std::thread initialiser([&] {
        do {
            service_.usable = !service_.usable;
            EXPECT_EQ(qx_storage_initialize(base_.c_str(), nullptr), 0);
        } while (workers_left > 0);
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.emplace_back([&, t] {
            for (int f = 0; f < kFiles; ++f) {
                const std::string id = std::to_string(ids[t * kFiles + f]);
                qx_storage_session *s = qx_storage_session_create(1, ids_, ids_ + 1, "wav");
                ASSERT_NE(s, nullptr);
                put(qx_storage_get_temp_file(s), id);
                qx_storage_ref_session(s);
                std::thread reader([s] {  // reads the path while the commit sets it
                    while (qx_storage_get_session_status(s) == 1)
                        (void)qx_storage_get_file_path(s);
                    qx_storage_release_session(s);
                });
                EXPECT_EQ(qx_storage_commit_file(s, std::stoi(id)), 0);
                reader.join();
                EXPECT_EQ(content(qx_storage_get_file_path(s)), id);
                qx_storage_release_session(s);
            }
            --workers_left;
        });
    for (auto &w : workers)
        w.join();
    initialiser.join();
}
