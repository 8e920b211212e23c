// The slow refresh through its own entry points (kinds, depths, read-back); whole refreshes and
// their files are checked end to end through spoolcap.
#include <dlfcn.h>
#include <sys/stat.h>

#include "integration.hpp"
#include "quota.h"

using qxtest::put;
using qxtest::Usage;

// A root with one reseller; the reseller has a client with two users and a client without
// users. Every sum is distinct.
struct Tree : qxtest::QuotaTree {
    int root, reseller, client, owner1, owner2, client2, unknown;
    explicit Tree(int base = qxtest::fresh_ids()) {
        root = base, reseller = base + 1, client = base + 2, owner1 = base + 3;
        owner2 = base + 4, client2 = base + 5, unknown = base + 9;
        add(root, 0, 0), add(reseller, root, 10), add(client, reseller, 50);
        add(owner1, client, 100), add(owner2, client, 100), add(client2, reseller, 50);
        const char *fax = "extension_fax_center", *vm = "extension_voicemail";
        ext(owner1, 201, {{fax, 1000}, {"extension_recording", 2000}});
        ext(owner1, 202, {{fax, 500}});
        ext(owner2, 301, {{fax, 300}, {vm, 700}, {vm, 70}});
        qxtest::write_file(qxtest::sounds_dir(owner1) + "/greeting.wav", 100);
        qxtest::write_file(qxtest::sounds_dir(owner1) + "/ivr/menu.wav", 10);
        qxtest::write_file(qxtest::sounds_dir(client) + "/welcome.wav", 40);
        qxtest::write_file(qxtest::sounds_dir(reseller) + "/brand.wav", 5);
        qxtest::write_file(qxtest::music_dir(owner2) + "/hold.mp3", 1000);
        qxtest::write_file(qxtest::music_dir(client2) + "/jazz.mp3", 64);
    }
    std::string record(int id, int kind) const {
        return qxtest::read_file(file(id, kind)).value_or("(missing)");
    }
};

using QuotaRefresh = QuotaTest;

// The file whose every positioned read returns another record, as if a writer rewrote it under
// each read of a reader that holds no lock.
static ino_t g_flicker = 0;
extern "C" ssize_t pread(int fd, void *buf, size_t n, off_t off) {
    static const auto real =
        reinterpret_cast<ssize_t (*)(int, void *, size_t, off_t)>(dlsym(RTLD_NEXT, "pread"));
    static int reads = 0;
    struct stat st;
    if (!g_flicker || fstat(fd, &st) != 0 || st.st_ino != g_flicker) return real(fd, buf, n, off);
    const std::string record = std::to_string(++reads % 2 ? 1000 : 7000) + ".0";
    const size_t len = std::min(n, record.size());
    std::memcpy(buf, record.data(), len);
    return static_cast<ssize_t>(len);
}

TEST_F(QuotaRefresh, ReadsBackValuesThenForceDepthCountsLevelsBelowTheTarget) {
    const Tree t;
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    ASSERT_EQ(quota_update(t.owner2, 3, 30, 30), 0);  // revision 1 along owner2's ancestry
    Usage values{};
    std::array<int, 5> revisions{};
    ASSERT_EQ(quota_read_sql(t.client, 5, values.data(), revisions.data()), 0);
    EXPECT_EQ(values, (Usage{1800, 150, 2000, 800, 1000}));
    EXPECT_EQ(revisions, (std::array<int, 5>{0, 0, 0, 1, 0}));
    const struct {
        int account, kind, result;
        long long first;  // the first value read
    } rows[] = {
        {t.owner1, 2, 0, 2000}, {t.root, 5, -1, 0}, {t.unknown, 5, -2, 0}, {t.owner1, 6, -1, 0}};
    for (const auto &row : rows) {
        values = {};
        EXPECT_EQ(quota_read_sql(row.account, row.kind, values.data(), nullptr), row.result)
            << row.account;
        EXPECT_EQ(values[0], row.first) << row.account;
    }
    // Files that do not exist read as -1, the others as they are.
    fs::remove(t.file(t.client2, 0));
    ASSERT_EQ(quota_read(t.client2, t.reseller, 0, 5, values.data(), nullptr), 0);
    EXPECT_EQ(values, (Usage{-1, 0, 0, 0, 64}));
    EXPECT_EQ(quota_read(t.owner1, 0, t.reseller, 5, values.data(), nullptr), -1);

    // A client sums its users' files; it never asks the database for their rows itself.
    put(t.file(t.owner1, 0), "999.0");
    const struct {
        int target, force;
        const char *owner1, *client, *reseller;  // fax records afterwards
    } depths[] = {
        {t.client, 1, "999.0", "1299.0", "1800.0"},
        {t.reseller, 2, "999.0", "1299.0", "1299.0"},
        {t.reseller, 10, "1500.0", "1800.0", "1800.0"},
    };
    for (const auto &row : depths) {
        SCOPED_TRACE("force " + std::to_string(row.force));
        ASSERT_EQ(quota_update_slow(row.target, 0, nullptr, row.force), 0);
        EXPECT_EQ(t.record(t.owner1, 0), row.owner1);
        EXPECT_EQ(t.record(t.client, 0), row.client);
        EXPECT_EQ(t.record(t.reseller, 0), row.reseller);
    }
}

TEST_F(QuotaRefresh, UnforcedRefreshRecomputesOnlyFilesThatNeedIt) {
    const Tree t;
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    struct Damage {
        int account, kind;
        std::optional<std::string> content;  // nullopt: file removed
        bool mark;
        std::string after;  // recomputed files end in ".0"
    };
    const Damage damages[] = {
        {t.owner1, 4, std::nullopt, false, "0.0"},   // missing
        {t.client2, 4, "garbage", false, "64.0"},    // no record
        {t.reseller, 0, "999.-1", false, "1800.0"},  // negative revision
        {t.client2, 1, "-50.3", false, "-50.3"},     // kept, but a negative value ...
        {t.reseller, 1, "1.0", true, "155.0"},       // ... adds nothing to the parent
    };
    for (const Damage &d : damages) {
        d.content ? put(t.file(d.account, d.kind), *d.content)
                  : (void)fs::remove(t.file(d.account, d.kind));
        if (d.mark) put(t.file(d.account, d.kind) + ".dirty", "");
    }
    t.age();
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    std::set<std::string> recomputed;
    for (const Damage &d : damages) {
        EXPECT_EQ(t.record(d.account, d.kind), d.after) << t.file(d.account, d.kind);
        if (d.after.ends_with(".0")) recomputed.insert(t.file(d.account, d.kind));
    }
    EXPECT_EQ(t.rewritten(), recomputed);
    for (const auto &f : t.files())
        EXPECT_FALSE(qxtest::dirty(f)) << f;
}

TEST_F(QuotaRefresh, ARecordThatNeverReadsTheSameTwiceIsNoRecord) {
    const Tree t;
    const std::string fax = t.file(t.owner1, 0);
    ASSERT_EQ(quota_update_slow(t.reseller, 5, nullptr, 0), 0);
    t.age();
    long long total = -7, value = 0, sum = 0;
    ASSERT_EQ(quota_update_slow(t.owner1, 0, &total, 0), 0);
    EXPECT_EQ(total, 1500) << "the total of a file left as it was";
    EXPECT_TRUE(t.rewritten().empty());

    struct stat st;
    ASSERT_EQ(stat(fax.c_str(), &st), 0);
    g_flicker = st.st_ino;
    EXPECT_EQ(quota_read(t.owner1, t.client, t.reseller, 0, &value, nullptr), 0);
    EXPECT_EQ(value, -1) << "a value read while it changed is returned";
    const std::string client_dir = fs::path(t.file(t.client, 0)).parent_path();
    EXPECT_EQ(grab_child_quotas(std::to_string(t.client).c_str(), nullptr, nullptr, 0,
                                client_dir.c_str(), &sum),
              0);
    EXPECT_EQ(sum, 300) << "a value read while it changed is summed";
    ASSERT_EQ(quota_update_slow(t.owner1, 0, &total, 0), 0);
    g_flicker = 0;
    EXPECT_EQ(total, 1500) << "a value read while it changed is the total";
    EXPECT_EQ(t.rewritten(), std::set<std::string>{fax});
}

TEST_F(QuotaRefresh, HandlesOnlyTheKindsAskedFor) {
    const Tree t;
    std::vector<std::pair<int, int>> every_vm, every;
    for (auto [id, d] : t.dir) {
        every_vm.emplace_back(id, 3);
        for (int k = 0; k < qxtest::kKinds; ++k)
            every.emplace_back(id, k);
    }
    const struct {
        int target, kind, force, result;
        long long total;
        std::vector<std::pair<int, int>> written;  // (account, kind) files afterwards, sorted
    } rows[] = {
        {t.reseller, 5, 0, 0, 1064, every},  // the total is the last kind's: music
        {t.reseller, 3, 0, 0, 770, every_vm},
        {t.owner1, 0, 1, 0, 1500, {{t.owner1, 0}}},
        {t.owner1, 6, 1, -1, -7, {}},
        {t.unknown, 5, 1, -2, -7, {}},
        // A root has no quota directory: the walk stops at once, which is no lookup failure.
        {t.root, 5, 1, 0, 0, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("target " + std::to_string(row.target) + " kind " + std::to_string(row.kind));
        fs::remove_all(t.dir.at(t.reseller));
        long long total = -7;
        EXPECT_EQ(quota_update_slow(row.target, row.kind, &total, row.force), row.result);
        EXPECT_EQ(total, row.total);
        std::vector<std::pair<int, int>> written;
        for (auto [id, d] : t.dir)
            for (int k = 0; k < qxtest::kKinds; ++k)
                if (fs::exists(t.file(id, k))) written.emplace_back(id, k);
        EXPECT_EQ(written, row.written);
    }
}

TEST_F(QuotaRefresh, ListsMediaDirectoriesByKindAndLevel) {
    const Tree t;
    const std::string r = std::to_string(t.reseller), c = std::to_string(t.client),
                      u1 = std::to_string(t.owner1), u2 = std::to_string(t.owner2),
                      none = std::to_string(t.unknown);
    const std::string spool = qxtest::path("/var/spool/asterisk"), vm = spool + "/voicemail/" + c;
    // Fax and recordings are kept under the full numbers, voicemail under the short ones.
    const struct {
        int kind, level;
        const char *owner;
        int rc;
        std::vector<std::string> paths;  // sorted
    } rows[] = {
        {3, 100, u1.c_str(), 0, {vm + "/201", vm + "/202"}},
        {0, 100, u1.c_str(), 0, {spool + "/fax/" + u1 + "*201", spool + "/fax/" + u1 + "*202"}},
        {2, 100, u2.c_str(), 0, {spool + "/monitor/" + u2 + "*301"}},
        {3, 100, none.c_str(), 0, {}},
        {3, 50, nullptr, -1, {}},
        {1, 20, u1.c_str(), -1, {}},
        {1, 100, "", -1, {}},
        {6, 100, u1.c_str(), -1, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.kind << " " << row.level << " " << row.owner);
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
        EXPECT_EQ(got, row.paths);
    }
}
