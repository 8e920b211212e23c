// Test support: the sandbox (real MariaDB + Redis on unix sockets under the build's root), its
// accounts and quota-file trees, log capture and runs of commands.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <array>
#include <csignal>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qxtest {

// Every compiled-in path starts with the build's root, e.g. path("/etc/quorvex/pbx.conf").
std::string path(std::string_view rel);

// Starts the sandbox once per binary (static auto *env = register_sandbox()) or now.
::testing::Environment *register_sandbox();
void ensure_sandbox();

// SQL (as the administrator) and Redis (authenticated, the configured database) on the sandbox.
// Redis replies as text: integers in decimal, nil as "(nil)", arrays joined by "\n".
using Row = std::vector<std::optional<std::string>>;
void sql(const std::string &statement);  // ADD_FAILURE on error
std::vector<Row> sql_rows(const std::string &query);
long long sql_int(const std::string &query);       // first column of the first row
long long server_status(const std::string &name);  // SHOW GLOBAL STATUS, e.g. "Questions"
std::string redis(const std::vector<std::string> &argv);

// A block of 10 account ids no other test uses (below 10000 unless a benchmark platform fills
// that range); clear_ids removes what an earlier life of a block left (rows, cache, files).
int fresh_ids();
void clear_ids(int base);

// Levels: 10 reseller, 50 client, 100 user; parent 0 is NULL. Login "u<id>", name "Account <id>".
void add_account(int id, int parent, int level, const std::string &login = "",
                 const std::string &name = "");
// Returns the extension's id; full numbers must be unique: derive them from the owner's id.
int add_extension(int client_id, const std::string &number, const std::string &full);
void add_pref(int client_id, const std::string &param, const std::string &value);
void set_misc(const std::string &param, const std::string &value);
void write_file(const std::string &path, size_t size);  // size bytes, directories created
void put(const std::string &path, const std::string &bytes);
std::optional<std::string> read_file(const std::string &path);
bool dirty(const std::string &quota_file);

// Replaces a file (absolute path) for the scope; readers only ever see one version whole.
struct ConfFile {
    ConfFile(std::string file, const std::string &text);
    ~ConfFile();
    ConfFile(const ConfFile &) = delete;

    std::string file_;
    std::optional<std::string> saved_;
};

// Captures the platform logger's lines (threshold debug) for its lifetime.
struct LogCapture {
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    std::vector<std::string> lines() const;
    bool contains(std::string_view needle) const { return count(needle) > 0; }
    bool contains_at(int priority, std::string_view needle) const {
        return count(needle, priority) > 0;
    }
    size_t count(std::string_view needle, int priority = -1) const;
};

struct RunResult {
    int status = -1;  // exit status, or 128+signal (a run past its timeout is killed)
    std::string out, err;
    std::string log;  // what the run added to the sandbox's log file
    bool logged(std::string_view needle) const { return log.find(needle) != std::string::npos; }
};
RunResult run(const std::vector<std::string> &argv);  // killed after 60 s
// Starts argv with stdout on out and stderr on err, stdin empty; -1 (and a failure) if it cannot.
pid_t spawn(const std::vector<std::string> &argv, int out, int err);
RunResult spoolcap(const std::vector<std::string> &args);  // the built spoolcap

// Stops the sandbox's MariaDB with sig (SIGSTOP: hung, SIGKILL: crashed) for its lifetime.
struct StoppedDatabase {
    explicit StoppedDatabase(int sig = SIGSTOP);
    ~StoppedDatabase();
    StoppedDatabase(const StoppedDatabase &) = delete;
    bool stopped() const { return pid_ > 0; }

    int pid_, sig_;
};

constexpr int kKinds = 5;
constexpr const char *kKindFiles[kKinds] = {"fax", "sound", "recording", "voicemail", "music"};
using Usage = std::array<long long, kKinds>;  // fax, sound, recording, voicemail, music
std::string sounds_dir(int id);
std::string music_dir(int id);

// Accounts with their quota directories and what a whole refresh must write for each.
struct QuotaTree {
    std::map<int, std::string> dir;
    std::map<int, Usage> usage;

    // Creates the account after removing what an earlier life of its id left (files, cache).
    // A root (level 0) has no quota directory.
    void add(int id, int parent, int level);
    // An extension "<owner>*<n>" of owner with stored-file rows {table, size}.
    int ext(int owner, int n, const std::vector<std::pair<const char *, long long>> &rows = {});
    std::string file(int id, int kind) const;
    std::vector<std::string> files() const;
    std::map<std::string, std::string> snapshot() const;  // regular files only: no FIFO opened
    void age() const;  // an old mtime for every file, so that a rewrite shows however fast
    std::set<std::string> rewritten() const;  // files that are missing or newer than aged
    std::string exact(int id, int kind) const { return std::to_string(usage.at(id)[kind]) + ".0"; }
    // Every file exact, dirty-marked, or unchanged from old; counts {exact, unchanged, dirty}.
    std::array<int, 3> check(const std::map<std::string, std::string> &old) const;
    void expect_exact() const;  // every file exact and unmarked
};

// A reseller with two clients and three users, media on disk and stored-file rows: root +9
// (level 0), reseller +0, clients +1 +2, users +3 +4 under +1 and +5 under +2.
struct Tree : QuotaTree {
    int root, r, c1, c2, u1, u2, u3;
    explicit Tree(int b = fresh_ids())
        : root(b + 9), r(b), c1(b + 1), c2(b + 2), u1(b + 3), u2(b + 4), u3(b + 5) {
        add(root, 0, 0), add(r, root, 10), add(c1, r, 50), add(c2, r, 50);
        add(u1, c1, 100), add(u2, c1, 100), add(u3, c2, 100);
        const char *fax = "extension_fax_center", *rec = "extension_recording",
                   *vm = "extension_voicemail";
        ext(u1, 1, {{fax, 100}, {fax, 200}, {rec, 1000}});
        ext(u1, 2, {{rec, 24}, {vm, 512}});
        ext(u2, 1, {{fax, 50}, {vm, 7}});
        ext(u3, 1, {{rec, 4096}});
        for (const auto &[file, size] : {std::pair{sounds_dir(r) + "/welcome.wav", 2048},
                                         {sounds_dir(c1) + "/a.wav", 1000},
                                         {sounds_dir(c1) + "/nested/b.wav", 24},
                                         {sounds_dir(u1) + "/greeting.wav", 1536},
                                         {music_dir(r) + "/hold.mp3", 1048576},
                                         {music_dir(u3) + "/jazz.mp3", 3000}})
            write_file(file, size);
        usage = {{u1, {300, 1536, 1024, 512, 0}}, {u2, {50, 0, 0, 7, 0}},
                 {u3, {0, 0, 4096, 0, 3000}},     {c1, {350, 2560, 1024, 519, 0}},
                 {c2, {0, 0, 4096, 0, 3000}},     {r, {350, 4608, 5120, 519, 1051576}}};
    }
    RunResult set(const char *force = "-q") const {  // of the reseller, printing nothing
        return spoolcap({"-A", "set", "-q", force, "-u", std::to_string(r)});
    }
    // New data under u1 or u3 that only a whole refresh may show.
    void grow(int user, int kind, long long by) {
        for (int id : {user, user == u3 ? c2 : c1, r})
            usage[id][kind] += by;
    }
    // After the fault is gone, one refresh (forced where no mark could be made) repairs all.
    void expect_repaired(bool force = false) const {
        EXPECT_EQ(set(force ? "-f" : "-q").status, 0);
        expect_exact();
    }
};

}  // namespace qxtest
