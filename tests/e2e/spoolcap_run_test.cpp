// Whole runs of the built spoolcap against the sandbox database, cache and real media and quota
// directories: what set writes, what show prints, and how the exit status follows the refreshes.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <optional>
#include <thread>
#include <array>
#include <cstdio>
#include <iterator>
#include <filesystem>
#include <map>
#include <system_error>
#include <set>
#include <string>
#include <vector>

#include "quota.h"
#include "qxtest.hpp"

namespace {

[[maybe_unused]] static auto *const sandbox_env = qxtest::register_sandbox();

namespace fs = std::filesystem;

constexpr int kKinds = 5;
constexpr const char *kKindFiles[kKinds] = {"fax", "sound", "recording", "voicemail", "music"};
constexpr const char *kKindLabels[kKinds] = {"Fax         ", "Sounds      ", "Recording   ",
                                             "Voicemail   ", "Music on hold"};
// Quota files are aged to this mtime; anything newer was rewritten by the run.
constexpr time_t kAgedMtime = 1000000000;

// fax, sound, recording, voicemail, music
using Usage = std::array<long long, kKinds>;

std::string str(int n) {
    return std::to_string(n);
}
std::string quota_root() {
    return qxtest::path("/var/lib/quorvexquota");
}
std::string sounds_dir(int id) {
    return qxtest::path("/var/lib/asterisk/sounds/.") + str(id);
}
std::string music_dir(int id) {
    return qxtest::path("/var/lib/asterisk/music/") + str(id);
}

int add_ext(int owner, int n) {
    const std::string full = str(owner) + "-" + str(n);
    qxtest::sql("INSERT INTO extension (client_id, number, extended_number) VALUES (" + str(owner) +
                ", '" + str(owner) + str(n) + "', '" + full + "')");
    return static_cast<int>(
        qxtest::sql_int("SELECT id FROM extension WHERE extended_number = '" + full + "'"));
}

// A reseller with two clients and three users, media on disk and stored-file rows, built on a
// fresh block of ids: root +9 (level 0), reseller +0, clients +1 +2, users +3 +4 under +1 and
// +5 under +2.
struct Tree {
    int root, r, c1, c2, u1, u2, u3;
    std::map<int, std::string> dir;  // quota directory of each account
    std::map<int, Usage> usage;      // what a refresh must store for each account

    explicit Tree(int base)
        : root(base + 9),
          r(base),
          c1(base + 1),
          c2(base + 2),
          u1(base + 3),
          u2(base + 4),
          u3(base + 5) {
        qxtest::add_account(root, 0, 0);
        qxtest::add_account(r, root, 10);
        qxtest::add_account(c1, r, 50);
        qxtest::add_account(c2, r, 50);
        qxtest::add_account(u1, c1, 100);
        qxtest::add_account(u2, c1, 100);
        qxtest::add_account(u3, c2, 100);

        const int e1 = add_ext(u1, 1), e2 = add_ext(u1, 2), e3 = add_ext(u2, 1),
                  e4 = add_ext(u3, 1);
        qxtest::add_db_file("extension_fax_center", e1, 100);
        qxtest::add_db_file("extension_fax_center", e1, 200);
        qxtest::add_db_file("extension_fax_center", e3, 50);
        qxtest::add_db_file("extension_recording", e1, 1000);
        qxtest::add_db_file("extension_recording", e2, 24);
        qxtest::add_db_file("extension_recording", e4, 4096);
        qxtest::add_db_file("extension_voicemail", e2, 512);
        qxtest::add_db_file("extension_voicemail", e3, 7);

        qxtest::write_file(sounds_dir(r) + "/welcome.wav", 2048);
        qxtest::write_file(sounds_dir(c1) + "/a.wav", 1000);
        qxtest::write_file(sounds_dir(c1) + "/nested/b.wav", 24);
        qxtest::write_file(sounds_dir(u1) + "/greeting.wav", 1536);
        qxtest::write_file(music_dir(r) + "/hold.mp3", 1048576);
        qxtest::write_file(music_dir(u3) + "/jazz.mp3", 3000);

        dir[r] = quota_root() + "/" + str(r);
        dir[c1] = dir[r] + "/" + str(c1);
        dir[c2] = dir[r] + "/" + str(c2);
        dir[u1] = dir[c1] + "/" + str(u1);
        dir[u2] = dir[c1] + "/" + str(u2);
        dir[u3] = dir[c2] + "/" + str(u3);

        usage[u1] = {300, 1536, 1024, 512, 0};
        usage[u2] = {50, 0, 0, 7, 0};
        usage[u3] = {0, 0, 4096, 0, 3000};
        usage[c1] = {350, 2560, 1024, 519, 0};
        usage[c2] = {0, 0, 4096, 0, 3000};
        usage[r] = {350, 4608, 5120, 519, 1051576};
    }

    std::string file(int account, int kind) const {
        return dir.at(account) + "/" + kKindFiles[kind] + ".quota";
    }
    std::vector<std::string> files() const {
        std::vector<std::string> out;
        for (const auto &[id, d] : dir) {
            for (int k = 0; k < kKinds; ++k)
                out.push_back(file(id, k));
        }
        return out;
    }
};

// Media directories are not part of the id allocator's clean-up: a reused block starts bare.
void clear_media(int id) {
    std::error_code ec;
    fs::remove_all(sounds_dir(id), ec);
    fs::remove_all(music_dir(id), ec);
}

int fresh_block() {
    const int base = qxtest::fresh_ids();
    for (int id = base; id < base + 10; ++id)
        clear_media(id);
    return base;
}

Tree make_tree() {
    return Tree(fresh_block());
}

void expect_refreshed(const Tree &t) {
    for (const auto &[id, values] : t.usage) {
        for (int k = 0; k < kKinds; ++k) {
            EXPECT_EQ(qxtest::read_file(t.file(id, k)).value_or("(missing)"),
                      std::to_string(values[k]) + ".0")
                << t.file(id, k);
        }
    }
}

void age(const std::vector<std::string> &files) {
    const timespec times[2] = {{kAgedMtime, 0}, {kAgedMtime, 0}};
    for (const auto &f : files)
        ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), times, 0), 0) << f;
}

std::vector<std::string> existing(const std::vector<std::string> &files) {
    std::vector<std::string> out;
    std::copy_if(files.begin(), files.end(), std::back_inserter(out),
                 [](const std::string &f) { return fs::exists(f); });
    return out;
}

void put(const std::string &file, const std::string &content) {
    FILE *fp = std::fopen(file.c_str(), "w");
    ASSERT_TRUE(fp) << file;
    std::fputs(content.c_str(), fp);
    std::fclose(fp);
}

std::set<std::string> rewritten(const std::vector<std::string> &files) {
    std::set<std::string> out;
    for (const auto &f : files) {
        struct stat st {};
        if (stat(f.c_str(), &st) != 0 || st.st_mtim.tv_sec != kAgedMtime) out.insert(f);
    }
    return out;
}

std::string body(const Usage &u) {
    long long total = 0;
    for (long long v : u)
        if (v > 0 && __builtin_add_overflow(total, v, &total)) total = LLONG_MAX;
    std::string out = std::to_string(total) + " bytes\n";
    for (int k = 0; k < kKinds; ++k) {
        out += std::string("\t") + kKindLabels[k] + "\t\t" +
               (u[k] < 0 ? "Not found" : std::to_string(u[k]) + " bytes") + "\n";
    }
    return out + "\n";
}

// One block of the listing by id or login (two tabs after the id).
std::string block(int id, const std::string &rest) {
    return "Quota for user u" + str(id) + " (with id: " + str(id) + ")\t\t" + rest;
}
std::string block(const Tree &t, int id) {
    return block(id, body(t.usage.at(id)));
}

// The table's order is its own: compare the blocks as a sorted list.
std::vector<std::string> blocks(const std::string &out) {
    std::vector<std::string> parts;
    const std::string head = "Quota for user ";
    for (size_t pos = out.find(head); pos != std::string::npos;) {
        const size_t next = out.find(head, pos + 1);
        parts.push_back(out.substr(pos, next == std::string::npos ? next : next - pos));
        pos = next;
    }
    if (!out.empty() && out.rfind(head, 0) != 0) parts.push_back("(garbage) " + out);
    std::sort(parts.begin(), parts.end());
    return parts;
}

TEST(SpoolcapRun, SetWritesTheSubtreeAndShowPrintsTheReport) {
    Tree t = make_tree();
    auto r = qxtest::spoolcap({"--action", "set", "--uid", str(t.r)});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, block(t, t.r));
    expect_refreshed(t);

    r = qxtest::spoolcap({"-A", "show", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, block(t, t.r));

    r = qxtest::spoolcap({"--action", "show", "--uid", str(t.r), "--human"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, block(t.r,
                           "1.01 MB\n"
                           "\tFax         \t\t350.00 B\n"
                           "\tSounds      \t\t4.50 KB\n"
                           "\tRecording   \t\t5.00 KB\n"
                           "\tVoicemail   \t\t519.00 B\n"
                           "\tMusic on hold\t\t1.00 MB\n"
                           "\n"));

    if (getuid() != 0) return;
    const passwd *pw = getpwnam("asterisk");
    const group *gr = getgrnam("asterisk");
    ASSERT_TRUE(pw && gr) << "the asterisk user and group must exist";
    std::vector<std::pair<std::string, mode_t>> owned;
    for (const auto &[id, d] : t.dir)
        owned.emplace_back(d, 0770);
    for (const auto &f : t.files())
        owned.emplace_back(f, 0660);
    for (const auto &[p, mode] : owned) {
        struct stat st {};
        ASSERT_EQ(stat(p.c_str(), &st), 0) << p;
        EXPECT_EQ(st.st_uid, pw->pw_uid) << p;
        EXPECT_EQ(st.st_gid, gr->gr_gid) << p;
        EXPECT_EQ(st.st_mode & 07777, mode) << p;
    }
}

TEST(SpoolcapRun, ShowTotalsOnlyTheKindsItCouldRead) {
    Tree t = make_tree();
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    ASSERT_EQ(unlink(t.file(t.r, 0).c_str()), 0);
    put(t.file(t.r, 3), "-7.2");
    Usage u = t.usage[t.r];
    u[0] = -1;
    u[3] = -7;
    auto r = qxtest::spoolcap({"-A", "show", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, block(t.r, body(u)));
}

TEST(SpoolcapRun, UnforcedSetRewritesOnlyStaleFilesAndForceRewritesAll) {
    Tree t = make_tree();
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    const auto all = t.files();

    age(all);
    auto r = qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(rewritten(all), std::set<std::string>{});

    struct Stale {
        const char *why;
        int account, kind;
        const char *content;  // nullptr: remove the file
        bool dirty;
    };
    const Stale stale[] = {
        {"dirty mark", t.u1, 1, "5.3", true},
        {"revision 1000", t.c2, 0, "77.1000", false},
        {"record without a dot", t.u2, 4, "abc", false},
        {"missing file", t.u3, 3, nullptr, false},
    };
    std::set<std::string> expected;
    for (const auto &s : stale) {
        const std::string f = t.file(s.account, s.kind);
        expected.insert(f);
        if (s.content) {
            put(f, s.content);
        } else {
            ASSERT_EQ(unlink(f.c_str()), 0) << f;
        }
        if (s.dirty) put(f + ".dirty", "");
    }
    // A file below the revision limit is trusted, whatever it holds.
    const std::string trusted = t.file(t.c1, 2);
    put(trusted, "42.999");
    age(existing(all));

    r = qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(rewritten(all), expected);
    for (const auto &s : stale) {
        SCOPED_TRACE(s.why);
        EXPECT_EQ(qxtest::read_file(t.file(s.account, s.kind)).value_or("(missing)"),
                  std::to_string(t.usage[s.account][s.kind]) + ".0");
        EXPECT_FALSE(fs::exists(t.file(s.account, s.kind) + ".dirty"));
    }
    EXPECT_EQ(qxtest::read_file(trusted).value_or(""), "42.999");

    age(all);
    r = qxtest::spoolcap({"-A", "set", "-q", "-f", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(rewritten(all), std::set<std::string>(all.begin(), all.end()));
    expect_refreshed(t);
}

TEST(SpoolcapRun, FiveDigitTargetIdIsCutToFourDigitsInItsOwnQueries) {
    const int base = fresh_block();
    const int root = base + 9, big = 10000 + base, child_of_base = base + 1, own_child = base + 2;
    // Five-digit ids are outside the allocator's blocks: clear what an earlier run left.
    const std::string b = str(big);
    qxtest::sql("DELETE FROM hs_account WHERE userID = " + b);
    qxtest::sql("DELETE FROM client WHERE id = " + b);
    qxtest::redis({"DEL", "res:inf:mng:" + b, "res:pre:mng:" + b, "res:ind:" + b + ":ext"});
    std::error_code ec;
    fs::remove_all(quota_root() + "/" + b, ec);
    clear_media(big);
    qxtest::add_account(root, 0, 0);
    qxtest::add_account(base, root, 10);
    qxtest::add_account(big, root, 10);
    qxtest::add_account(child_of_base, base, 50);
    qxtest::add_account(own_child, big, 50);
    qxtest::write_file(sounds_dir(base) + "/s.wav", 300);
    qxtest::write_file(sounds_dir(big) + "/s.wav", 500);
    qxtest::write_file(sounds_dir(child_of_base) + "/s.wav", 40);
    qxtest::write_file(sounds_dir(own_child) + "/s.wav", 7);

    auto r = qxtest::spoolcap({"-A", "set", "-q", "-u", str(big)});
    EXPECT_EQ(r.status, 0) << r.err;
    // The quota directory follows the real id, the media and the children follow the cut one.
    const std::string dir = quota_root() + "/" + str(big);
    EXPECT_EQ(qxtest::read_file(dir + "/sound.quota").value_or("(missing)"), "340.0");
    EXPECT_EQ(
        qxtest::read_file(dir + "/" + str(child_of_base) + "/sound.quota").value_or("(missing)"),
        "40.0");
    EXPECT_FALSE(fs::exists(dir + "/" + str(own_child)));
    EXPECT_FALSE(fs::exists(quota_root() + "/" + str(base)));
}

TEST(SpoolcapRun, TargetSelectionRules) {
    Tree t = make_tree();
    const int odd = t.root - 1;  // base + 8: a level the tool does not know
    qxtest::add_account(odd, t.r, 20);
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);

    const std::string none = "None of the requested users found in database.\n";
    struct Case {
        const char *what;
        std::vector<std::string> args;
        std::string out;  // blocks, in any order
        std::string err;
        int status;
    };
    const Case cases[] = {
        {"a repeated id is selected once",
         {"-A", "set", "-u", str(t.u1) + "," + str(t.u1)},
         block(t, t.u1),
         "",
         0},
        {"client and one of its users",
         {"-A", "set", "-u", str(t.c1) + "," + str(t.u1)},
         block(t, t.c1) + block(t, t.u1),
         "",
         0},
        {"quiet prints nothing", {"-A", "set", "-q", "-u", str(t.c1) + "," + str(t.u1)}, "", "", 0},
        {"show prints both",
         {"-A", "show", "-u", str(t.u1) + "," + str(t.c1)},
         block(t, t.c1) + block(t, t.u1),
         "",
         0},
        {"human units at their boundaries",
         {"-A", "show", "-h", "-u", str(t.u1)},
         block(t.u1,
               "3.29 KB\n\tFax         \t\t300.00 B\n\tSounds      \t\t1.50 KB\n"
               "\tRecording   \t\t1.00 KB\n\tVoicemail   \t\t512.00 B\n"
               "\tMusic on hold\t\t0.00 B\n\n"),
         "",
         0},
        {"quoted login list",
         {"-A", "show", "-l", "'u" + str(t.c2) + "','u" + str(t.u2) + "'"},
         block(t, t.c2) + block(t, t.u2),
         "",
         0},
        {"unknown levels only", {"-A", "set", "-u", str(t.root) + "," + str(odd)}, "", none, 10},
        {"unknown levels, show", {"-A", "show", "-u", str(odd)}, "", none, 10},
        {"no such account", {"-A", "show", "-u", str(t.root - 2)}, "", none, 10},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        auto r = qxtest::spoolcap(c.args);
        EXPECT_EQ(blocks(r.out), blocks(c.out));
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.status, c.status);
    }
    expect_refreshed(t);
}

TEST(SpoolcapRun, UnquotedLoginListIsLoggedAndTheRunGoesOn) {
    Tree t = make_tree();
    const std::string log = qxtest::path("/var/log/quorvex.log");
    for (const char *act : {"set", "show"}) {
        SCOPED_TRACE(act);
        const size_t before = qxtest::read_file(log).value_or("").size();
        auto r = qxtest::spoolcap({"-A", act, "-l", "u" + str(t.r) + ",u" + str(t.c1)});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "");
        const std::string added = qxtest::read_file(log).value_or("").substr(before);
        EXPECT_NE(added.find("spoolcap:get_sql_data:"), std::string::npos) << added;
        EXPECT_NE(added.find("-MySQL error: Unknown column 'u" + str(t.r) + "'"), std::string::npos)
            << added;
    }
    EXPECT_FALSE(fs::exists(t.dir[t.r]));
}

TEST(SpoolcapRun, FailedRefreshesDecideTheStatus) {
    Tree t = make_tree();
    // A user whose client does not exist: its position in the tree cannot be looked up.
    const int orphan = t.root - 1, missing_client = t.root - 2;
    qxtest::add_account(orphan, missing_client, 100);
    const std::string orphan_block = block(orphan, "Quota Not found\n\n");

    auto r = qxtest::spoolcap({"-A", "set", "-u", str(orphan) + "," + str(t.r)});
    EXPECT_EQ(r.status, 6);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(blocks(r.out), blocks(block(t, t.r) + orphan_block));
    expect_refreshed(t);

    r = qxtest::spoolcap({"-A", "set", "-u", str(orphan)});
    EXPECT_EQ(r.status, 5);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "No quota file could be updated!\n");

    r = qxtest::spoolcap({"-A", "show", "-u", str(orphan)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, orphan_block);
}

TEST(SpoolcapRun, ShowAllListsEveryAccountInServerOrder) {
    // The listing covers the whole table, so other tests' accounts must go first.
    qxtest::sql("DELETE FROM hs_account");
    qxtest::sql("DELETE FROM client");
    Tree t = make_tree();
    const int odd = t.root - 1, nameless = t.root - 2;
    qxtest::add_account(odd, t.r, 20);
    qxtest::add_account(nameless, t.c1, 100);
    qxtest::sql("UPDATE hs_account SET username = '' WHERE userID = " + str(nameless));

    std::string expected;
    for (const auto &row : qxtest::sql_rows("SELECT client.id, acc.username FROM client, "
                                            "hs_account acc WHERE client.id = acc.userID")) {
        if (!row[0] || !row[1] || row[1]->empty()) continue;
        const int id = std::stoi(*row[0]);
        expected += "Quota for user " + *row[1] + " (with id: " + *row[0] + ")\t" +
                    (t.usage.count(id) ? body(t.usage.at(id)) : "Quota Not found\n\n");
    }

    auto r = qxtest::spoolcap({"--action", "set", "--all"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, expected);
    expect_refreshed(t);

    r = qxtest::spoolcap({"--action", "show", "--all"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, expected);
}

// ---- faults ----------------------------------------------------------------------------------

// Replaces a configuration file for the scope (appending lines, or new content).
class ConfFile {
  public:
    ConfFile(std::string rel, const std::string &text, bool append = true)
        : path_(qxtest::path(rel)), saved_(qxtest::read_file(path_).value_or("")) {
        put(path_, append ? saved_ + text : text);
    }
    ~ConfFile() { put(path_, saved_); }

  private:
    std::string path_, saved_;
};

// Log lines the runs of the scope added.
class RunLog {
  public:
    RunLog() : before_(text().size()) {}
    std::string added() const { return text().substr(std::min(before_, text().size())); }

  private:
    static std::string text() {
        return qxtest::read_file(qxtest::path("/var/log/quorvex.log")).value_or("");
    }
    size_t before_;
};

// A run that hangs fails the test instead of the suite.
qxtest::RunResult bounded(std::vector<std::string> args) {
    args.insert(args.begin(), {"timeout", "60", QX_SPOOLCAP});
    return qxtest::run(args);
}

bool dirty(const std::string &f) {
    return fs::exists(f + ".dirty");
}

// Reads a record without ever opening anything but a regular file.
std::string content(const std::string &f) {
    if (!fs::is_regular_file(f)) return "(missing)";
    return qxtest::read_file(f).value_or("(missing)");
}

std::map<std::string, std::string> snapshot(const Tree &t) {
    std::map<std::string, std::string> out;
    for (const auto &f : t.files())
        out[f] = content(f);
    return out;
}

// What a fault may leave: the exact value, the old content, or a dirty mark. Returns how many
// files took each way.
std::array<int, 3> expect_exact_old_or_dirty(const Tree &t,
                                             const std::map<std::string, std::string> &old) {
    std::array<int, 3> ways{};
    for (const auto &[id, values] : t.usage) {
        for (int k = 0; k < kKinds; ++k) {
            const std::string f = t.file(id, k), now = content(f);
            const int way = now == std::to_string(values[k]) + ".0" ? 0 : now == old.at(f) ? 1 : 2;
            EXPECT_TRUE(way < 2 || dirty(f)) << f << " holds " << now;
            ++ways[way];
        }
    }
    return ways;
}

// After the fault is gone, one refresh (forced where no mark could be made) repairs every file.
void expect_repaired(const Tree &t, bool force = false) {
    auto r = qxtest::spoolcap({"-A", "set", "-q", force ? "-f" : "-q", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0) << r.err;
    expect_refreshed(t);
    for (const auto &f : t.files())
        EXPECT_FALSE(dirty(f)) << f;
}

struct Unmount {
    std::string dir;
    ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }
};

TEST(SpoolcapFaults, UnmeasuredInputsKeepOldValuesMarkedAndStrictRunsFail) {
    Tree t = make_tree();
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    // New data the failed refresh must not half-apply: only a whole refresh may show it.
    qxtest::add_db_file("extension_recording",
                        static_cast<int>(qxtest::sql_int(
                            "SELECT MIN(id) FROM extension WHERE client_id = " + str(t.u3))),
                        4);
    t.usage[t.u3][2] += 4, t.usage[t.c2][2] += 4, t.usage[t.r][2] += 4;
    const auto old = snapshot(t);

    struct Renamed {
        Renamed() { qxtest::sql("RENAME TABLE extension_recording TO extension_recording_gone"); }
        ~Renamed() { qxtest::sql("RENAME TABLE extension_recording_gone TO extension_recording"); }
    };
    {
        Renamed gone;
        RunLog log;
        auto r = bounded({"-A", "set", "-q", "-f", "-u", str(t.r)});
        EXPECT_EQ(r.status, 0) << "faults change no status by default";
        EXPECT_NE(log.added().find("kind recording not refreshed: the database sum over "
                                   "extension_recording failed"),
                  std::string::npos)
            << log.added();
        // Recording files of every level kept their value (three of them are still right);
        // every other file is exact.
        EXPECT_EQ(expect_exact_old_or_dirty(t, old), (std::array<int, 3>{27, 3, 0}));
        for (const auto &[id, d] : t.dir)
            EXPECT_TRUE(dirty(t.file(id, 2))) << t.file(id, 2);

        ConfFile strict("/etc/quorvex/local.conf", "QUOTA_STRICT_REFRESH yes\n");
        r = bounded({"-A", "set", "-f", "-u", str(t.r)});
        EXPECT_EQ(r.status, 5);
        EXPECT_EQ(r.err, "No quota file could be updated!\n");
    }
    expect_repaired(t);
}

TEST(SpoolcapFaults, WritesThatFailAreLoggedAndLeaveNoTrustedFile) {
    if (getuid() != 0) GTEST_SKIP() << "mounting a full or read-only filesystem needs root";
    struct Case {
        const char *why;
        bool first_run;     // the files do not exist yet
        const char *mount;  // options of the filesystem over the reseller's directory
        const char *error;  // what the log must say
    } cases[] = {
        {"full filesystem", true, "tmpfs", "No space left on device"},
        {"read-only directory", false, "ro", "Read-only file system"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.why);
        Tree t = make_tree();
        if (!c.first_run) {
            ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
        }
        fs::create_directories(t.dir[t.r]);
        const auto old = snapshot(t);
        qxtest::write_file(sounds_dir(t.u1) + "/new.wav", 100);
        t.usage[t.u1][1] += 100, t.usage[t.c1][1] += 100, t.usage[t.r][1] += 100;
        {
            Unmount undo{t.dir[t.r]};
            if (std::string(c.mount) == "tmpfs") {
                ASSERT_EQ(mount("tmpfs", t.dir[t.r].c_str(), "tmpfs", 0, "size=8k,mode=0770"), 0);
                FILE *fill = std::fopen((t.dir[t.r] + "/fill").c_str(), "w");
                ASSERT_TRUE(fill);
                while (std::fputs(std::string(4096, 'x').c_str(), fill) >= 0 &&
                       std::fflush(fill) == 0) {
                }
                std::fclose(fill);
            } else {
                ASSERT_EQ(mount(t.dir[t.r].c_str(), t.dir[t.r].c_str(), nullptr, MS_BIND, nullptr),
                          0);
                ASSERT_EQ(mount(nullptr, t.dir[t.r].c_str(), nullptr,
                                MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
                          0);
            }
            RunLog log;
            auto r = bounded({"-A", "set", "-q", "-f", "-u", str(t.r)});
            EXPECT_EQ(r.status, 0);
            EXPECT_NE(log.added().find(c.error), std::string::npos) << log.added();
            // Only files whose value did not change may read right.
            EXPECT_EQ(expect_exact_old_or_dirty(t, old)[0], c.first_run ? 0 : 27);
            for (const auto &f : t.files()) {
                const auto now = qxtest::read_file(f);
                EXPECT_TRUE(!now || !now->empty() || dirty(f)) << "empty and unmarked: " << f;
            }
            ConfFile strict("/etc/quorvex/local.conf", "QUOTA_STRICT_REFRESH yes\n");
            EXPECT_EQ(bounded({"-A", "set", "-q", "-f", "-u", str(t.r)}).status, 5);
        }
        // Nothing could be marked on a read-only filesystem: only a forced refresh repairs.
        expect_repaired(t, !c.first_run);
    }
}

TEST(SpoolcapFaults, NothingBlocksOnAFifoWhereARecordBelongs) {
    Tree t = make_tree();
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    const std::string fifo = t.file(t.u1, 1);
    ASSERT_EQ(unlink(fifo.c_str()), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0660), 0);
    const auto old = snapshot(t);

    Usage shown = t.usage[t.u1];
    shown[1] = -1;
    auto r = bounded({"-A", "show", "-u", str(t.u1)});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, block(t.u1, body(shown)));

    EXPECT_EQ(quota_upd_fast_internal(fifo.c_str(), 10, 30), -1);
    EXPECT_TRUE(dirty(fifo)) << "an unreadable record is marked for the next refresh";
    ASSERT_EQ(unlink((fifo + ".dirty").c_str()), 0);

    RunLog log;
    for (const char *force : {"-q", "-f"})
        EXPECT_EQ(bounded({"-A", "set", "-q", force, "-u", str(t.r)}).status, 0);
    EXPECT_NE(log.added().find(fifo + ": not a regular file"), std::string::npos) << log.added();
    // The client above it cannot sum what it cannot read.
    EXPECT_TRUE(dirty(t.file(t.c1, 1)));
    EXPECT_EQ(qxtest::read_file(t.file(t.c1, 1)), old.at(t.file(t.c1, 1)));

    ASSERT_EQ(unlink(fifo.c_str()), 0);
    expect_repaired(t);
}

TEST(SpoolcapFaults, HugeValuesSaturateAndOverlongRecordsAreUnreadable) {
    Tree t = make_tree();
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    const std::string max = "9223372036854775807";
    put(t.file(t.c1, 1), max + ".0");
    put(t.file(t.c2, 1), max + ".0");
    put(t.file(t.r, 1) + ".dirty", "");
    put(t.file(t.r, 0), "99999999999999999999.0");  // does not fit in 64 bits

    EXPECT_EQ(bounded({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    EXPECT_EQ(qxtest::read_file(t.file(t.r, 1)), max + ".0");
    EXPECT_EQ(qxtest::read_file(t.file(t.r, 0)), "350.0") << "an unreadable record is recomputed";

    put(t.file(t.r, 0), "99999999999999999999.0");
    Usage shown = t.usage[t.r];
    shown[0] = -1;
    shown[1] = std::stoll(max);
    auto r = bounded({"-A", "show", "-u", str(t.r)});
    EXPECT_EQ(r.out, block(t.r, body(shown)));  // the total saturates too
}

TEST(SpoolcapFaults, AnUnusableQuotaRootWritesNothingAndSaysWhy) {
    Tree t = make_tree();
    ConfFile paths("/etc/quorvex/paths.conf",
                   "QUORVEX_QUOTA_D /" + std::string(100 * 1024, 'q') + "\nASTERISK_CONF_FILE " +
                       qxtest::path("/etc/asterisk/asterisk.conf") + "\n",
                   false);
    RunLog log;
    auto r = bounded({"-A", "set", "-u", str(t.r)});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(log.added().find("paths.conf cannot be used"), std::string::npos) << log.added();
    EXPECT_FALSE(fs::exists(t.dir[t.r]));
    ConfFile strict("/etc/quorvex/local.conf", "QUOTA_STRICT_REFRESH yes\n");
    EXPECT_EQ(bounded({"-A", "set", "-q", "-u", str(t.r)}).status, 5);
}

// A wide platform (one reseller, 10 clients of 10 users, a sound file each) whose quota files
// all hold an old value that any refresh recomputes, for faults that strike in the middle of a
// run.
struct WideTree {
    static constexpr const char *kOld = "7.1000";
    int r = 0;
    std::vector<int> clients;
    std::map<int, std::vector<int>> users;
    std::map<std::string, std::string> exact;  // quota file -> what a whole refresh writes

    WideTree() {
        std::vector<int> ids;
        while (ids.size() < 112) {
            const int base = fresh_block();
            for (int i = 0; i < 10; ++i)
                ids.push_back(base + i);
        }
        r = ids[0];
        qxtest::add_account(ids[111], 0, 0);
        qxtest::add_account(r, ids[111], 10);
        const std::string rdir = quota_root() + "/" + str(r);
        long long total = 0;
        for (int c = 0; c < 10; ++c) {
            const int client = ids[1 + c * 11];
            clients.push_back(client);
            qxtest::add_account(client, r, 50);
            long long sum = 0;
            for (int u = 0; u < 10; ++u) {
                const int user = ids[2 + c * 11 + u];
                users[client].push_back(user);
                qxtest::add_account(user, client, 100);
                qxtest::write_file(sounds_dir(user) + "/s.wav", 100 + u);
                expect(rdir + "/" + str(client) + "/" + str(user), {0, 100 + u, 0, 0, 0});
                sum += 100 + u;
            }
            expect(rdir + "/" + str(client), {0, sum, 0, 0, 0});
            total += sum;
        }
        expect(rdir, {0, total, 0, 0, 0});
    }
    void expect(const std::string &dir, const Usage &u) {
        fs::create_directories(dir);
        for (int k = 0; k < kKinds; ++k) {
            const std::string f = dir + "/" + kKindFiles[k] + ".quota";
            put(f, kOld);
            std::remove((f + ".dirty").c_str());
            exact[f] = std::to_string(u[k]) + ".0";
        }
    }
    bool written() const {
        for (const auto &[f, want] : exact)
            if (content(f) == want) return true;
        return false;
    }
    // How many files are exact, old and dirty; any other state fails the test.
    std::array<int, 3> states() const {
        std::array<int, 3> n{};
        for (const auto &[f, want] : exact) {
            const std::string now = content(f);
            const int state = now == want ? 0 : dirty(f) ? 2 : 1;
            EXPECT_TRUE(state != 1 || now == kOld) << f << " holds " << now;
            ++n[state];
        }
        return n;
    }
};

TEST(SpoolcapFaults, ADatabaseThatHangsOrDiesMidRunEndsItAndLosesNothing) {
    for (int sig : {SIGSTOP, SIGKILL}) {
        SCOPED_TRACE(sig == SIGSTOP ? "stopped" : "killed");
        // The sandbox trades durability for speed; the platform must survive the crash.
        qxtest::sql("SET GLOBAL innodb_flush_log_at_trx_commit = 1");
        WideTree t;
        const auto started = std::chrono::steady_clock::now();
        double seconds = 0;
        {
            ConfFile timeouts("/etc/quorvex/sqldbase.conf",
                              "DB_READ_TIMEOUT 2\nDB_CONNECT_TIMEOUT 1\nMASTER_DOWN_TIME 60\n");
            const std::string spoolcap = QX_SPOOLCAP, uid = str(t.r);
            const pid_t pid = fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                execl(spoolcap.c_str(), spoolcap.c_str(), "-A", "set", "-q", "-f", "-u",
                      uid.c_str(), nullptr);
                _exit(127);
            }
            // Strike once the run has written something, while most of it is still ahead.
            while (!t.written() && waitpid(pid, nullptr, WNOHANG) == 0) {
            }
            std::optional<qxtest::StoppedDatabase> fault(std::in_place, sig);
            int status = 0;
            for (int i = 0; i < 600 && waitpid(pid, &status, WNOHANG) == 0; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            if (kill(pid, SIGKILL) == 0) waitpid(pid, &status, 0);
            EXPECT_TRUE(WIFEXITED(status)) << "the run did not end in 60 s";
            fault.reset();
        }
        const auto n = t.states();
        EXPECT_GT(n[2], 0) << "the fault struck after the run, or nothing was marked";
        std::cerr << "[ info     ] run ended after " << seconds << " s; files exact " << n[0]
                  << ", untouched " << n[1] << ", dirty " << n[2] << "\n";
        auto r = qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)});
        EXPECT_EQ(r.status, 0) << r.err;
        for (const auto &[f, want] : t.exact) {
            EXPECT_EQ(content(f), want) << f;
            EXPECT_FALSE(dirty(f)) << f;
        }
    }
}

TEST(SpoolcapFaults, ForcedRefreshesRacingFastUpdatesLeaveOnlyValidRecords) {
    Tree t = make_tree();
    ASSERT_EQ(qxtest::spoolcap({"-A", "set", "-q", "-u", str(t.r)}).status, 0);
    std::vector<pid_t> pids;
    const std::string spoolcap = QX_SPOOLCAP, uid = str(t.r);
    for (int w = 0; w < 6; ++w) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0 && w < 2) {
            for (int i = 0; i < 5; ++i) {
                const pid_t run = fork();
                if (run == 0) {
                    execl(spoolcap.c_str(), spoolcap.c_str(), "-A", "set", "-q", "-f", "-u",
                          uid.c_str(), nullptr);
                    _exit(127);
                }
                waitpid(run, nullptr, 0);
            }
            _exit(0);
        }
        if (pid == 0) {
            qx_sql_pool_init();
            const int users[] = {t.u1, t.u2, t.u3};
            for (int i = 0; i < 300; ++i)
                quota_update(users[i % 3], i % kKinds, i % 2 ? 7 : -3, 30);
            _exit(0);
        }
        pids.push_back(pid);
    }
    for (pid_t pid : pids)
        waitpid(pid, nullptr, 0);
    for (const auto &f : t.files()) {
        const std::string now = content(f);
        const size_t dot = now.find('.');
        const bool valid = dot != std::string::npos && dot > 0 &&
                           now.find_first_not_of("0123456789.") == std::string::npos;
        EXPECT_TRUE(valid || dirty(f)) << f << " holds " << now;
    }
    expect_repaired(t, true);
}

}  // namespace
