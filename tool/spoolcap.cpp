// spoolcap: one pass over the selected accounts. "set" recomputes their quota files through the
// quota engine and then prints them, "show" only prints. The exit status tells the outcome.
#include "spoolcap.h"

#include <mysql.h>
#include <popt.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cerrno>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "quota.h"
#include "quota_jobs.h"
#include "sql_util.hpp"
#include "sqlsession.h"
#include "utils.h"

int action = SPOOLCAP_ACTION_NONE;
int target_mode = SPOOLCAP_TARGET_NONE;
char *uid_list = nullptr;
char *ulogin_list = nullptr;
int force_depth = 0;
int children_flag = 0;
int human_flag = 0;
int quiet_flag = 0;
safestr_t *quota_dir = nullptr;
safestr_t *ast_spool_dir = nullptr;
safestr_t *ast_lib_dir = nullptr;
int refresh_jobs = 1;
fr_hash_t *target_table = nullptr;

namespace {

constexpr const char kLogSource[] = "spoolcap";
constexpr int kLogChannel = 3;
constexpr int kLogError = 3;
constexpr int kLogDebug = 7;

// --help carries no variable; popt hands this value back so the parser can stop at once.
constexpr int kHelpOptionValue = 72;
// A forced refresh regenerates this many account levels below each target: the whole tree.
constexpr int kForceDepth = 10;

constexpr const char kUsage[] =
    "Quorvex spoolcap\n"
    "Command line tool that refreshes or inspects client quotas\n"
    "Usage:\n"
    "\tspoolcap --action|-A set|show --uid|-u <client_id> [, <client_id2> [, ...]] | "
    "--ulogin|-l <login> [, <login2> [, ...]] | --all|-a [--child|-c]  [--human|-h] "
    "[--quiet|-q]\n"
    "Valid options:\n"
    "\t--action|-A:  set  will refresh quotas and print them on stdout;\n"
    "\t\tshow  will inspect only and print them to stdout\n"
    "\t--uid|-u: User id from sql client.id. May be a list \"id1, id2..\"\n"
    "\t--ulogin|-l: User login from sql client.login. May be a list \"login1, login2\"\n"
    "\t--all|-a: All users from database (resellers, clients and extensions)\n"
    "\t--force|-f: Quota files are considered dirty and must be regenerated\n"
    "\t-u, -l, -a are mutually exclusive and at least one must be present\n"
    "\t--children|-c: Do the action on all the child objects too\n"
    "\t--human|-h: Print sizes in human readble form (KB, MB, GB etc)\n"
    "\t--quiet|-q: Print nothing on stdout. Invalid if -A show was requested\n";
// Scripts compare the banner byte for byte; a stray edit must not slip through.
static_assert(sizeof kUsage - 1 == 934, "usage banner must stay 934 bytes");

constexpr const char kActionSet[] = "set";
constexpr const char kActionShow[] = "show";

constexpr const char kMsgPoptError[] = "%s: %s\n";
constexpr const char kMsgBadAction[] = "Bad command line. Action invalid or missing\n\n";
constexpr const char kMsgTargetConflict[] =
    "Bad command line. Target users must be specified using one and only one of "
    "--all|--uid|--ulogin\n\n";
constexpr const char kMsgShowQuiet[] =
    "Bad command line. --action show   and  --quiet  cannot be used together\n\n";
constexpr const char kMsgConfigError[] = "Error getting all the data from config files\n";
constexpr const char kMsgNoTargets[] = "None of the requested users found in database.\n";
constexpr const char kMsgNoneUpdated[] = "No quota file could be updated!\n";

constexpr const char kPathsQuotaDirKey[] = "QUORVEX_QUOTA_D";
constexpr const char kPathsAsteriskConfKey[] = "ASTERISK_CONF_FILE";
constexpr const char kLocalJobsKey[] = "QUOTA_REFRESH_JOBS";
constexpr const char kJobsAuto[] = "auto";
// More workers than this would only queue up on the database.
constexpr long kMaxJobs = 256;
constexpr const char kLogBadJobs[] =
    "%s:%d:%s: %s must be a number of worker processes from 1 to %ld or auto, not \"%s\"; "
    "refreshing in one process\n";
constexpr const char kAstDirectoriesSection[] = "directories";
constexpr const char kAstSpoolDirKey[] = "astspooldir";
constexpr const char kAstLibDirKey[] = "astlibdir";

constexpr const char kSelectByUid[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username \tFROM client, "
    "hs_account acc \tWHERE acc.userID = client.id AND client.id IN(%s)\tORDER BY client.level";
constexpr const char kSelectByLogin[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username \tFROM client, "
    "hs_account acc \tWHERE acc.userID = client.id AND acc.username IN(%s)\tORDER BY "
    "client.level";
constexpr const char kSelectTopLevel[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username \tFROM client, "
    "hs_account acc \tWHERE acc.userID = client.id AND client.level = %d";
constexpr const char kSelectAllAccounts[] =
    "SELECT client.id, acc.username FROM client, hs_account acc WHERE client.id = acc.userID";

constexpr const char kLogMysqlError[] = "spoolcap:%s:%d -MySQL error: %s\n";
constexpr const char kLogConditionFailed[] = "%s:%d:condition failed\n";

constexpr const char kHeadTarget[] = "Quota for user %s (with id: %d)\t\t";
constexpr const char kHeadAccount[] = "Quota for user %s (with id: %s)\t";
// Printed with puts, which adds a second newline: the empty line that ends every block.
constexpr const char kQuotaNotFound[] = "Quota Not found\n";
constexpr const char kUserNotFound[] = "User Not found\n";
constexpr const char kTotalHuman[] = "%.2f %s\n";
constexpr const char kTotalBytes[] = "%lld bytes\n";
constexpr const char kKindNotFound[] = "\t%-*s\t\tNot found\n";
constexpr const char kKindHuman[] = "\t%-*s\t\t%.2f %s\n";
constexpr const char kKindBytes[] = "\t%-*s\t\t%lld bytes\n";
constexpr int kKindNameWidth = 12;

constexpr int kLevelReseller = 10;
constexpr int kLevelClient = 50;
constexpr int kLevelUser = 100;

constexpr int kKindCount = 5;
constexpr const char *kKindDisplayNames[kKindCount] = {"Fax", "Sounds", "Recording", "Voicemail",
                                                       "Music on hold"};
constexpr const char *kUnits[] = {"B", "KB", "MB", "GB", "TB", "?B"};
constexpr int kUnitOverflow = 5;

// The table stores records by value; this size is what other tools of the platform expect.
static_assert(sizeof(spoolcap_target) == 40, "target record must stay 40 bytes");

// The engine's quota-reading result codes the listing tells apart.
constexpr int kReadFailed = -1;
constexpr int kReadUnknownAccount = -2;

struct HashDestroyer {
    void operator()(fr_hash_t *h) const noexcept { fr__hash_destroy(h); }
};
using HashOwner = std::unique_ptr<fr_hash_t, HashDestroyer>;

struct ArrayFreer {
    void operator()(fr_array_t *a) const noexcept { fr_array_free(a); }
};
using KeyList = std::unique_ptr<fr_array_t, ArrayFreer>;

// Holds the table's lock for one walk over its keys.
class HashLock {
  public:
    explicit HashLock(fr_hash_t *h) : h_(h) { fr_hash_lock(h_); }
    HashLock(const HashLock &) = delete;
    HashLock &operator=(const HashLock &) = delete;
    ~HashLock() { fr_hash_unlock(h_); }

  private:
    fr_hash_t *h_;
};

struct PoptFreer {
    void operator()(poptContext c) const noexcept { poptFreeContext(c); }
};
using PoptOwner = std::unique_ptr<std::remove_pointer_t<poptContext>, PoptFreer>;

spoolcap_target *find_target(fr_hash_t *table, int32_t id) {
    return static_cast<spoolcap_target *>(fr_hash_find(table, &id, sizeof id));
}

// Keys come back as copies of the 4-byte ids; anything else is not one of ours.
bool key_at(const fr_array_t *keys, size_t i, int32_t *id) {
    size_t len = 0;
    const void *key = fr_array_get(keys, i, &len);
    if (!key || len != sizeof *id) return false;
    std::memcpy(id, key, sizeof *id);
    return true;
}

// Nothing reads the slots, but a five-digit id must not run into the neighbouring slot:
// the text is cut to what the slot holds.
void put_id_text(char (&slot)[SPOOLCAP_LEVEL_ID_LEN], int id) {
    const std::string text = std::to_string(id);
    const size_t n = std::min(text.size(), sizeof slot - 1);
    std::memcpy(slot, text.data(), n);
    slot[n] = '\0';
}

void print_banner_and_exit(const char *message) {
    std::fputs(message, stdout);
    usage(stdout);
    std::exit(SPOOLCAP_EXIT_CMDLINE);
}

// The statement for the current target mode, or empty when no target option was given.
std::string target_statement() {
    if (target_mode == SPOOLCAP_TARGET_LOGIN) return qx::format(kSelectByLogin, ulogin_list);
    if (target_mode == SPOOLCAP_TARGET_ALL) return qx::format(kSelectTopLevel, kLevelReseller);
    if (target_mode == SPOOLCAP_TARGET_UID) return qx::format(kSelectByUid, uid_list);
    return {};
}

// Adds one result row to the table unless a rule excludes it.
void add_target_row(fr_hash_t *table, MYSQL_ROW row) {
    for (int col = 0; col < 4; ++col) {
        if (!row[col]) return;
    }
    spoolcap_target rec;
    std::memset(&rec, 0, sizeof rec);
    rec.level = std::atoi(row[2]);
    if (rec.level != kLevelReseller && rec.level != kLevelClient && rec.level != kLevelUser) {
        return;
    }
    rec.level_idx = lvl2idx(rec.level);
    const int32_t id = std::atoi(row[0]);
    rec.parent_id = std::atoi(row[1]);

    // The first row of an account wins.
    if (find_target(table, id)) return;

    if (!find_target(table, rec.parent_id)) {
        rec.selected = action != SPOOLCAP_ACTION_SHOW ? 1 : 0;
    } else if (action != SPOOLCAP_ACTION_SHOW && quiet_flag) {
        // Covered by the parent's refresh and never printed: nothing left to do for it.
        return;
    }

    put_id_text(rec.level_ids[rec.level_idx], id);
    if (rec.level_idx > 0) put_id_text(rec.level_ids[rec.level_idx - 1], rec.parent_id);

    rec.login = strdup(row[3]);
    if (!rec.login) return;
    if (fr_hash_force_add(table, &id, sizeof id, &rec, sizeof rec) != 0) std::free(rec.login);
}

// The operators' log searches name the run's steps, not the helpers that carry them out.
void log_mysql_error(const char *step, int line, const char *error) {
    if (kLogDebug <= fr_log_threshold)
        fr_log_impl(kLogSource, line, step, kLogChannel, kLogDebug, kLogMysqlError, step, line,
                    error);
}

fr_hash_t *select_targets() {
    qx::SessionGuard sess;
    if (!sess) return nullptr;

    const std::string statement = target_statement();
    if (statement.empty()) return nullptr;

    HashOwner table(fr_hash_init_api(FR_HASH_KEY_BINARY, destroy_client));
    if (!table) return nullptr;

    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess.get(), 1, &raw, "%s", statement.c_str());
    qx::Result result(raw);
    // A failing statement still hands back the (empty) table: the run goes on without
    // targets instead of reporting that none were found.
    if (rc != 0) {
        log_mysql_error("get_sql_data", __LINE__, sess.error());
        return table.release();
    }
    if (!result) {
        FR_LOG(kLogSource, kLogChannel, kLogDebug, kLogConditionFailed, kLogSource, __LINE__);
        return table.release();
    }

    while (MYSQL_ROW row = mysql_fetch_row(result.get()))
        add_target_row(table.get(), row);

    if (fr_hash_empty(table.get())) return nullptr;
    return table.release();
}

int refresh_targets() {
    if (!target_table) return 0;
    bool failed = false;
    bool succeeded = false;
    auto count = [&](int rc) {
        if (rc == 0) {
            succeeded = true;
        } else {
            failed = true;
        }
    };
    {
        HashLock lock(target_table);
        KeyList keys(fr_hash_getkeys(target_table));
        const size_t n = keys ? fr_array_length(keys.get()) : 0;
        std::vector<int> ids;
        for (size_t i = 0; i < n; ++i) {
            int32_t id = 0;
            if (!key_at(keys.get(), i, &id)) continue;
            const spoolcap_target *rec = find_target(target_table, id);
            if (!rec || !rec->selected) continue;
            if (refresh_jobs > 1) {
                ids.push_back(id);
            } else {
                count(quota_update_slow(id, QUOTA_KIND_ALL, nullptr, force_depth));
            }
        }
        if (!ids.empty()) {
            std::vector<int> results(ids.size(), -1);
            if (quota_update_slow_jobs(ids.data(), static_cast<int>(ids.size()), QUOTA_KIND_ALL,
                                       force_depth, refresh_jobs, results.data()) != 0)
                return 2;
            for (int rc : results)
                count(rc);
        }
    }
    if (!failed) return 0;
    return succeeded ? 1 : 2;
}

// QUOTA_REFRESH_JOBS: absent means one process, as does a value that cannot be used (logged).
int jobs_setting() {
    char *text = nullptr;
    const fr_conf_entry entries[] = {{kLocalJobsKey, FR_CONF_STRING, &text}};
    (void)parseconfig(QX_LOCAL_CONF, entries, 1);
    std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    if (!text) return 1;
    if (std::strcmp(text, kJobsAuto) == 0) {
        const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
        return static_cast<int>(std::clamp(cpus, 1L, kMaxJobs));
    }
    char *end = nullptr;
    errno = 0;
    const long n = std::strtol(text, &end, 10);
    if (errno == 0 && end != text && *end == '\0' && n >= 1 && n <= kMaxJobs)
        return static_cast<int>(n);
    FR_LOG(kLogSource, kLogChannel, kLogError, kLogBadJobs, kLogSource, __LINE__, QX_LOCAL_CONF,
           kLocalJobsKey, kMaxJobs, text);
    return 1;
}

// The all-accounts listing cannot tell an unknown account from unreadable quota.
void print_account_quota(int rc, const long long *vector) {
    if (rc < 0) {
        std::puts(kQuotaNotFound);
    } else {
        print_quotas(vector);
    }
}

void print_target_quota(int rc, const long long *vector) {
    if (rc == kReadFailed) {
        std::puts(kQuotaNotFound);
    } else if (rc == kReadUnknownAccount) {
        std::puts(kUserNotFound);
    } else {
        print_quotas(vector);
    }
}

// Every account of the database, in server order, whatever the table holds.
int show_all_accounts(const qx::SessionGuard &sess) {
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess.get(), 1, &raw, "%s", kSelectAllAccounts);
    qx::Result result(raw);
    if (rc != 0) {
        log_mysql_error("show_quotas", __LINE__, sess.error());
        return -1;
    }
    if (!result) {
        FR_LOG(kLogSource, kLogChannel, kLogDebug, kLogConditionFailed, kLogSource, __LINE__);
        return -1;
    }
    while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
        const char *id = row[0];
        const char *login = row[1];
        if (!id || !*id || !login || !*login) continue;
        std::printf(kHeadAccount, login, id);
        long long vector[kKindCount] = {};
        print_account_quota(quota_read_sql(std::atoi(id), QUOTA_KIND_ALL, vector, nullptr), vector);
    }
    return 0;
}

int show_targets() {
    if (!target_table) return 0;
    HashLock lock(target_table);
    KeyList keys(fr_hash_getkeys(target_table));
    const size_t n = keys ? fr_array_length(keys.get()) : 0;
    for (size_t i = 0; i < n; ++i) {
        int32_t id = 0;
        if (!key_at(keys.get(), i, &id)) continue;
        const spoolcap_target *rec = find_target(target_table, id);
        if (!rec) continue;
        std::printf(kHeadTarget, rec->login ? rec->login : "", id);
        long long vector[kKindCount] = {};
        print_target_quota(quota_read_sql(id, QUOTA_KIND_ALL, vector, nullptr), vector);
    }
    return 0;
}

void release_run() {
    if (ast_spool_dir) safestr_free(ast_spool_dir);
    ast_spool_dir = nullptr;
    if (ast_lib_dir) safestr_free(ast_lib_dir);
    ast_lib_dir = nullptr;
    if (quota_dir) safestr_free(quota_dir);
    quota_dir = nullptr;
    fr_hash_destroy(target_table);
    std::free(uid_list);
    uid_list = nullptr;
    std::free(ulogin_list);
    ulogin_list = nullptr;
}

int run(int argc, char **argv) {
    int status = SPOOLCAP_EXIT_UNDECIDED;
    parse_args(argc, argv);
    if (get_config() != 0) {
        std::fputs(kMsgConfigError, stderr);
        return SPOOLCAP_EXIT_CONFIG;
    }
    qx_sql_pool_init();

    target_table = get_sql_data();
    if (!target_table) {
        std::fputs(kMsgNoTargets, stderr);
        return SPOOLCAP_EXIT_NO_TARGETS;
    }

    if (action == SPOOLCAP_ACTION_SET) {
        const int rc = refresh_user_quotas();
        if (rc == 1) {
            status = SPOOLCAP_EXIT_SOME_FAILED;
        } else if (rc == 2 || rc == -1) {
            // Nothing was refreshed, so the stored values would only mislead.
            std::fputs(kMsgNoneUpdated, stderr);
            return SPOOLCAP_EXIT_NONE_UPDATED;
        }
    }

    if (!quiet_flag) show_quotas();
    if (status == SPOOLCAP_EXIT_UNDECIDED) status = SPOOLCAP_EXIT_OK;
    return status;
}

}  // namespace

void usage(FILE *stream) {
    std::fwrite(kUsage, 1, sizeof kUsage - 1, stream);
}

void parse_args(int argc, char **argv) {
    char *action_word = nullptr;
    int all_flag = 0;
    // popt keeps pointers into this table for the life of the context.
    const poptOption options[] = {
        {"action", 'A', POPT_ARG_STRING, &action_word, 0, nullptr, nullptr},
        {"uid", 'u', POPT_ARG_STRING, &uid_list, 0, nullptr, nullptr},
        {"ulogin", 'l', POPT_ARG_STRING, &ulogin_list, 0, nullptr, nullptr},
        {"all", 'a', POPT_ARG_NONE, &all_flag, 0, nullptr, nullptr},
        {"force", 'f', POPT_ARG_NONE, &force_depth, 0, nullptr, nullptr},
        {"children", 'c', POPT_ARG_NONE, &children_flag, 0, nullptr, nullptr},
        {"human", 'h', POPT_ARG_NONE, &human_flag, 0, nullptr, nullptr},
        {"quiet", 'q', POPT_ARG_NONE, &quiet_flag, 0, nullptr, nullptr},
        {"help", '\0', POPT_ARG_NONE, nullptr, kHelpOptionValue, nullptr, nullptr},
        POPT_TABLEEND,
    };

    PoptOwner ctx(poptGetContext(nullptr, argc, const_cast<const char **>(argv), options, 0));
    if (!ctx) {
        std::printf(kMsgPoptError, argc > 0 ? argv[0] : kLogSource,
                    poptStrerror(POPT_ERROR_MALLOC));
        std::exit(SPOOLCAP_EXIT_CMDLINE);
    }
    // Only --help carries a value, so this one call consumes the whole command line (or
    // stops at --help, ignoring what follows it, or at the first error).
    const int rc = poptGetNextOpt(ctx.get());
    if (rc == kHelpOptionValue) {
        usage(stdout);
        std::exit(SPOOLCAP_EXIT_OK);
    }
    if (rc != -1) {
        std::printf(kMsgPoptError, poptBadOption(ctx.get(), 0), poptStrerror(rc));
        std::exit(SPOOLCAP_EXIT_CMDLINE);
    }

    if (action_word && std::strcmp(action_word, kActionSet) == 0) {
        action = SPOOLCAP_ACTION_SET;
    } else if (action_word && std::strcmp(action_word, kActionShow) == 0) {
        action = SPOOLCAP_ACTION_SHOW;
    }
    std::free(action_word);
    action_word = nullptr;
    ctx.reset();

    if (action == SPOOLCAP_ACTION_NONE) print_banner_and_exit(kMsgBadAction);

    // --all is tested first so it takes the mode when combined, though any combination is
    // rejected below anyway.
    bool conflict = false;
    if (all_flag) {
        if (target_mode)
            conflict = true;
        else
            target_mode = SPOOLCAP_TARGET_ALL;
    }
    if (uid_list) {
        if (target_mode)
            conflict = true;
        else
            target_mode = SPOOLCAP_TARGET_UID;
    }
    if (ulogin_list) {
        if (target_mode)
            conflict = true;
        else
            target_mode = SPOOLCAP_TARGET_LOGIN;
    }
    // No target option at all is left to target selection, which then finds nothing.
    if (conflict) print_banner_and_exit(kMsgTargetConflict);

    if (action == SPOOLCAP_ACTION_SHOW && quiet_flag) print_banner_and_exit(kMsgShowQuiet);

    if (force_depth) force_depth = kForceDepth;
}

int get_config(void) {
    char *asterisk_conf = nullptr;
    const fr_conf_entry entries[] = {
        {kPathsQuotaDirKey, FR_CONF_SAFESTR, &quota_dir},
        {kPathsAsteriskConfKey, FR_CONF_STRING, &asterisk_conf},
    };
    // A missing file or directive is not an error: the compiled-in defaults apply.
    (void)parseconfig(QX_PATHS_CONF, entries, sizeof entries / sizeof entries[0]);

    if (!quota_dir || safestr_length(quota_dir) == 0) {
        if (quota_dir) safestr_free(quota_dir);
        quota_dir = safestr_create(QX_QUOTA_DIR);
    }
    const char *conf_path = asterisk_conf && *asterisk_conf ? asterisk_conf : QX_ASTERISK_CONF;

    const char *keys[] = {kAstSpoolDirKey, kAstLibDirKey, nullptr};
    safestr_t *values[2] = {nullptr, nullptr};
    (void)get_astconf_section_values(conf_path, kAstDirectoriesSection, keys, values);

    if (ast_spool_dir) safestr_free(ast_spool_dir);
    ast_spool_dir = values[0] ? values[0] : safestr_create(QX_AST_SPOOL_DIR);
    if (ast_lib_dir) safestr_free(ast_lib_dir);
    ast_lib_dir = values[1] ? values[1] : safestr_create(QX_AST_LIB_DIR);

    std::free(asterisk_conf);
    refresh_jobs = jobs_setting();
    return 0;
}

int lvl2idx(int level) {
    switch (level) {
        case kLevelClient:
            return 1;
        case kLevelUser:
            return 2;
        default:
            return 0;
    }
}

int destroy_client(void *record) {
    auto *rec = static_cast<spoolcap_target *>(record);
    if (rec && rec->login) {
        std::free(rec->login);
        rec->login = nullptr;
    }
    return 0;
}

fr_hash_t *get_sql_data(void) {
    try {
        return select_targets();
    } catch (...) {
        return nullptr;
    }
}

int refresh_user_quotas(void) {
    try {
        return refresh_targets();
    } catch (...) {
        return 2;
    }
}

int show_quotas(void) {
    try {
        qx::SessionGuard sess;
        if (!sess) return -1;
        if (target_mode == SPOOLCAP_TARGET_ALL) return show_all_accounts(sess);
        return show_targets();
    } catch (...) {
        return -1;
    }
}

int print_quotas(const long long *quota) {
    if (!quota) return 0;
    // Unknown (negative) kinds add nothing; a total beyond 64 bits shows as the largest count
    // rather than wrapping to a negative one.
    long long total = 0;
    for (int k = 0; k < kKindCount; ++k) {
        if (quota[k] > 0 && __builtin_add_overflow(total, quota[k], &total)) total = LLONG_MAX;
    }

    char unit[3];
    if (human_flag) {
        const float scaled = to_human_readable(unit, static_cast<float>(total));
        std::printf(kTotalHuman, static_cast<double>(scaled), unit);
    } else {
        std::printf(kTotalBytes, total);
    }

    for (unsigned k = 0; k < kKindCount; ++k) {
        const char *name = quota_get_target_name(k);
        if (quota[k] < 0) {
            std::printf(kKindNotFound, kKindNameWidth, name);
        } else if (human_flag) {
            const float scaled = to_human_readable(unit, static_cast<float>(quota[k]));
            std::printf(kKindHuman, kKindNameWidth, name, static_cast<double>(scaled), unit);
        } else {
            std::printf(kKindBytes, kKindNameWidth, name, quota[k]);
        }
    }
    std::putchar('\n');
    return 0;
}

float to_human_readable(char *unit, float bytes) {
    float value = bytes;
    int steps = 0;
    while (value / 1024.0f >= 1.0f) {
        value /= 1024.0f;
        ++steps;
    }
    const char *text = kUnits[steps < kUnitOverflow ? steps : kUnitOverflow];
    if (unit) std::memcpy(unit, text, std::strlen(text) + 1);
    return value;
}

const char *quota_get_target_name(unsigned int kind) {
    return kind < kKindCount ? kKindDisplayNames[kind] : nullptr;
}

int main(int argc, char **argv) {
    int status = SPOOLCAP_EXIT_UNDECIDED;
    try {
        status = run(argc, argv);
    } catch (const std::exception &) {
        // Nothing the run does throws on purpose; out of memory leaves the outcome undecided.
    }
    release_run();
    std::exit(status);
}
