// Account lookups: parent, level, status, name, extensions and storage preferences of one row
// of table client, each read through the DisDB cache so that other nodes find the answer there.
#include "zarn_user.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "cxx_util.hpp"
#include "sql_util.hpp"
#include "zarn_base.h"
#include "zarn_cache.h"
#include "zarn_extension.h"

namespace {

constexpr const char *kSrc = "../main/zarn_user";
constexpr int kChannel = 3;
constexpr int kWarning = 4;
constexpr int kDebug = 7;

constexpr char kCondFailed[] = "%s:%d:condition failed\n";
constexpr char kMysqlError[] = "../main/zarn_user:%s:%d -MySQL error: %s\n";
constexpr char kNameQueryFailed[] = "Could not query for client name with id %d";
constexpr char kNameFailedWithReason[] = "%s (%s)\n";
constexpr char kNameFailed[] = "%s\n";

constexpr char kInfoKey[] = "res:inf:mng:%d";
constexpr char kExtIndexKey[] = "res:ind:%d:ext";

constexpr char kParentField[] = "pid";
constexpr char kLevelField[] = "lvl";
constexpr char kStatusField[] = "st";
constexpr char kPhoneStatusField[] = "pst";
constexpr char kNameField[] = "nam";

constexpr char kParentSql[] = "SELECT parent_client_id FROM client WHERE id='%d' ";
constexpr char kLevelSql[] = "SELECT level FROM client WHERE id=%d";
constexpr char kStatusSql[] = "SELECT status FROM client WHERE id='%d'";
constexpr char kPhoneStatusSql[] = "SELECT phonestatus FROM client WHERE id='%d'";
constexpr char kNameSql[] = "SELECT name FROM client WHERE id = %d";
constexpr char kExtensionsSql[] = "SELECT number, id FROM extension WHERE client_id = '%d'";
constexpr char kPrefsSql[] =
    "SELECT param, value FROM client_prefs  WHERE client_id='%s' AND param IN(%s) ";

// Sorted by name ignoring case: get_binding searches it by bisection. The two concurrency
// limits share the account information hash; the storage limits have a hash of their own.
constexpr cache_binding kPrefBindings[] = {
    {"fax_storage", "res:pre:mng:%d", 0, "fax"},
    {"max_maxconcurent", "res:inf:mng:%d", 0, "ecc"},
    {"max_maxconcurentint", "res:inf:mng:%d", 0, "icc"},
    {"max_moh", "res:pre:mng:%d", 0, "mmoh"},
    {"max_record", "res:pre:mng:%d", 0, "mrec"},
    {"max_sound", "res:pre:mng:%d", 0, "msnd"},
    {"max_voice", "res:pre:mng:%d", 0, "mvoc"},
};
constexpr int kPrefBindingCount = static_cast<int>(sizeof kPrefBindings / sizeof kPrefBindings[0]);

// Every account hash is non-persistent data: the database stays the authority.
constexpr int kVolatile = 0;

// What the first row of a one-column statement gave.
enum class Fetch { kError, kNoRow, kNull, kValue };

// Runs a statement whose only argument is the account id and reads the first row's first
// column into text.
Fetch fetch_first(SessionHandle *sess, qx::Result &result, const char *sql, int id,
                  std::string &text) {
    result.reset();
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess, 1, &raw, sql, id);
    result.reset(raw);
    if (rc != 0) return Fetch::kError;
    MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    if (!row) return Fetch::kNoRow;
    if (!row[0]) return Fetch::kNull;
    text = row[0];
    return Fetch::kValue;
}

// The cached text of one account information field, or NULL on a miss.
char *cached_info(const char *field, int id) {
    char *value = nullptr;
    rget_hash_str(kVolatile, field, &value, kInfoKey, id);
    return value;
}

// Gives the session back on every path, the null one of a cache hit included, the way the
// status lookups always have.
struct OwnSession {
    SessionHandle *sess = nullptr;
    OwnSession() = default;
    OwnSession(const OwnSession &) = delete;
    OwnSession &operator=(const OwnSession &) = delete;
    ~OwnSession() { sess_destroy(sess); }
};

// How a status read ended, so the public lookup can log under its own name.
enum class Outcome { kAnswered, kNoSession, kError };

// Status and phone status: only a cached -1 sends them to the database. The phone status
// keeps its last two digits when it comes from the database, but the cache gets the full
// column, so later calls see the unreduced value; callers have long relied on both forms.
int read_status(OwnSession &own, const char *field, const char *sql, int id, bool reduce,
                Outcome &outcome) {
    outcome = Outcome::kAnswered;
    int status = -1;
    if (char *cached = cached_info(field, id)) {
        status = std::atoi(cached);
        std::free(cached);
        if (status != -1) return status;
    }
    own.sess = sess_init();
    if (!own.sess) {
        outcome = Outcome::kNoSession;
        return status;
    }
    qx::Result result;
    std::string text;
    switch (fetch_first(own.sess, result, sql, id, text)) {
        case Fetch::kError:
            outcome = Outcome::kError;
            return status;
        case Fetch::kNoRow:
        case Fetch::kNull:
            return status;
        case Fetch::kValue:
            break;
    }
    status = std::atoi(text.c_str());
    if (reduce) status %= 100;
    rset_hash_str(kVolatile, field, text.c_str(), kInfoKey, id);
    return status;
}

}  // namespace

#define QX_COND_FAILED() FR_LOG(kSrc, kChannel, kDebug, kCondFailed, kSrc, __LINE__)
#define QX_MYSQL_ERROR(guard) \
    FR_LOG(kSrc, kChannel, kDebug, kMysqlError, __func__, __LINE__, (guard).error())
#define QX_LOG_STATUS_OUTCOME(outcome, own)                                 \
    do {                                                                    \
        if ((outcome) == Outcome::kNoSession) QX_COND_FAILED();             \
        if ((outcome) == Outcome::kError) {                                 \
            FR_LOG(kSrc, kChannel, kDebug, kMysqlError, __func__, __LINE__, \
                   mysql_error(fr_sql_conn_get_mysql((own).sess)));         \
        }                                                                   \
    } while (0)

extern "C" {

char *qx_account_get_parent_str_sess(SessionHandle *sess, int account_id) try {
    if (char *cached = cached_info(kParentField, account_id)) return cached;

    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    std::string text;
    switch (fetch_first(guard.get(), result, kParentSql, account_id, text)) {
        case Fetch::kError:
            QX_MYSQL_ERROR(guard);
            return nullptr;
        case Fetch::kNoRow:
            return nullptr;
        case Fetch::kNull:
            // A top account: the empty text is cached too, so "no parent" is a cache hit.
            text.clear();
            break;
        case Fetch::kValue:
            break;
    }
    char *parent = qx::c_copy(text);
    if (parent) rset_hash_str(kVolatile, kParentField, parent, kInfoKey, account_id);
    return parent;
} catch (...) {
    return nullptr;
}

int qx_account_get_parent_sess(SessionHandle *sess, int account_id) {
    char *text = qx_account_get_parent_str_sess(sess, account_id);
    if (!text) return -2;
    const int parent = *text ? std::atoi(text) : -1;
    std::free(text);
    return parent;
}

int qx_account_get_level_sess(SessionHandle *sess, int account_id) try {
    // A marker or other non-number in the cache converts to 0 and is taken as level 0; only a
    // negative cached level is worth asking the database about again.
    int level = -1;
    if (char *cached = cached_info(kLevelField, account_id)) {
        level = std::atoi(cached);
        std::free(cached);
        if (level >= 0) return level;
    }

    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return level;
    }
    qx::Result result;
    std::string text;
    switch (fetch_first(guard.get(), result, kLevelSql, account_id, text)) {
        case Fetch::kError:
            QX_MYSQL_ERROR(guard);
            return level;
        case Fetch::kNoRow:
        case Fetch::kNull:
            return level;
        case Fetch::kValue:
            break;
    }
    if (text.empty()) return level;
    level = std::atoi(text.c_str());
    rset_hash_str(kVolatile, kLevelField, text.c_str(), kInfoKey, account_id);
    return level;
} catch (...) {
    return -1;
}

int qx_account_get_level(int account_id) {
    return qx_account_get_level_sess(nullptr, account_id);
}

int qx_user_get_status(int account_id) try {
    OwnSession own;
    Outcome outcome;
    const int status = read_status(own, kStatusField, kStatusSql, account_id, false, outcome);
    QX_LOG_STATUS_OUTCOME(outcome, own);
    return status;
} catch (...) {
    return -1;
}

int qx_user_get_phonestatus(int account_id) try {
    OwnSession own;
    Outcome outcome;
    const int status =
        read_status(own, kPhoneStatusField, kPhoneStatusSql, account_id, true, outcome);
    QX_LOG_STATUS_OUTCOME(outcome, own);
    return status;
} catch (...) {
    return -1;
}

char *qx_account_get_name_sess(SessionHandle *sess, int account_id) try {
    if (char *cached = cached_info(kNameField, account_id)) return cached;

    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    const std::string failure = qx::format(kNameQueryFailed, account_id);
    qx::Result result;
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(guard.get(), 1, &raw, kNameSql, account_id);
    result.reset(raw);
    if (rc != 0) {
        FR_LOG(kSrc, kChannel, kWarning, kNameFailedWithReason, failure.c_str(), guard.error());
        return nullptr;
    }
    if (!result || mysql_num_rows(result.get()) == 0) {
        FR_LOG(kSrc, kChannel, kWarning, kNameFailed, failure.c_str());
        return nullptr;
    }
    MYSQL_ROW row = mysql_fetch_row(result.get());
    if (!row) {
        FR_LOG(kSrc, kChannel, kWarning, kNameFailedWithReason, failure.c_str(), guard.error());
        return nullptr;
    }
    if (!row[0]) return nullptr;
    char *name = qx::c_copy(row[0]);
    if (name) rset_hash_str(kVolatile, kNameField, name, kInfoKey, account_id);
    return name;
} catch (...) {
    return nullptr;
}

char *qx_account_get_name(int account_id) {
    return qx_account_get_name_sess(nullptr, account_id);
}

char **qx_user_get_extensions_sess(SessionHandle *sess, const char *parent_id, int account_id,
                                   int numbers_only, size_t *count) try {
    size_t unused = 0;
    size_t *size = count ? count : &unused;

    char **numbers = nullptr;
    char **ids = nullptr;
    const int rc = cache_hgetall(kVolatile, size, &numbers, &ids, kExtIndexKey, account_id);
    // The ids only tell the hash apart from a missing one; the callers want the numbers.
    rget_free_vals(static_cast<int>(*size), ids);
    if (rc == 0 && numbers) {
        if (!numbers_only) {
            for (size_t i = 0; i < *size; ++i) {
                char *full = qx_get_full_number(parent_id, numbers[i]);
                std::free(numbers[i]);
                numbers[i] = full;
            }
        }
        return numbers;
    }
    rget_free_vals(static_cast<int>(*size), numbers);

    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    MYSQL_RES *raw = nullptr;
    const int qrc = fr_sql_conn_query(guard.get(), 1, &raw, kExtensionsSql, account_id);
    result.reset(raw);
    if (qrc != 0) {
        QX_MYSQL_ERROR(guard);
        return nullptr;
    }
    if (!result) {
        QX_COND_FAILED();
        return nullptr;
    }
    const size_t rows = mysql_num_rows(result.get());
    if (rows == 0) return nullptr;

    char **out = static_cast<char **>(std::calloc(rows, sizeof(char *)));
    if (!out) return nullptr;
    *size = rows;
    for (size_t i = 0; i < rows; ++i) {
        MYSQL_ROW row = mysql_fetch_row(result.get());
        if (!row) break;
        const char *number = row[0];
        const char *id = row[1];
        if (!number) continue;
        out[i] = numbers_only ? qx::c_copy(number) : qx_get_full_number(parent_id, number);
        if (id) {
            cache_hset(kVolatile, number, std::strlen(number), id, std::strlen(id), kExtIndexKey,
                       account_id);
        }
    }
    return out;
} catch (...) {
    return nullptr;
}

char **qx_account_get_prefs(int account_id, int n, const char **names) try {
    const std::string id = std::to_string(account_id);
    return drmget_hash(kPrefBindingCount, kPrefBindings, n, names, kPrefsSql, id.c_str(), 1, 0, 0);
} catch (...) {
    return nullptr;
}

char *qx_account_get_pref(int account_id, const char *name) {
    const char *names[] = {name};
    char **values = qx_account_get_prefs(account_id, 1, names);
    if (!values) return nullptr;
    char *value = values[0];
    std::free(values);
    return value;
}

}  // extern "C"
