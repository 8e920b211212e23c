// The slow refresh of a whole account tree against the sandbox: accounts, extensions and stored
// file rows in MariaDB (read through the Redis cache), media files in the root's Asterisk
// directories, quota files under the root's quota directory.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quota.h"
#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_extension.h"

namespace fs = std::filesystem;

namespace {

auto *const sandbox_env = qxtest::register_sandbox();

using qxtest::dirty;
using qxtest::kKindFiles;
using qxtest::music_dir;
using qxtest::put;
using qxtest::sounds_dir;
using Quotas = qxtest::Usage;

std::string quota_root() {
    return qxtest::path("/var/lib/quorvexquota");
}
std::string record(long long value, int revision = 0) {
    return std::to_string(value) + "." + std::to_string(revision);
}

// A root with one reseller; the reseller has a client with two users and a client without
// users. The numbers are chosen so that every sum is distinct.
struct Tree {
    int root, reseller, client, owner1, owner2, client2, unknown;

    std::string dir(int id) const {
        const std::string r = quota_root() + "/" + std::to_string(reseller);
        if (id == reseller) return r;
        if (id == client || id == client2) return r + "/" + std::to_string(id);
        return r + "/" + std::to_string(client) + "/" + std::to_string(id);
    }
    std::string file(int id, int kind) const { return dir(id) + "/" + kKindFiles[kind] + ".quota"; }
    std::vector<int> accounts() const { return {reseller, client, owner1, owner2, client2}; }

    // What a full refresh must find: own usage plus the children's.
    std::map<int, Quotas> expected() const {
        return {
            {owner1, {1500, 110, 2000, 0, 0}},        {owner2, {300, 0, 0, 770, 1000}},
            {client, {1800, 150, 2000, 770, 1000}},   {client2, {0, 0, 0, 0, 64}},
            {reseller, {1800, 155, 2000, 770, 1064}},
        };
    }
};

Tree make_tree() {
    const int base = qxtest::fresh_ids();
    Tree t{base, base + 1, base + 2, base + 3, base + 4, base + 5, base + 9};
    // Ids come back after a sandbox reset: nothing of an earlier life may count.
    std::error_code ec;
    fs::remove_all(t.dir(t.reseller), ec);
    for (int id = base; id < base + 10; ++id) {
        const std::string n = std::to_string(id);
        qxtest::redis({"DEL", "res:inf:mng:" + n, "res:pre:mng:" + n, "res:ind:" + n + ":ext"});
        fs::remove_all(sounds_dir(id), ec);
        fs::remove_all(music_dir(id), ec);
    }
    qxtest::add_account(t.root, 0, 0);
    qxtest::add_account(t.reseller, t.root, 10);
    qxtest::add_account(t.client, t.reseller, 50);
    qxtest::add_account(t.owner1, t.client, 100);
    qxtest::add_account(t.owner2, t.client, 100);
    qxtest::add_account(t.client2, t.reseller, 50);

    const std::string prefix = std::to_string(t.owner1) + "*";
    const int e1 = qxtest::add_extension(t.owner1, "201", prefix + "201");
    const int e2 = qxtest::add_extension(t.owner1, "202", prefix + "202");
    const int e3 = qxtest::add_extension(t.owner2, "301", std::to_string(t.owner2) + "*301");
    qxtest::add_db_file("extension_fax_center", e1, 1000);
    qxtest::add_db_file("extension_fax_center", e2, 500);
    qxtest::add_db_file("extension_fax_center", e3, 300);
    qxtest::add_db_file("extension_recording", e1, 2000);
    qxtest::add_db_file("extension_voicemail", e3, 700);
    qxtest::add_db_file("extension_voicemail", e3, 70);

    qxtest::write_file(sounds_dir(t.owner1) + "/greeting.wav", 100);
    qxtest::write_file(sounds_dir(t.owner1) + "/ivr/menu.wav", 10);
    qxtest::write_file(sounds_dir(t.client) + "/welcome.wav", 40);
    qxtest::write_file(sounds_dir(t.reseller) + "/brand.wav", 5);
    qxtest::write_file(music_dir(t.owner2) + "/hold.mp3", 1000);
    qxtest::write_file(music_dir(t.client2) + "/jazz.mp3", 64);
    return t;
}

// Every quota file gets an old mtime, so that a rewrite shows however fast the test runs.
constexpr time_t kLongAgo = 1000000000;

void age_all(const Tree &t) {
    for (int id : t.accounts()) {
        for (int k = 0; k < 5; ++k) {
            const struct timespec times[2] = {{kLongAgo, 0}, {kLongAgo, 0}};
            ::utimensat(AT_FDCWD, t.file(id, k).c_str(), times, 0);
        }
    }
}

bool rewritten(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && st.st_mtime != kLongAgo;
}

class QuotaRefresh : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { qx_sql_pool_init(); }
    void SetUp() override {
        if (!::getpwnam("asterisk") || !::getgrnam("asterisk"))
            GTEST_SKIP() << "needs the asterisk user and group";
    }
};

TEST_F(QuotaRefresh, WritesEveryFileWithOwnUsagePlusChildren) {
    const Tree t = make_tree();
    long long total = -7;
    ASSERT_EQ(quota_update_slow(t.reseller, 5, &total, 0), 0);
    EXPECT_EQ(total, 1064) << "the last kind handled is music";

    for (const auto &[id, quotas] : t.expected()) {
        for (int k = 0; k < 5; ++k) {
            SCOPED_TRACE("account " + std::to_string(id) + " " + kKindFiles[k]);
            EXPECT_EQ(qxtest::read_file(t.file(id, k)), record(quotas[k]));
            EXPECT_FALSE(dirty(t.file(id, k)));
        }
    }
    struct stat st;
    ASSERT_EQ(::stat(t.file(t.owner2, 4).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    ASSERT_EQ(::stat(t.dir(t.owner2).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0770u);
    if (::getuid() == 0) {
        EXPECT_EQ(st.st_uid, ::getpwnam("asterisk")->pw_uid);
        EXPECT_EQ(st.st_gid, ::getgrnam("asterisk")->gr_gid);
    }
}

TEST_F(QuotaRefresh, ReadsBackEveryLevelThroughTheDatabase) {
    const Tree t = make_tree();
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    ASSERT_EQ(quota_update(t.owner2, 3, 30, 30), 0);  // revision 1 along owner2's ancestry

    for (const auto &[id, quotas] : t.expected()) {
        SCOPED_TRACE("account " + std::to_string(id));
        const bool updated = id == t.owner2 || id == t.client || id == t.reseller;
        Quotas values{};
        std::array<int, 5> revisions{};
        ASSERT_EQ(quota_read_sql(id, 5, values.data(), revisions.data()), 0);
        Quotas want = quotas;
        if (updated) want[3] += 30;
        EXPECT_EQ(values, want);
        EXPECT_EQ(revisions, (std::array<int, 5>{0, 0, 0, updated ? 1 : 0, 0}));

        long long one = -7;
        ASSERT_EQ(quota_read_sql(id, 2, &one, nullptr), 0);
        EXPECT_EQ(one, quotas[2]);
    }

    struct Row {
        int account, kind, result;
    };
    const Row rows[] = {{t.root, 5, -1}, {t.unknown, 5, -2}, {t.owner1, 6, -1}};
    for (const Row &row : rows) {
        SCOPED_TRACE("account " + std::to_string(row.account));
        Quotas values{};
        EXPECT_EQ(quota_read_sql(row.account, row.kind, values.data(), nullptr), row.result);
    }

    // Files that do not exist read as -1, the others as they are.
    fs::remove(t.file(t.client2, 0));
    Quotas values{};
    ASSERT_EQ(quota_read(t.client2, t.reseller, 0, 5, values.data(), nullptr), 0);
    EXPECT_EQ(values, (Quotas{-1, 0, 0, 0, 64}));
    EXPECT_EQ(quota_read(t.owner1, 0, t.reseller, 5, values.data(), nullptr), -1);
}

TEST_F(QuotaRefresh, UnforcedRefreshRecomputesOnlyFilesThatNeedIt) {
    const Tree t = make_tree();
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    age_all(t);
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    for (int id : t.accounts()) {
        for (int k = 0; k < 5; ++k)
            EXPECT_FALSE(rewritten(t.file(id, k))) << t.file(id, k);
    }

    struct Damage {
        int account, kind;
        std::optional<std::string> content;  // nullopt: file removed
        bool mark;
        std::string after;  // recomputed files end in ".0"
    };
    const Damage damages[] = {
        {t.owner2, 1, "5.1000", false, "0.0"},         // revision beyond the fast updates
        {t.client, 3, "1.3", true, "770.0"},           // marked dirty
        {t.owner1, 4, std::nullopt, false, "0.0"},     // missing
        {t.client2, 4, "garbage", false, "64.0"},      // no record
        {t.reseller, 0, "999.-1", false, "1800.0"},    // negative revision
        {t.reseller, 2, "999.999", false, "999.999"},  // still in range: kept
        {t.client2, 1, "-50.3", false, "-50.3"},       // kept, but a negative value ...
        {t.reseller, 1, "1.0", true, "155.0"},         // ... adds nothing to the parent
    };
    for (const Damage &d : damages) {
        if (d.content) {
            put(t.file(d.account, d.kind), *d.content);
        } else {
            fs::remove(t.file(d.account, d.kind));
        }
        if (d.mark) put(t.file(d.account, d.kind) + ".dirty", "");
    }
    age_all(t);
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);

    std::map<std::string, const Damage *> damaged;
    for (const Damage &d : damages)
        damaged[t.file(d.account, d.kind)] = &d;
    for (int id : t.accounts()) {
        for (int k = 0; k < 5; ++k) {
            const std::string path = t.file(id, k);
            SCOPED_TRACE(path);
            auto it = damaged.find(path);
            const bool recomputed = it != damaged.end() && it->second->after.ends_with(".0");
            EXPECT_EQ(rewritten(path), recomputed);
            if (it != damaged.end()) {
                EXPECT_EQ(qxtest::read_file(path), it->second->after);
            }
            EXPECT_FALSE(dirty(path));
        }
    }
}

TEST_F(QuotaRefresh, ForceDepthCountsLevelsBelowTheTarget) {
    const Tree t = make_tree();
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    // A client sums its users' files; it never asks the database for their rows itself.
    put(t.file(t.owner1, 0), "999.0");

    struct Row {
        int target, force;
        long long owner1, client, reseller;  // fax totals afterwards
    };
    const Row rows[] = {
        {t.client, 1, 999, 1299, 1800},
        {t.reseller, 2, 999, 1299, 1299},
        {t.reseller, 10, 1500, 1800, 1800},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("target " + std::to_string(row.target) + " force " +
                     std::to_string(row.force));
        ASSERT_EQ(quota_update_slow(row.target, 0, nullptr, row.force), 0);
        EXPECT_EQ(qxtest::read_file(t.file(t.owner1, 0)), record(row.owner1));
        EXPECT_EQ(qxtest::read_file(t.file(t.client, 0)), record(row.client));
        EXPECT_EQ(qxtest::read_file(t.file(t.reseller, 0)), record(row.reseller));
    }

    for (int id : t.accounts()) {
        for (int k = 0; k < 5; ++k)
            put(t.file(id, k), "1.5");
    }
    age_all(t);
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 10), 0);
    for (const auto &[id, quotas] : t.expected()) {
        for (int k = 0; k < 5; ++k) {
            SCOPED_TRACE(t.file(id, k));
            EXPECT_TRUE(rewritten(t.file(id, k)));
            EXPECT_EQ(qxtest::read_file(t.file(id, k)), record(quotas[k]));
        }
    }
}

TEST_F(QuotaRefresh, HandlesOnlyTheKindsAskedFor) {
    const Tree t = make_tree();
    struct Row {
        int target, kind, force, result;
        long long total;
        std::vector<std::pair<int, int>> written;  // (account, kind) files that exist afterwards
    };
    const Row rows[] = {
        {t.reseller,
         3,
         0,
         0,
         770,
         {{t.reseller, 3}, {t.client, 3}, {t.owner1, 3}, {t.owner2, 3}, {t.client2, 3}}},
        {t.owner1, 0, 1, 0, 1500, {{t.owner1, 0}}},
        {t.owner1, 6, 1, -1, -7, {}},
        {t.unknown, 5, 1, -2, -7, {}},
        // A root has no quota directory: the walk stops at once, which is no lookup failure.
        {t.root, 5, 1, 0, 0, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("target " + std::to_string(row.target) + " kind " + std::to_string(row.kind));
        std::error_code ec;
        fs::remove_all(t.dir(t.reseller), ec);
        long long total = -7;
        EXPECT_EQ(quota_update_slow(row.target, row.kind, &total, row.force), row.result);
        EXPECT_EQ(total, row.total);
        size_t files = 0;
        if (fs::exists(t.dir(t.reseller))) {
            for (const auto &e : fs::recursive_directory_iterator(t.dir(t.reseller)))
                files += e.is_regular_file() ? 1 : 0;
        }
        EXPECT_EQ(files, row.written.size());
        for (auto [id, kind] : row.written)
            EXPECT_TRUE(fs::exists(t.file(id, kind)));
    }
}

TEST_F(QuotaRefresh, ListsMediaDirectoriesByKindAndLevel) {
    const Tree t = make_tree();
    const std::string r = std::to_string(t.reseller), c = std::to_string(t.client),
                      u1 = std::to_string(t.owner1), u2 = std::to_string(t.owner2),
                      none = std::to_string(t.unknown);
    const std::string spool = qxtest::path("/var/spool/asterisk");
    // Fax and recordings are kept under the full numbers, voicemail under the short ones.
    auto full = [&](const char *number) {
        char *f = qx_get_full_number(c.c_str(), number);
        std::string out = f ? f : "(none)";
        std::free(f);
        return out;
    };
    struct Row {
        int kind, level;
        const char *owner;
        int rc;
        std::vector<std::string> paths;
    };
    const Row rows[] = {
        {1, 10, nullptr, 0, {sounds_dir(t.reseller)}},
        {4, 50, nullptr, 0, {music_dir(t.client)}},
        {1, 100, u1.c_str(), 0, {sounds_dir(t.owner1)}},
        {3,
         100,
         u1.c_str(),
         0,
         {spool + "/voicemail/" + c + "/201", spool + "/voicemail/" + c + "/202"}},
        {0, 100, u1.c_str(), 0, {spool + "/fax/" + full("201"), spool + "/fax/" + full("202")}},
        {2, 100, u2.c_str(), 0, {spool + "/monitor/" + full("301")}},
        {3, 100, none.c_str(), 0, {}},
        {3, 50, nullptr, -1, {}},
        {0, 10, nullptr, -1, {}},
        {1, 20, u1.c_str(), -1, {}},
        {1, 100, "", -1, {}},
        {6, 100, u1.c_str(), -1, {}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("kind " + std::to_string(row.kind) + " level " + std::to_string(row.level) +
                     " owner " + (row.owner ? row.owner : "(null)"));
        char **paths = nullptr;
        int count = 0;
        EXPECT_EQ(make_dpath(row.kind, row.level, r.c_str(), c.c_str(), row.owner, &paths, &count),
                  row.rc);
        std::vector<std::string> got;
        for (int i = 0; i < count; ++i) {
            got.emplace_back(paths[i]);
            std::free(paths[i]);
        }
        std::free(paths);
        std::sort(got.begin(), got.end());
        std::vector<std::string> want = row.paths;
        std::sort(want.begin(), want.end());
        EXPECT_EQ(got, want);
    }
}

TEST_F(QuotaRefresh, FastUpdateAndVerifyFollowTheRefreshedFiles) {
    const Tree t = make_tree();
    qxtest::add_pref(t.owner1, "max_sound", "10");
    qxtest::add_pref(t.client, "max_sound", "1");
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);

    ASSERT_EQ(quota_update(t.owner1, 1, 100, 30), 0);
    EXPECT_EQ(qxtest::read_file(t.file(t.owner1, 1)), "210.1");
    EXPECT_EQ(qxtest::read_file(t.file(t.client, 1)), "250.1");
    EXPECT_EQ(qxtest::read_file(t.file(t.reseller, 1)), "255.1");
    EXPECT_EQ(qxtest::read_file(t.file(t.owner2, 1)), "0.0");
    EXPECT_EQ(quota_update(t.owner1, 5, 100, 30), -1);

    struct Row {
        const char *owner_sound, *client_sound;
        int result;
    };
    const Row rows[] = {
        {"10240.1", "250.1", t.owner1 + 1000000000},
        {"10239.1", "250.1", 0},
        {"10239.1", "1024.1", t.client + 500000000},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.owner_sound) + " / " + row.client_sound);
        put(t.file(t.owner1, 1), row.owner_sound);
        put(t.file(t.client, 1), row.client_sound);
        ::testing::internal::CaptureStdout();
        const int result = quota_verify(t.owner1, 1);
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(result, row.result);
        char line[512];
        std::snprintf(line, sizeof line,
                      " + quota_verify(target:1, resid:%d, clid:%d, extid:%d) returned:%d (if >0 "
                      "it means: client.id:%d, client.level:%d)\n",
                      t.reseller, t.client, t.owner1, row.result, row.result % 10000000,
                      row.result / 10000000);
        EXPECT_EQ(out, line);
    }
}

}  // namespace
