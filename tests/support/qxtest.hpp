// Test support: the sandbox (real MariaDB + Redis on unix sockets under the build's root),
// fixtures for accounts, log capture and running commands.
#pragma once

#include <gtest/gtest.h>

#include <csignal>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qxtest {

// The build's root (every compiled-in path starts with it).
std::string root();
// Absolute path below the root, e.g. path("/etc/quorvex/pbx.conf").
std::string path(std::string_view rel);

// Starts the sandbox if it is not running (idempotent; runs scripts/sandbox start <root>).
// Fails the calling test fatally when it cannot.
void ensure_sandbox();

// GoogleTest environment that makes sure the sandbox runs before any test of the binary.
// Register it from a test file with: static auto *env = qxtest::register_sandbox();
::testing::Environment *register_sandbox();

// SQL on the sandbox database (as the administrator, not through the pool).
using Row = std::vector<std::optional<std::string>>;
void sql(const std::string &statement);               // ADD_FAILURE on error
std::vector<Row> sql_rows(const std::string &query);  // ADD_FAILURE on error
long long sql_int(const std::string &query);          // first column of first row
// Global counters of the server (SHOW GLOBAL STATUS), e.g. "Com_select", "Questions".
long long server_status(const std::string &name);

// Redis command on the sandbox server (authenticated, database as configured); the reply
// rendered as text: strings as is, integers in decimal, nil as "(nil)", arrays joined by "\n",
// errors as "ERR ...".
std::string redis(const std::vector<std::string> &argv);

// A block of 10 account ids no other test (of this run, in any binary) uses; all below 10000,
// unless a generated benchmark platform fills that range (then above its accounts). Blocks come
// round again on a long-lived sandbox; a block is cleared (clear_ids) before it is handed out
// again, so no earlier run's rows, cache entries or files are ever seen.
int fresh_ids();
// Removes what belongs to the block's ids: accounts, their preferences, extensions and the
// extensions' rows (stored files, preferences, codecs, subscribers), their cache entries, quota
// files and media directories. A fixture's TearDown calls it so that a failed test leaves
// nothing behind either.
void clear_ids(int base);

// Fixture rows. Level 10 reseller, 50 client, 100 user; parent 0 is stored as NULL. Login
// defaults to "u<id>", name to "Account <id>".
void add_account(int id, int parent, int level, const std::string &login = "",
                 const std::string &name = "");
// Returns the new extension's id (auto-increment). Full numbers must be unique: derive them from
// the owner's fresh id, e.g. "0042*101".
int add_extension(int client_id, const std::string &number, const std::string &full);
void add_pref(int client_id, const std::string &param, const std::string &value);
void set_misc(const std::string &param, const std::string &value);
// A stored-file row in extension_recording / extension_voicemail / extension_fax_center.
void add_db_file(const std::string &table, int extension_id, long long filesize);
// Writes a file of size bytes (creating directories).
void write_file(const std::string &path, size_t size);

// Captures the platform logger's lines (threshold debug) for its lifetime.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    const std::vector<std::string> &lines() const;
    bool contains(std::string_view needle) const;
    // A line containing needle logged at exactly this priority.
    bool contains_at(int priority, std::string_view needle) const;
    size_t count(std::string_view needle) const;
    void clear();
};

struct RunResult {
    int status = -1;  // exit status, or 128+signal
    std::string out;
    std::string err;
};
// Runs argv (no shell), feeding input on standard input.
RunResult run(const std::vector<std::string> &argv, const std::string &input = "");
// Runs the built spoolcap with the given arguments.
RunResult spoolcap(const std::vector<std::string> &args);

// Stops the sandbox's MariaDB with sig (SIGSTOP: a hung server, SIGKILL: a crashed one) for its
// lifetime. A stopped server is continued, a killed one started again.
class StoppedDatabase {
  public:
    explicit StoppedDatabase(int sig = SIGSTOP);
    ~StoppedDatabase();
    StoppedDatabase(const StoppedDatabase &) = delete;
    StoppedDatabase &operator=(const StoppedDatabase &) = delete;
    bool stopped() const { return pid_ > 0; }

  private:
    int pid_, sig_;
};

// Reads a whole file; nullopt when it cannot be read.
std::optional<std::string> read_file(const std::string &path);

}  // namespace qxtest
