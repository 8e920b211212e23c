// File storage against real directories under the root, the sandbox DisDB and database, and a
// transfer service played by the test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <new>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "qx_paths.h"
#include "qxtest.hpp"
#include "sqlsession.h"
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

namespace {

namespace fs = std::filesystem;

auto *const sandbox_env = qxtest::register_sandbox();

constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXZabcdefghijklmnopqrstuvwxyz";
const std::string kUpQueue = "storage:upqueue:s3:main";
const std::string kDelQueue = "storage:delqueue:s3:main";

// ---- the transfer service ------------------------------------------------------------------

struct Download {
    std::string stored, shard, engine, extra, target;
    qx_storage_download_done_fn done;
    void *arg;
};

struct FakeService {
    std::atomic<bool> usable{true};
    std::atomic<bool> refuse{false};
    std::string location = "zone-a";
    std::atomic<int> location_calls{0};
    std::atomic<int> releases{0};
    std::atomic<bool> starve_after_location{false};
    std::mutex mutex;
    std::vector<Download> downloads;
    std::vector<std::string> location_args;  // "node|a|b|arg" of each location query
};

FakeService *g_service = nullptr;

int fake_usable() {
    return g_service->usable ? 1 : 0;
}

char *fake_location(const char *node, const char *a, const char *b, void *arg) {
    ++g_service->location_calls;
    std::lock_guard lock(g_service->mutex);
    g_service->location_args.push_back(std::string(node ? node : "-") + "|" + (a ? a : "-") + "|" +
                                       (b ? b : "-") + "|" + (arg ? "arg" : "-"));
    char *out = g_service->location.empty() ? nullptr : strdup(g_service->location.c_str());
    if (g_service->starve_after_location) g_fail_new = true;
    return out;
}

void *fake_download(const char *stored, const char *shard, const char *engine, const char *extra,
                    const char *target, qx_storage_download_done_fn done, void *arg) {
    if (g_service->refuse) return nullptr;
    std::lock_guard lock(g_service->mutex);
    g_service->downloads.push_back({stored, shard, engine, extra ? extra : "", target, done, arg});
    return reinterpret_cast<void *>(g_service->downloads.size());
}

void fake_release(void *) {
    ++g_service->releases;
}

const qx_storage_api kApi = {fake_usable, fake_location, fake_download, fake_release};

// ---- helpers -----------------------------------------------------------------------------

struct StorageConf : qxtest::ConfFile {
    explicit StorageConf(const std::string &text) : qxtest::ConfFile(QX_STORAGE_CONF, text) {}
};

std::string conf_text(const char *system) {
    return std::string("STORAGE_SYSTEM ") + system + "\n" +
           "STORAGE_TRANSFERIN_D " QX_STORAGE_TRANSFERIN_DIR
           "\n"
           "STORAGE_TRANSFEROUT_D " QX_STORAGE_TRANSFEROUT_DIR
           "\n"
           "STORAGE_CACHE_D " QX_STORAGE_CACHE_DIR
           "\n"
           "STORAGE_CACHE_EXPIRE 7\nS3_UPL_INTERVAL 30\n";
}

std::string content_of(const std::string &path) {
    return qxtest::read_file(path).value_or("?");
}

using qxtest::put;

std::string cache_file(const std::string &key) {
    return std::string(QX_STORAGE_CACHE_DIR) + "/main/" + key;
}

class Storage : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }

    void SetUp() override {
        ids_ = qxtest::fresh_ids();
        ext_ = qxtest::add_extension(ids_, "100", std::to_string(ids_) + "*100");
        base_ = qxtest::path("/var/tmp/storage-test/") + std::to_string(ids_);
        fs::create_directories(base_);
        g_service = &service_;
        qx_storage_register_api(&kApi);
        init("posix");
    }
    void TearDown() override {
        qx_storage_unregister_api();
        qx_storage_cleanup();
        g_service = nullptr;
        qxtest::clear_ids(ids_);  // the extension and its file rows
        // Queue members and cached objects all carry the owner ids.
        const std::string mine = "/" + std::to_string(ids_) + "/";
        for (const std::string &queue : {kUpQueue, kDelQueue}) {
            std::stringstream members(qxtest::redis({"ZRANGE", queue, "0", "-1"}));
            for (std::string m; std::getline(members, m);)
                if (m.find(mine) != std::string::npos) qxtest::redis({"ZREM", queue, m});
        }
        std::error_code ec;
        for (const char *word : {"rc", "vm", "fx"})
            fs::remove_all(cache_file(word + mine), ec);
        fs::remove_all(base_, ec);
    }

    void init(const char *system) {
        StorageConf conf(conf_text(system));
        ASSERT_EQ(qx_storage_initialize(base_.c_str(), nullptr), 0);
    }

    // A row of the type's table; its id is the file id of a commit.
    int add_row(const std::string &table) {
        qxtest::sql("INSERT INTO " + table + " (extension_id) VALUES (" + std::to_string(ext_) +
                    ")");
        return static_cast<int>(qxtest::sql_int("SELECT MAX(id) FROM " + table +
                                                " WHERE extension_id=" + std::to_string(ext_)));
    }
    qxtest::Row row(const std::string &table, const std::string &name_col, int id) {
        auto rows = qxtest::sql_rows("SELECT " + name_col + ", se, az FROM " + table +
                                     " WHERE id=" + std::to_string(id));
        return rows.empty() ? qxtest::Row{} : rows[0];
    }

    // A committed S3 file of type recording; returns the object key.
    std::string store_s3(int file_id, const std::string &content) {
        qx_storage_session *s = qx_storage_session_create(1, ids_, ids_ + 1, "wav");
        EXPECT_NE(s, nullptr);
        if (!s) return {};
        put(qx_storage_get_temp_file(s), content);
        EXPECT_EQ(qx_storage_commit_file(s, file_id), 0);
        qx_storage_release_session(s);
        return "rc/" + std::to_string(ids_) + "/" + std::to_string(ids_ + 1) + "/" +
               std::to_string(file_id) + ".wav";
    }

    int ids_ = 0;
    int ext_ = 0;
    std::string base_;
    FakeService service_;
};

std::string opt(const std::optional<std::string> &v) {
    return v.value_or("NULL");
}

// ---- POSIX ---------------------------------------------------------------------------------

TEST_F(Storage, PosixStoresAndRetrievesEachType) {
    struct Case {
        int type;
        const char *table, *name_col, *folder;
    };
    const Case cases[] = {
        {1, "extension_recording", "filename", "/monitor"},
        {2, "extension_voicemail", "filename", "/voicemail"},
        {3, "extension_fax_center", "file_name", "/fax"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.table);
        const std::string folder = base_ + c.folder;
        const int id = add_row(c.table);
        qx_storage_session *s = qx_storage_session_create(c.type, 7, 8, "wav");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(qx_storage_get_session_status(s), 1);
        const std::string temp = qx_storage_get_temp_file(s);
        EXPECT_EQ(fs::path(temp).parent_path(), fs::path(folder + "/tmp"));
        put(temp, "payload");

        ASSERT_EQ(qx_storage_commit_file(s, id), 0);
        const std::string expected = folder + "/7/8/" + std::to_string(id) + ".wav";
        EXPECT_EQ(qx_storage_get_file_path(s), expected);
        EXPECT_EQ(content_of(expected), "payload");
        EXPECT_FALSE(fs::exists(temp));
        struct stat st;
        ASSERT_EQ(stat(expected.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0770u);
        qx_storage_release_session(s);

        // The POSIX store records no name: the path follows from the row.
        const auto r = row(c.table, c.name_col, id);
        ASSERT_EQ(r.size(), 3u);
        EXPECT_EQ(opt(r[0]), "");
        EXPECT_EQ(opt(r[1]), "posix");
        EXPECT_EQ(opt(r[2]), "zone-a");

        const std::string stored = "7/8/" + std::to_string(id) + ".wav";
        for (const char *engine : {"posix", "POSIX", static_cast<const char *>(nullptr)}) {
            qx_storage_session *got =
                qx_storage_session_retrieve(c.type, stored.c_str(), engine, "");
            ASSERT_NE(got, nullptr);
            EXPECT_EQ(qx_storage_wait_for_file(got), 3);
            EXPECT_EQ(qx_storage_get_file_path(got), expected);
            qx_storage_release_session(got);
        }
        EXPECT_EQ(qx_storage_delete(c.type, stored.c_str(), "posix", nullptr), 0);
        EXPECT_FALSE(fs::exists(expected));

        qxtest::LogCapture log;
        EXPECT_EQ(qx_storage_delete(c.type, stored.c_str(), "posix", nullptr), -1);
        EXPECT_TRUE(log.contains("Could not remove file [" + expected + "]"));
        EXPECT_EQ(qx_storage_session_retrieve(c.type, stored.c_str(), "posix", ""), nullptr);
        EXPECT_TRUE(log.contains("Cannot retrieve requested file from storage [" + expected));
    }
    EXPECT_EQ(service_.downloads.size(), 0u);
}

TEST_F(Storage, PosixCommitFollowsTheRequestedName) {
    const std::string folder = base_ + "/voicemail";
    const std::string outside = base_ + "/elsewhere/msg.wav";
    struct Case {
        std::optional<std::string> name;
        std::string final_path;  // {id} stands for the file id
        std::string stored;      // the file column stays '' for POSIX; this is the session's
    };
    const Case cases[] = {
        {std::nullopt, folder + "/3/4/{id}.gsm", "3/4/{id}.gsm"},
        {"INBOX/msg0001.gsm", folder + "/INBOX/msg0001.gsm", "INBOX/msg0001.gsm"},
        {folder + "/Old/msg0002.gsm", folder + "/Old/msg0002.gsm", "Old/msg0002.gsm"},
        {outside, outside, outside},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name.value_or("(default)"));
        const int id = add_row("extension_voicemail");
        auto fill = [id](std::string s) {
            size_t at = s.find("{id}");
            if (at != std::string::npos) s.replace(at, 4, std::to_string(id));
            return s;
        };
        qx_storage_session *s = qx_storage_session_create(2, 3, 4, "gsm");
        ASSERT_NE(s, nullptr);
        if (c.name) {
            ASSERT_EQ(qx_storage_set_posix_filename(s, c.name->c_str()), 0);
        }
        put(qx_storage_get_temp_file(s), "vm");
        ASSERT_EQ(qx_storage_commit_file(s, id), 0);
        EXPECT_EQ(qx_storage_get_file_path(s), fill(c.final_path));
        EXPECT_EQ(content_of(fill(c.final_path)), "vm");
        qx_storage_release_session(s);
        if (fill(c.stored)[0] != '/') {
            qx_storage_session *r =
                qx_storage_session_retrieve(2, fill(c.stored).c_str(), "posix", nullptr);
            ASSERT_NE(r, nullptr) << "stored name does not lead back to the file";
            qx_storage_release_session(r);
        }
    }
}

TEST_F(Storage, TemporaryNamesCarryTheCutExtension) {
    struct Case {
        const char *ext;
        std::string suffix;
    };
    const Case cases[] = {
        {nullptr, ""},
        {"", ""},
        {"wav", ".wav"},
        {"abcdefghijklmnopqrst", ".abcdefghijklmno"},
        {"abcdefghijklmno", ".abcdefghijklmno"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.ext ? c.ext : "(null)");
        qx_storage_session *s = qx_storage_session_create(3, 1, 2, c.ext);
        ASSERT_NE(s, nullptr);
        const std::string name = fs::path(qx_storage_get_temp_file(s)).filename();
        ASSERT_EQ(name.size(), 16 + c.suffix.size());
        EXPECT_EQ(name.substr(16), c.suffix);
        EXPECT_EQ(name.substr(0, 16).find_first_not_of(kAlphabet), std::string::npos);
        EXPECT_TRUE(fs::exists(qx_storage_get_temp_file(s)));
        qx_storage_release_session(s);
    }
}

TEST_F(Storage, FiveNameCollisionsFailTheSession) {
    const std::string tmp = base_ + "/fax/tmp/";
    fs::create_directories(tmp);
    constexpr unsigned kSeed = 4242;
    std::srand(kSeed);
    std::vector<std::string> names;
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::string n;
        for (int i = 0; i < 16; ++i)
            n += kAlphabet[std::rand() % 61];
        names.push_back(tmp + n + ".pdf");
    }
    for (size_t i = 0; i < 4; ++i)
        put(names[i], "taken");

    // Four taken names: the fifth draw succeeds.
    std::srand(kSeed);
    qx_storage_session *s = qx_storage_session_create(3, 1, 2, "pdf");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(qx_storage_get_temp_file(s), names[4]);
    qx_storage_release_session(s);

    put(names[4], "taken");
    qxtest::LogCapture log;
    std::srand(kSeed);
    EXPECT_EQ(qx_storage_session_create(3, 1, 2, "pdf"), nullptr);
    EXPECT_TRUE(log.contains("Failed to create temporary file [" + names[4] + "]"));
    for (const auto &n : names)
        EXPECT_EQ(content_of(n), "taken");
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

    struct Case {
        const char *word;
        int engine;
    };
    const Case words[] = {{nullptr, 1}, {"posix", 1}, {"Posix", 1}, {"s3", 2},  {"S3", 2},
                          {"s3 ", -1},  {"posi", -1}, {"", -1},     {"s33", -1}};
    for (const Case &c : words)
        EXPECT_EQ(qx_storage_engine_from_text(c.word), c.engine);
}

TEST_F(Storage, ReleasingFreesTheSessionExactlyOnce) {
    qxtest::LogCapture log;
    qx_storage_session *s = qx_storage_session_create(1, 1, 2, "wav");
    ASSERT_NE(s, nullptr);
    char tag[64];
    std::snprintf(tag, sizeof tag, "Storage session [%p] destroyed.", static_cast<void *>(s));
    const std::string temp = qx_storage_get_temp_file(s);
    qx_storage_ref_session(s);
    qx_storage_ref_session(s);
    qx_storage_release_session(s);
    qx_storage_release_session(s);
    EXPECT_EQ(log.count(tag), 0u);
    EXPECT_TRUE(fs::exists(temp)) << "destroyed while still referenced";
    qx_storage_release_session(s);
    EXPECT_EQ(log.count(tag), 1u);
    EXPECT_FALSE(fs::exists(temp)) << "the uncommitted temporary file outlived its session";

    // References taken and given back from several threads at once.
    s = qx_storage_session_create(1, 1, 2, "wav");
    ASSERT_NE(s, nullptr);
    std::snprintf(tag, sizeof tag, "Storage session [%p] destroyed.", static_cast<void *>(s));
    const size_t before = log.count(tag);  // the address may be reused
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([s] {
            for (int i = 0; i < 1000; ++i) {
                qx_storage_ref_session(s);
                qx_storage_release_session(s);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(log.count(tag), before);
    qx_storage_release_session(s);
    EXPECT_EQ(log.count(tag), before + 1);
}

// ---- S3 ------------------------------------------------------------------------------------

TEST_F(Storage, S3CommitCachesTheFileAndQueuesOneUpload) {
    service_.location = "loc" + std::to_string(ids_);
    init("s3");
    const int id = add_row("extension_recording");
    const double t0 =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    qx_storage_session *s = qx_storage_session_create(1, ids_, ids_ + 1, "wav");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(fs::path(qx_storage_get_temp_file(s)).parent_path(),
              fs::path(QX_STORAGE_TRANSFEROUT_DIR "/main"));
    put(qx_storage_get_temp_file(s), "s3 payload");
    ASSERT_EQ(qx_storage_commit_file(s, id), 0);
    const double t1 =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const std::string key = "rc/" + std::to_string(ids_) + "/" + std::to_string(ids_ + 1) + "/" +
                            std::to_string(id) + ".wav";
    EXPECT_EQ(qx_storage_get_file_path(s), cache_file(key));
    EXPECT_EQ(content_of(cache_file(key)), "s3 payload");
    qx_storage_release_session(s);

    const std::string member = service_.location + ":" + key;
    const std::string score = qxtest::redis({"ZSCORE", kUpQueue, member});
    ASSERT_NE(score, "(nil)");
    EXPECT_GE(std::stod(score), t0 - 1);
    EXPECT_LE(std::stod(score), t1 + 1);
    const std::string all = qxtest::redis({"ZRANGE", kUpQueue, "0", "-1"});
    size_t count = 0;
    for (size_t at = all.find(service_.location + ":"); at != std::string::npos;
         at = all.find(service_.location + ":", at + 1))
        ++count;
    EXPECT_EQ(count, 1u);

    const auto r = row("extension_recording", "filename", id);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(opt(r[0]), key);
    EXPECT_EQ(opt(r[1]), "s3");
    EXPECT_EQ(opt(r[2]), service_.location);
}

TEST_F(Storage, S3RetrievalFromTheCacheNeedsNoService) {
    init("s3");
    const std::string key = "vm/" + std::to_string(ids_) + "/1/5.wav";
    put(cache_file(key), "cached");
    qx_storage_session *s = qx_storage_session_retrieve(2, key.c_str(), "s3", "extra");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(qx_storage_get_session_status(s), 3);
    EXPECT_EQ(qx_storage_get_file_path(s), cache_file(key));
    EXPECT_EQ(service_.downloads.size(), 0u);
    qx_storage_release_session(s);
}

TEST_F(Storage, DownloadCompletedOnAnotherThreadWakesTheWaiter) {
    init("s3");
    struct Case {
        int code;
        bool refuse;
        int status;
    };
    const Case cases[] = {{3, false, 3}, {7, false, 4}, {0, true, 4}};
    int n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE("code " + std::to_string(c.code) + (c.refuse ? " refused" : ""));
        const std::string key = "fx/" + std::to_string(ids_) + "/2/" + std::to_string(++n) + ".pdf";
        service_.refuse = c.refuse;
        const size_t started = service_.downloads.size();
        const int released = service_.releases;
        qx_storage_session *s = qx_storage_session_retrieve(3, key.c_str(), "s3", "xtra");
        ASSERT_NE(s, nullptr);
        std::thread completer;
        if (!c.refuse) {
            ASSERT_EQ(service_.downloads.size(), started + 1);
            EXPECT_EQ(qx_storage_get_session_status(s), 1);
            Download d = service_.downloads.back();
            EXPECT_EQ(d.stored, key);
            EXPECT_EQ(d.shard, "main");
            EXPECT_EQ(d.engine, "s3");
            EXPECT_EQ(d.extra, "xtra");
            EXPECT_EQ(fs::path(d.target).parent_path(), fs::path(QX_STORAGE_TRANSFERIN_DIR));
            completer = std::thread([d, code = c.code] {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                put(d.target, "downloaded");
                d.done(code, code == 3 ? d.target.c_str() : nullptr, d.arg);
            });
        }
        EXPECT_EQ(qx_storage_wait_for_file(s), c.status);
        if (completer.joinable()) completer.join();
        if (c.status == 3) {
            EXPECT_EQ(qx_storage_get_file_path(s), cache_file(key));
            EXPECT_EQ(content_of(cache_file(key)), "downloaded");
            EXPECT_FALSE(fs::exists(service_.downloads.back().target));
        } else {
            EXPECT_EQ(qx_storage_get_file_path(s), nullptr);
            EXPECT_FALSE(fs::exists(cache_file(key)));
        }
        qx_storage_release_session(s);
        EXPECT_EQ(service_.releases, released + (c.refuse ? 0 : 1));
    }
    service_.refuse = false;
}

TEST_F(Storage, UnusableS3StoresUnderPosix) {
    init("s3");
    service_.usable = false;
    const int id = add_row("extension_fax_center");
    qxtest::LogCapture log;
    qx_storage_session *s = qx_storage_session_create(3, 5, 6, "pdf");
    ASSERT_NE(s, nullptr);
    EXPECT_TRUE(
        log.contains("S3 engine is disabled due to a configuration error. Storing file "
                     "to POSIX"));
    put(qx_storage_get_temp_file(s), "fax");
    ASSERT_EQ(qx_storage_commit_file(s, id), 0);
    const std::string expected = base_ + "/fax/5/6/" + std::to_string(id) + ".pdf";
    EXPECT_EQ(qx_storage_get_file_path(s), expected);
    EXPECT_EQ(content_of(expected), "fax");
    qx_storage_release_session(s);
    const auto r = row("extension_fax_center", "file_name", id);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(opt(r[1]), "posix");
    EXPECT_EQ(qxtest::redis({"ZSCORE", kUpQueue, "zone-a:fx/5/6/" + std::to_string(id) + ".pdf"}),
              "(nil)");

    EXPECT_EQ(qx_storage_session_retrieve(3, "fx/5/6/1.pdf", "s3", ""), nullptr);
    EXPECT_TRUE(
        log.contains("The S3 storage engine is disabled due to a configuration error. "
                     "Cannot retrieve file from S3."));
}

TEST_F(Storage, S3DeletionQueuesMembers) {
    service_.location = "del" + std::to_string(ids_);
    init("s3");
    const std::string key = store_s3(add_row("extension_recording"), "gone soon");
    ASSERT_TRUE(fs::exists(cache_file(key)));

    EXPECT_EQ(qx_storage_delete(1, key.c_str(), "s3", service_.location.c_str()), 0);
    EXPECT_NE(qxtest::redis({"ZSCORE", kDelQueue, service_.location + ":o:" + key}), "(nil)");
    EXPECT_FALSE(fs::exists(cache_file(key)));
    // Nothing was ever uploaded without a location or a name.
    EXPECT_EQ(qx_storage_delete(1, nullptr, "s3", "x"), 0);
    EXPECT_EQ(qx_storage_delete(1, key.c_str(), "s3", nullptr), 0);

    qxtest::LogCapture log;
    int marker = 0;
    ASSERT_EQ(qx_storage_delete_extension(ids_ + 1, "owner", ids_, "reseller", &marker), 0);
    const std::string ids = std::to_string(ids_) + "/" + std::to_string(ids_ + 1);
    for (const char *word : {"vm", "fx", "rc"}) {
        const std::string member = service_.location + ":r:" + word + "/" + ids;
        EXPECT_NE(qxtest::redis({"ZSCORE", kDelQueue, member}), "(nil)") << member;
    }
    std::vector<std::string> kinds;
    for (const auto &line : log.lines())
        for (const char *kind : {"voicemail", "fax", "recording"})
            if (line.find(std::string("Adding ") + kind + " recursive member") != std::string::npos)
                kinds.push_back(kind);
    EXPECT_EQ(kinds, (std::vector<std::string>{"voicemail", "fax", "recording"}));
    {
        std::lock_guard lock(service_.mutex);
        EXPECT_EQ(service_.location_args.back(), "sandbox-node|owner|reseller|arg");
    }

    service_.location.clear();  // the service cannot tell its location
    errno = 0;
    EXPECT_EQ(qx_storage_delete_extension(1, "a", 2, "b", nullptr), -1);
    EXPECT_EQ(errno, ENOBUFS);
}

TEST_F(Storage, QueueWritesThatFailFailTheCallAndChangeNothing) {
    service_.location = "q" + std::to_string(ids_);
    const int id = add_row("extension_recording");
    const std::string key = "rc/" + std::to_string(ids_) + "/" + std::to_string(ids_ + 1) + "/" +
                            std::to_string(id) + ".wav";
    // A DisDB that cannot be reached for the whole test: every queue write fails.
    qxtest::ConfFile dead(qxtest::path("/etc/quorvex/disdbase.conf"),
                          "DISDBASE_HOST main:n:c:" + qxtest::path("/run/no-such-redis.sock") +
                              ":0\nDISDBASE_CREDENTIALS main:s:sandbox:1\n");
    init("s3");
    qxtest::LogCapture log;
    qx_storage_session *s = qx_storage_session_create(1, ids_, ids_ + 1, "wav");
    ASSERT_NE(s, nullptr);
    put(qx_storage_get_temp_file(s), "never queued");
    EXPECT_EQ(qx_storage_commit_file(s, id), -1);
    qx_storage_release_session(s);
    EXPECT_TRUE(log.contains("Failed to queue file [" + key + "]."));
    EXPECT_EQ(opt(row("extension_recording", "filename", id)[1]), "NULL") << "no location recorded";

    struct Case {
        const char *what;
        std::function<int()> call;
        bool starve;
        int error;
    };
    const Case cases[] = {
        {"object delete", [&] { return qx_storage_delete(1, key.c_str(), "s3", "loc"); }, false,
         EIO},
        {"owner delete",
         [&] { return qx_storage_delete_extension(ids_ + 1, "a", ids_, "b", nullptr); }, false,
         EIO},
        {"owner delete out of memory",
         [&] { return qx_storage_delete_extension(ids_ + 1, "a", ids_, "b", nullptr); }, true,
         ENOMEM},
    };
    for (const Case &c : cases) {
        service_.starve_after_location = c.starve;
        errno = 0;
        const int rc = c.call();
        g_fail_new = false;
        service_.starve_after_location = false;
        EXPECT_EQ(rc, -1) << c.what;
        EXPECT_EQ(errno, c.error) << c.what;
    }
    EXPECT_EQ(qxtest::redis({"ZRANGE", kDelQueue, "0", "-1"}).find(service_.location),
              std::string::npos);
}

TEST_F(Storage, LoadsSettingsAndReportsValuesItCannotUse) {
    const std::string too_long = "/" + std::string(5000, 'x');
    struct Case {
        std::string conf;
        const char *bad;  // the directive reported, nullptr for none
        int rc, cache, trash, upload;
        bool s3;  // sessions stage their files for the object store
    };
    const Case cases[] = {
        {"STORAGE_SYSTEM s3\nSTORAGE_CACHE_EXPIRE 7\n", nullptr, 0, 7, 1, 120, true},
        {conf_text("s3") + "STORAGE_TRASH_EXPIRE -2\nSTORAGE_DISDB yes\n", nullptr, 0, 7, -2, 30,
         true},
        {"STORAGE_SYSTEM S3\n", "STORAGE_SYSTEM", 0, 48, 1, 120, false},  // the word is lower case
        {"STORAGE_SYSTEM ftp\n", "STORAGE_SYSTEM", 0, 48, 1, 120, false},
        {"STORAGE_CACHE_EXPIRE 7x\nS3_UPL_INTERVAL 9\n", "STORAGE_CACHE_EXPIRE", 0, 48, 1, 9,
         false},
        {"STORAGE_TRASH_EXPIRE two\n", "STORAGE_TRASH_EXPIRE", 0, 48, 1, 120, false},
        {"S3_UPL_INTERVAL 99999999999\n", "S3_UPL_INTERVAL", 0, 48, 1, 120, false},
        {"STORAGE_SYSTEM s3\nSTORAGE_TRANSFEROUT_D \"\"\n", "STORAGE_TRANSFEROUT_D", 0, 48, 1, 120,
         true},
        {"STORAGE_DISDB maybe\n", "STORAGE_DISDB", 0, 48, 1, 120, false},
        // An unusable path fails the load, and the configuration in force stays.
        {"STORAGE_CACHE_EXPIRE 5\nSTORAGE_CACHE_D " + too_long + "\n", "STORAGE_CACHE_D", -1, 48, 1,
         120, false},
        {"STORAGE_TRANSFERIN_D " + too_long + "\n", "STORAGE_TRANSFERIN_D", -1, 48, 1, 120, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.conf.substr(0, 60));
        qxtest::LogCapture log;
        {
            StorageConf conf(c.conf);
            EXPECT_EQ(qx_storage_load_config(base_.c_str(), nullptr), c.rc);
        }
        // The configuration reader itself rejects a line too long to be a path.
        const bool overlong = c.conf.size() > 4096;
        const std::string named = overlong
                                      ? std::string("of <") + QX_STORAGE_CONF + "> sets " + c.bad
                                      : std::string("Invalid ") + (c.bad ? c.bad : "") + " value";
        EXPECT_EQ(log.contains_at(3, named), c.bad != nullptr);
        if (!overlong) {
            EXPECT_EQ(log.contains(std::string("in <") + QX_STORAGE_CONF + ">: "),
                      c.bad != nullptr);
        }
        int cache = 0, trash = 0, upload = 0;
        qx_storage_get_intervals(&cache, &trash, &upload);
        EXPECT_EQ(std::make_tuple(cache, trash, upload),
                  std::make_tuple(c.cache, c.trash, c.upload));
        // The default transfer-out folder stays when the configured one is unusable.
        qx_storage_session *s = qx_storage_session_create(1, 1, 2, "wav");
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(fs::path(qx_storage_get_temp_file(s)).parent_path(),
                  fs::path(c.s3 ? QX_STORAGE_TRANSFEROUT_DIR "/main" : base_ + "/monitor/tmp"));
        qx_storage_release_session(s);
    }
    EXPECT_EQ(qx_storage_load_config(nullptr, nullptr), -1);
}

// Sessions made, committed, read and released on several threads while the module is
// initialised again and again (the DisDB client replaced each time) and the engine flips
// between POSIX and S3: the ThreadSanitizer build runs this for data races.
TEST_F(Storage, SessionsRunWhileTheModuleIsReinitialised) {
    StorageConf conf(conf_text("s3"));
    constexpr int kThreads = 4, kFiles = 6;
    std::vector<int> ids;
    for (int i = 0; i < kThreads * kFiles; ++i)
        ids.push_back(add_row("extension_recording"));
    std::atomic<int> workers_left{kThreads}, inits{0};
    std::thread initialiser([&] {
        while (workers_left > 0 || inits == 0) {
            service_.usable = !service_.usable;
            EXPECT_EQ(qx_storage_initialize(base_.c_str(), nullptr), 0);
            ++inits;
        }
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
                const char *path = qx_storage_get_file_path(s);
                EXPECT_TRUE(path && content_of(path) == id) << (path ? path : "(no path)");
                qx_storage_release_session(s);
            }
            --workers_left;
        });
    for (auto &w : workers)
        w.join();
    initialiser.join();
    EXPECT_GT(inits, 0);
}

}  // namespace
