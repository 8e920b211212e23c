// Extension lookups: full numbers and their parts, ids, owners, preferences, types,
// registration state and codecs of extensions, and the system parameters that shape numbers.
// Most answers are read through the DisDB cache; the hashes used here are all non-persistent.
#include "zarn_extension.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "sql_util.hpp"
#include "zarn_base.h"
#include "zarn_cache.h"
#include "zarn_cache.hpp"

namespace {

using qx::cache::Site;

constexpr const char *kSrc = "../main/zarn_extension";
constexpr int kChannel = 3;
constexpr int kDebug = 7;

constexpr char kCondFailed[] = "%s:%d:condition failed\n";
constexpr char kMysqlError[] = "../main/zarn_extension:%s:%d -MySQL error: %s\n";
constexpr char kSearchingScreening[] = "%s:%d:searching for screening params in database ...\n";

constexpr char kPaddedId[] = "%04d";

constexpr char kInfoKey[] = "res:inf:ext:%s";
constexpr char kOwnerNameKey[] = "res:cid:ext:%s";
constexpr char kPrefsKey[] = "res:po:ext:%s";
constexpr char kSipKey[] = "res:sip:ext:%s";
constexpr char kIndexKey[] = "res:ind:%d:ext";
constexpr char kVirtPhoneKey[] = "res:ind:vext";
constexpr char kSipSessionKey[] = "rtl:sipses:ext:%s";
constexpr char kAllowListKey[] = "res:scral:ext:%s";
constexpr char kDenyListKey[] = "res:scrdl:ext:%s";

constexpr char kExtIdField[] = "extid";
constexpr char kUsrIdField[] = "usrid";
constexpr char kOrgIdField[] = "orgid";
constexpr char kTypeField[] = "typ";
constexpr char kOwnerNameField[] = "ownona";
constexpr char kCodecsField[] = "cod";
constexpr char kMultiUserField[] = "mu";
constexpr char kScreeningField[] = "scrb";
constexpr char kCanRegisterField[] = "creg";
constexpr char kExpiresField[] = "expires";
constexpr char kReachableField[] = "rch";

constexpr char kFullNumberSql[] =
    "SELECT extended_number FROM extension,client WHERE extension.number='%s' AND "
    "extension.client_id=client.id AND client.parent_client_id='%s'";
constexpr char kIdsSql[] = "SELECT id, client_id  FROM extension WHERE extended_number='%s'";
constexpr char kIdsWithOrgSql[] =
    "SELECT extension.id, client.id, parent_client_id FROM client,extension WHERE "
    "extended_number='%s' AND client.id=extension.client_id ";
constexpr char kPrefsSql[] =
    "SELECT p.param, p.value FROM extension e LEFT JOIN extension_prefs p ON "
    "p.extension_id=e.id WHERE e.extended_number='%s' AND param IN(%s) ";
constexpr char kMiscSql[] = "SELECT param, value FROM misc WHERE param IN (%s)";
constexpr char kFromAliasSql[] = "SELECT extended_number FROM extension WHERE alias='%s'";
constexpr char kAliasSql[] = "SELECT alias FROM extension WHERE extended_number='%s'";
constexpr char kOwnerNameSql[] =
    "SELECT client.name FROM client,extension WHERE extended_number='%s' AND "
    "client.id=extension.client_id ";
constexpr char kUsrIdFromExtIdSql[] = "SELECT client_id FROM extension WHERE id='%d'";
constexpr char kPrefByIdSql[] =
    "SELECT value FROM extension_prefs WHERE extension_id='%d'AND param='%s'";
constexpr char kCodecsSql[] =
    "SELECT uname FROM codec,extension_codec_rel,extension WHERE "
    "extension_codec_rel.codec_id=codec.id AND extension.id=extension_codec_rel.extension_id AND "
    "extension.extended_number='%s' ORDER BY priority ASC";
constexpr char kAccountLevelSql[] = "SELECT level FROM client WHERE id='%d'";
constexpr char kAccountsAtLevelSql[] = "SELECT id FROM client WHERE level=%d";
constexpr char kChildrenSql[] = "SELECT id FROM client WHERE parent_client_id='%d'";
constexpr char kChildrenOfSetSql[] = "SELECT id FROM client WHERE parent_client_id IN (";
constexpr char kTimezoneSql[] =
    "SELECT timezone.name FROM extension,client,timezone WHERE extension.id='%d' AND "
    "extension.client_id=client.id AND client.timezone_id=timezone.id";
constexpr char kCanRegisterSql[] = "SELECT can_register FROM ser_subscriber WHERE username='%s'";
constexpr char kTypeSql[] = "SELECT type FROM extension WHERE extended_number='%s'";
constexpr char kMultiUserSql[] =
    "SELECT value FROM extension, client_prefs WHERE extended_number='%s' AND "
    "extension.client_id=client_prefs.client_id AND param='multi_user' AND value='1'";
constexpr char kScreeningSql[] = "CALL get_screening_prefs('%s')";

constexpr char kDateQuoted[] = "'%Y-%m-%d %H:%M:%S'";
constexpr char kDate[] = "%Y-%m-%d %H:%M:%S";
constexpr char kReachableYes[] = "yes";

// Sorted by name ignoring case: get_binding searches it by bisection.
constexpr cache_binding kExtensionPrefBindings[] = {
    {"call_waiting", "res:po:ext:%s", 0, "cw"},
    {"callreturn", "res:cb:ext:%s", 0, "crt"},
    {"chat_status", "res:po:ext:%s", 0, "cst"},
    {"conf", "res:po:ext:%s", 0, "conf"},
    {"conf_size", "res:po:ext:%s", 0, "confs"},
    {"credit_limit", "res:cc:ext:%s", 0, "clim"},
    {"dir", "res:po:ext:%s", 0, "dir"},
    {"dnd", "res:po:ext:%s", 0, "dnd"},
    {"dnd_sound", "res:po:ext:%s", 0, "dndso"},
    {"dnd_sound_active", "res:po:ext:%s", 0, "dndsa"},
    {"encryption", "res:po:ext:%s", 0, "enc"},
    {"fax", "res:po:ext:%s", 0, "fx"},
    {"fax_active", "res:po:ext:%s", 0, "fxa"},
    {"fax_attach", "res:po:ext:%s", 0, "fxatt"},
    {"fax_autoans_time", "res:po:ext:%s", 0, "fxat"},
    {"fax_redirect_to_voicemail", "res:po:ext:%s", 0, "fxrv"},
    {"hotdesk", "res:po:ext:%s", 0, "hdsk"},
    {"no_answer", "res:po:ext:%s", 0, "noans"},
    {"rec", "res:po:ext:%s", 0, "rec"},
    {"record_always", "res:po:ext:%s", 0, "recal"},
    {"record_sound_active", "res:po:ext:%s", 0, "recsa"},
    {"voicemail", "res:po:ext:%s", 0, "vm"},
    {"voicemail_active", "res:po:ext:%s", 0, "vma"},
    {"voicemail_autoans_time", "res:po:ext:%s", 0, "vmat"},
};
constexpr int kExtensionPrefBindingCount =
    static_cast<int>(sizeof kExtensionPrefBindings / sizeof kExtensionPrefBindings[0]);

// "text2speach" is the name stored in table misc; it must not be corrected here.
constexpr cache_binding kSystemBindings[] = {
    {"avgcall", "system:pbx", 0, "acd"},           {"billing_disabled", "system:pbx", 0, "chst"},
    {"currency", "system:pbx", 0, "cur"},          {"diagnostic_passwd", "system:pbx", 0, "dp"},
    {"elocal_calls_cost", "system:pbx", 0, "ecc"}, {"ext_length", "system:pbx", 0, "extlen"},
    {"ext_separator", "system:pbx", 0, "extsep"},  {"language", "system:pbx", 0, "pln"},
    {"local_calls_cost", "system:pbx", 0, "lcc"},  {"snd_currency", "system:pbx", 0, "sndc"},
    {"text2speach", "system:pbx", 0, "t2s"},
};
constexpr int kSystemBindingCount =
    static_cast<int>(sizeof kSystemBindings / sizeof kSystemBindings[0]);

// In table order: the first name matched ignoring case gives the value.
constexpr const char *kExtensionTypes[] = {
    "term",     "queue",    "ivr",      "voicecenter", "conference",
    "callback", "callcard", "intercom", "queuecenter",
};

// Everything this module caches is non-persistent: the database stays the authority.
constexpr int kVolatile = 0;

// Backslash before every backslash, double quote and single quote, for text put between
// quotes in a statement.
std::string sql_escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\\' || c == '"' || c == '\'') out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

// What the first row of a statement gave in its first column.
enum class Fetch { kError, kNoRow, kNull, kValue };

struct Column {
    Fetch state = Fetch::kNoRow;
    std::string text;
};

// Runs one statement (printf-style, arguments already safe to embed) and reads the first
// row's first column. result keeps the set for callers that read further rows.
template <typename... Args>
Column first_column(SessionHandle *sess, qx::Result &result, const char *sql, Args... args) {
    result.reset();
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess, 1, &raw, sql, args...);
    result.reset(raw);
    Column col;
    if (rc != 0) {
        col.state = Fetch::kError;
        return col;
    }
    MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    if (!row) return col;
    if (!row[0]) {
        col.state = Fetch::kNull;
        return col;
    }
    col.state = Fetch::kValue;
    col.text = row[0];
    return col;
}

// These lookups carry their own read-through steps, so the cache operations they make are
// reported from the lookup itself (module, function, line): the site every helper below takes.
#define SITE() QX_CACHE_SITE(kSrc)

// One field of a cache hash, or NULL on a miss.
char *cache_read(const Site &site, const std::string &key, const char *field) {
    char *value = nullptr;
    qx::cache::rget_hash_str(site, kVolatile, field, key, &value);
    return value;
}

// The database step's answer as the cache stores it: a failed statement and a missing row
// both become the absent-row marker, so a negative answer is cached as well. The write goes
// through the guard that keeps a marker from creating a hash. Markers never reach callers.
char *store_answer(const Site &site, const std::string &key, const char *field, const Column &col) {
    std::string_view text = col.text;
    if (col.state == Fetch::kError || col.state == Fetch::kNoRow) text = CACHE_NOROWS;
    if (col.state == Fetch::kNull) text = CACHE_NULL;
    char *value = qx::c_copy(text);
    if (!value) return nullptr;
    qx::cache::rset_hash_str(site, kVolatile, field, value, key);
    filter_cache_return(&value, 0);
    return value;
}

// A copy of the first column when it is a value; NULL otherwise.
char *copy_value(const Column &col) {
    return col.state == Fetch::kValue ? qx::c_copy(col.text) : nullptr;
}

// Ids of the rows of a one-column id statement, as text (they feed the next IN list).
template <typename... Args>
bool collect_ids(SessionHandle *sess, std::vector<std::string> &out, const char *sql,
                 Args... args) {
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess, 1, &raw, sql, args...);
    qx::Result result(raw);
    if (rc != 0) return false;
    if (!result) return true;
    while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
        if (row[0] && *row[0]) out.emplace_back(row[0]);
    }
    return true;
}

// A CALL leaves its status result behind; the connection must be drained before it can
// take the next statement.
void drain_results(SessionHandle *sess) {
    MYSQL *mysql = fr_sql_conn_get_mysql(sess);
    if (!mysql) return;
    while (mysql_more_results(mysql) && mysql_next_result(mysql) == 0) {
        if (MYSQL_RES *extra = mysql_store_result(mysql)) mysql_free_result(extra);
    }
}

// Stores a comma-separated list as a hash whose fields and values are the items, which is
// how the list hashes are read back as one joined text.
void store_list(const Site &site, const std::string &key, std::string_view list) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string_view::npos) end = list.size();
        const std::string_view item = list.substr(start, end - start);
        if (!item.empty()) {
            qx::cache::cache_hset(site, kVolatile, item.data(), item.size(), item.data(),
                                  item.size(), key);
        }
        start = end + 1;
    }
}

}  // namespace

#define QX_COND_FAILED() FR_LOG(kSrc, kChannel, kDebug, kCondFailed, kSrc, __LINE__)
#define QX_MYSQL_ERROR(guard) \
    FR_LOG(kSrc, kChannel, kDebug, kMysqlError, __func__, __LINE__, (guard).error())

extern "C" {

char *qx_get_full_number(const char *parent_id, const char *number) {
    if (!parent_id || !number) {
        QX_COND_FAILED();
        return nullptr;
    }
    SessionHandle *sess = sess_init();
    if (!sess) {
        QX_COND_FAILED();
        return nullptr;
    }
    char *full = qx_get_full_number_sess(sess, parent_id, number);
    sess_destroy(sess);
    return full;
}

char *qx_get_full_number_sess(SessionHandle *sess, const char *parent_id, const char *number) try {
    if (!parent_id || !number) {
        QX_COND_FAILED();
        return nullptr;
    }
    // Escaped copies have always been made here and never used: the statement has always
    // received the arguments as they are, and the numbers it matches never need escaping.
    {
        const std::string escaped_parent = sql_escape(parent_id);
        const std::string escaped_number = sql_escape(number);
    }
    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column col = first_column(guard.get(), result, kFullNumberSql, number, parent_id);
    switch (col.state) {
        case Fetch::kError:
            QX_MYSQL_ERROR(guard);
            return nullptr;
        case Fetch::kNoRow:
            return nullptr;
        case Fetch::kNull:
            QX_COND_FAILED();
            return nullptr;
        case Fetch::kValue:
            break;
    }
    return qx::c_copy(col.text);
} catch (...) {
    return nullptr;
}

char *qx_get_padded_account_id(int id) try {
    return qx::c_copy(qx::format(kPaddedId, id));
} catch (...) {
    return nullptr;
}

int qx_split_full_number(const char *full, char **owner, char **number) {
    if (!full) return -1;
    const long length = static_cast<long>(std::strlen(full));
    const long ext_length = qx_get_extlen();
    const int separator = qx_get_extsep();
    // Without a configured length there is no separator position inside the number.
    if (ext_length < 0 || length <= ext_length + 1) return -1;
    const long sep_at = length - ext_length - 1;
    if (static_cast<unsigned char>(full[sep_at]) != separator) return -1;

    char *owner_part = nullptr;
    char *short_part = nullptr;
    if (owner && !(owner_part = qx::c_copy(std::string_view(full, sep_at)))) return -1;
    if (number && !(short_part = qx::c_copy(full + sep_at + 1))) {
        std::free(owner_part);
        return -1;
    }
    if (owner) *owner = owner_part;
    if (number) *number = short_part;
    return 0;
}

char *qx_get_extension_owner_str(const char *full) {
    char *owner = nullptr;
    if (qx_split_full_number(full, &owner, nullptr) != 0) return nullptr;
    return owner;
}

int qx_get_extension_owner(const char *full) {
    int orgid = -1;
    qx_get_extension_ids_sess_internal(nullptr, full, nullptr, nullptr, &orgid);
    return orgid;
}

int qx_get_extension_ids_sess_internal(SessionHandle *sess, const char *full, int *extid,
                                       int *usrid, int *orgid) try {
    if (extid) *extid = -1;
    if (usrid) *usrid = -1;
    if (orgid) *orgid = -1;
    if (!full) {
        QX_COND_FAILED();
        return -1;
    }
    const std::string key = qx::format(kInfoKey, full);

    struct Wanted {
        int *out;
        const char *field;
        qx::CStr value;
    };
    Wanted ids[] = {{extid, kExtIdField, nullptr},
                    {usrid, kUsrIdField, nullptr},
                    {orgid, kOrgIdField, nullptr}};
    bool all_cached = true;
    for (Wanted &id : ids) {
        if (!id.out) continue;
        id.value.reset(cache_read(SITE(), key, id.field));
        if (!id.value) all_cached = false;
    }

    if (!all_cached) {
        for (Wanted &id : ids)
            id.value.reset();
        qx::SessionGuard guard(sess);
        if (!guard) {
            QX_COND_FAILED();
            return -1;
        }
        const std::string escaped = sql_escape(full);
        const bool with_org = orgid != nullptr;
        MYSQL_RES *raw = nullptr;
        const int rc = fr_sql_conn_query(guard.get(), 1, &raw, with_org ? kIdsWithOrgSql : kIdsSql,
                                         escaped.c_str());
        qx::Result result(raw);
        if (rc != 0) {
            QX_MYSQL_ERROR(guard);
            return -1;
        }
        MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
        const size_t columns = with_org ? 3 : 2;
        if (!row) return -1;
        for (size_t i = 0; i < columns; ++i) {
            if (!row[i] || !*row[i]) return -1;
        }
        for (size_t i = 0; i < columns; ++i) {
            ids[i].value.reset(qx::c_copy(row[i]));
            if (!ids[i].value) return -1;
        }
        for (size_t i = 0; i < columns; ++i) {
            qx::cache::rset_hash_str(SITE(), kVolatile, ids[i].field, ids[i].value.get(), key);
        }
    }

    for (Wanted &id : ids) {
        if (id.out) *id.out = std::atoi(id.value.get());
    }
    return 0;
} catch (...) {
    return -1;
}

int qx_get_extension_ids(const char *full, int *extid, int *usrid, int *orgid) {
    return qx_get_extension_ids_sess_internal(nullptr, full, extid, usrid, orgid);
}

int qx_get_extension_ids_sess(SessionHandle *sess, const char *full, int *extid, int *usrid,
                              int *orgid) {
    return qx_get_extension_ids_sess_internal(sess, full, extid, usrid, orgid);
}

int qx_get_extension_id(const char *full) {
    int id = -1;
    qx_get_extension_ids_sess_internal(nullptr, full, &id, nullptr, nullptr);
    return id;
}

int qx_get_extension_usrid(const char *full) {
    int id = -1;
    qx_get_extension_ids_sess_internal(nullptr, full, nullptr, &id, nullptr);
    return id;
}

int qx_get_extension_orgid(const char *full) {
    int id = -1;
    qx_get_extension_ids_sess_internal(nullptr, full, nullptr, nullptr, &id);
    return id;
}

int qx_get_extension_usrid_sess(SessionHandle *sess, const char *full) {
    int id = -1;
    qx_get_extension_ids_sess_internal(sess, full, nullptr, &id, nullptr);
    return id;
}

char **qx_extension_get_prefs(const char *full, int count, const char **names) {
    return drmget_hash(kExtensionPrefBindingCount, kExtensionPrefBindings, count, names, kPrefsSql,
                       full, 0, 0, 0);
}

char *qx_extension_get_pref(const char *full, const char *name) {
    const char *names[] = {name};
    char **values = qx_extension_get_prefs(full, 1, names);
    if (!values) return nullptr;
    char *value = values[0];
    std::free(values);
    return value;
}

char **qx_misc_get_params(int count, const char **names) {
    return drmget_hash(kSystemBindingCount, kSystemBindings, count, names, kMiscSql, nullptr, 0, 0,
                       0);
}

char *qx_misc_get_param(const char *name) {
    const char *names[] = {name};
    char **values = qx_misc_get_params(1, names);
    if (!values) return nullptr;
    char *value = values[0];
    std::free(values);
    return value;
}

int qx_get_extlen(void) {
    qx::CStr value(qx_misc_get_param("ext_length"));
    return value ? std::atoi(value.get()) : -1;
}

int qx_get_extsep(void) {
    qx::CStr value(qx_misc_get_param("ext_separator"));
    return value ? static_cast<unsigned char>(value.get()[0]) : -1;
}

int qx_billing_disabled(void) {
    qx::CStr value(qx_misc_get_param("billing_disabled"));
    return value && std::atoi(value.get()) == 1 ? 1 : 0;
}

void qx_free_string_array(int count, char **array) {
    rget_free_vals(count, array);
}

char *qx_get_extension_from_alias_sess(SessionHandle *sess, const char *alias) try {
    if (!alias) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column col = first_column(guard.get(), result, kFromAliasSql, sql_escape(alias).c_str());
    if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
    return copy_value(col);
} catch (...) {
    return nullptr;
}

char *qx_get_alias_from_full_number(SessionHandle *sess, const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column col = first_column(guard.get(), result, kAliasSql, sql_escape(full).c_str());
    if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
    return copy_value(col);
} catch (...) {
    return nullptr;
}

int qx_extension_exists(const char *full) try {
    char *owner = nullptr;
    char *number = nullptr;
    if (qx_split_full_number(full, &owner, &number) != 0) return 0;
    qx::CStr owner_part(owner);
    qx::CStr short_part(number);
    char *value = nullptr;
    qx::cache::rget_hash_str(SITE(), kVolatile, short_part.get(),
                             qx::format(kIndexKey, std::atoi(owner_part.get())), &value);
    const int exists = value ? 1 : 0;
    std::free(value);
    return exists;
} catch (...) {
    return 0;
}

char *qx_get_user_name_from_number(SessionHandle *sess, const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return nullptr;
    }
    const std::string key = qx::format(kOwnerNameKey, full);
    if (char *cached = cache_read(SITE(), key, kOwnerNameField)) {
        filter_cache_return(&cached, 0);
        return cached;
    }
    qx::SessionGuard guard(sess);
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column col = first_column(guard.get(), result, kOwnerNameSql, sql_escape(full).c_str());
    if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
    return store_answer(SITE(), key, kOwnerNameField, col);
} catch (...) {
    return nullptr;
}

int qx_get_extension_usrid_from_extid(int extid) try {
    qx::SessionGuard guard;
    if (!guard) {
        QX_COND_FAILED();
        return -1;
    }
    qx::Result result;
    const Column col = first_column(guard.get(), result, kUsrIdFromExtIdSql, extid);
    if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
    return col.state == Fetch::kValue ? std::atoi(col.text.c_str()) : -1;
} catch (...) {
    return -1;
}

char *qx_extension_get_pref_by_id(int extid, const char *param) try {
    if (!param) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::SessionGuard guard;
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column col =
        first_column(guard.get(), result, kPrefByIdSql, extid, sql_escape(param).c_str());
    if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
    return copy_value(col);
} catch (...) {
    return nullptr;
}

char *qx_get_extension_virtphone(const char *number) try {
    if (!number) {
        QX_COND_FAILED();
        return nullptr;
    }
    char *value = nullptr;
    qx::cache::rget_hash_str(SITE(), kVolatile, number, kVirtPhoneKey, &value);
    return value;
} catch (...) {
    return nullptr;
}

char *qx_get_extension_codecs(const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return nullptr;
    }
    const std::string key = qx::format(kPrefsKey, full);
    if (char *cached = cache_read(SITE(), key, kCodecsField)) {
        filter_cache_return(&cached, 0);
        return cached;
    }
    qx::SessionGuard guard;
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    const std::string escaped = sql_escape(full);
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(guard.get(), 1, &raw, kCodecsSql, escaped.c_str());
    qx::Result result(raw);
    Column codecs;
    if (rc != 0) {
        QX_MYSQL_ERROR(guard);
        codecs.state = Fetch::kError;
    } else if (result && mysql_num_rows(result.get()) > 0) {
        // One text for all rows, in priority order, each name closed by a comma.
        codecs.state = Fetch::kValue;
        while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
            if (!row[0]) continue;
            codecs.text += row[0];
            codecs.text += ',';
        }
    }
    return store_answer(SITE(), key, kCodecsField, codecs);
} catch (...) {
    return nullptr;
}

int *qx_get_extensions_of(int account_id, int flag, size_t *count) try {
    if (count) *count = 0;
    qx::SessionGuard guard;
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column level_col = first_column(guard.get(), result, kAccountLevelSql, account_id);
    if (level_col.state == Fetch::kError) {
        QX_MYSQL_ERROR(guard);
        return nullptr;
    }
    if (level_col.state != Fetch::kValue || level_col.text.empty()) return nullptr;
    const int level = std::atoi(level_col.text.c_str());

    // Users (level 100) own the extensions; resellers and clients reach theirs through one or
    // two generations of children. The root sees the whole tree, level by level.
    std::vector<std::string> ids;
    if (flag) ids.push_back(std::to_string(account_id));
    if (level == 0) {
        const int levels[] = {10, 50, 100};
        for (int wanted : levels) {
            if (!flag && wanted != 100) continue;
            if (!collect_ids(guard.get(), ids, kAccountsAtLevelSql, wanted)) {
                QX_MYSQL_ERROR(guard);
                return nullptr;
            }
        }
    } else if (level >= 100) {
        if (!flag) ids.push_back(std::to_string(account_id));
    } else {
        int generations = level <= 10 ? 2 : 1;
        std::vector<std::string> generation;
        if (!collect_ids(guard.get(), generation, kChildrenSql, account_id)) {
            QX_MYSQL_ERROR(guard);
            return nullptr;
        }
        while (--generations > 0 && !generation.empty()) {
            if (flag) ids.insert(ids.end(), generation.begin(), generation.end());
            std::string sql = kChildrenOfSetSql;
            for (const std::string &id : generation) {
                sql += id;
                sql += ',';
            }
            sql.back() = ')';
            std::vector<std::string> next;
            if (!collect_ids(guard.get(), next, "%s", sql.c_str())) {
                QX_MYSQL_ERROR(guard);
                return nullptr;
            }
            generation = std::move(next);
        }
        ids.insert(ids.end(), generation.begin(), generation.end());
    }
    if (ids.empty()) return nullptr;

    int *out = static_cast<int *>(std::malloc(ids.size() * sizeof(int)));
    if (!out) return nullptr;
    for (size_t i = 0; i < ids.size(); ++i)
        out[i] = std::atoi(ids[i].c_str());
    if (count) *count = ids.size();
    return out;
} catch (...) {
    return nullptr;
}

char *qx_get_extension_timezone(int extid) try {
    qx::SessionGuard guard;
    if (!guard) {
        QX_COND_FAILED();
        return nullptr;
    }
    qx::Result result;
    const Column col = first_column(guard.get(), result, kTimezoneSql, extid);
    if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
    return copy_value(col);
} catch (...) {
    return nullptr;
}

int qx_extension_can_register(SessionHandle *sess, const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return 0;
    }
    const std::string key = qx::format(kSipKey, full);
    int can = 0;
    if (qx::CStr cached{cache_read(SITE(), key, kCanRegisterField)}) {
        can = std::atoi(cached.get());
    } else {
        qx::SessionGuard guard(sess);
        if (!guard) {
            QX_COND_FAILED();
            return 0;
        }
        qx::Result result;
        const Column col =
            first_column(guard.get(), result, kCanRegisterSql, sql_escape(full).c_str());
        if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
        // Only a real column is cached: a subscriber that is not there yet may appear soon.
        if (col.state == Fetch::kValue) {
            can = std::atoi(col.text.c_str()) == 1 ? 1 : 0;
            qx::cache::cache_hset(SITE(), kVolatile, kCanRegisterField,
                                  std::strlen(kCanRegisterField), col.text.c_str(), col.text.size(),
                                  key);
        }
    }
    return can > 0 ? can : 0;
} catch (...) {
    return 0;
}

int qx_get_extension_type(const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return -1;
    }
    const std::string key = qx::format(kInfoKey, full);
    qx::CStr type(cache_read(SITE(), key, kTypeField));
    if (type) {
        char *raw = type.release();
        filter_cache_return(&raw, 0);
        type.reset(raw);
    } else {
        qx::SessionGuard guard;
        if (guard) {
            qx::Result result;
            const Column col =
                first_column(guard.get(), result, kTypeSql, sql_escape(full).c_str());
            if (col.state == Fetch::kError) QX_MYSQL_ERROR(guard);
            type.reset(store_answer(SITE(), key, kTypeField, col));
        } else {
            QX_COND_FAILED();
        }
    }
    if (!type) {
        QX_COND_FAILED();
        return -1;
    }
    int value = 0;
    for (const char *name : kExtensionTypes) {
        if (strcasecmp(type.get(), name) == 0) return value;
        ++value;
    }
    return -1;
} catch (...) {
    return -1;
}

int qx_is_multiuser_aware(const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return 0;
    }
    const std::string key = qx::format(kPrefsKey, full);
    if (qx::CStr cached{cache_read(SITE(), key, kMultiUserField)}) return std::atoi(cached.get());

    qx::SessionGuard guard;
    if (!guard) {
        QX_COND_FAILED();
        return 0;
    }
    const std::string escaped = sql_escape(full);
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(guard.get(), 1, &raw, kMultiUserSql, escaped.c_str());
    qx::Result result(raw);
    if (rc != 0) {
        // An unanswered question is not cached as "no".
        QX_MYSQL_ERROR(guard);
        return 0;
    }
    const int aware = result && mysql_num_rows(result.get()) > 0 ? 1 : 0;
    const char *text = aware ? "1" : "0";
    qx::cache::cache_hset(SITE(), kVolatile, kMultiUserField, std::strlen(kMultiUserField), text, 1,
                          key);
    return aware;
} catch (...) {
    return 0;
}

int qx_screening_get_behaviour(const char *full, int *behaviour, char **allow, char **deny) try {
    if (behaviour) *behaviour = -1;
    if (allow) *allow = nullptr;
    if (deny) *deny = nullptr;
    if (!full) {
        QX_COND_FAILED();
        return -1;
    }
    const std::string key = qx::format(kPrefsKey, full);
    qx::CStr cached(cache_read(SITE(), key, kScreeningField));
    if (!cached) {
        FR_LOG(kSrc, kChannel, kDebug, kSearchingScreening, kSrc, __LINE__);
        qx::SessionGuard guard;
        if (!guard) {
            QX_COND_FAILED();
            return -1;
        }
        const std::string escaped = sql_escape(full);
        MYSQL_RES *raw = nullptr;
        const int rc = fr_sql_conn_query(guard.get(), 1, &raw, kScreeningSql, escaped.c_str());
        qx::Result result(raw);
        if (rc != 0) {
            QX_MYSQL_ERROR(guard);
            return -1;
        }
        // One row: behaviour, allow list, deny list.
        MYSQL_ROW row =
            result && mysql_num_fields(result.get()) >= 3 ? mysql_fetch_row(result.get()) : nullptr;
        Column scrb;
        if (row) {
            // The lists go in first: a reader that finds the behaviour finds its lists too.
            store_list(SITE(), qx::format(kAllowListKey, full), row[1] ? row[1] : "");
            store_list(SITE(), qx::format(kDenyListKey, full), row[2] ? row[2] : "");
            scrb.state = row[0] ? Fetch::kValue : Fetch::kNull;
            if (row[0]) scrb.text = row[0];
        }
        result.reset();
        drain_results(guard.get());
        const std::string_view stored =
            scrb.state == Fetch::kValue ? std::string_view(scrb.text)
                                        : (scrb.state == Fetch::kNull ? CACHE_NULL : CACHE_NOROWS);
        qx::cache::rset_hash_str(SITE(), kVolatile, kScreeningField, std::string(stored).c_str(),
                                 key);
        cached.reset(qx::c_copy(stored));
        if (!cached) return -1;
    }
    // An unknown extension answers -1; one without settings has behaviour 0 and no lists.
    if (std::strcmp(cached.get(), CACHE_NOROWS) == 0) return -1;
    if (behaviour) *behaviour = std::atoi(cached.get());
    if (allow) *allow = rgetall_hash_comma(kVolatile, kAllowListKey, full);
    if (deny) *deny = rgetall_hash_comma(kVolatile, kDenyListKey, full);
    return 0;
} catch (...) {
    return -1;
}

int qx_extension_expired(const char *full) try {
    if (!full) {
        QX_COND_FAILED();
        return 1;
    }
    int expired = 1;
    qx::CStr virt(qx_get_extension_virtphone(full));
    const char *number = virt ? virt.get() : full;

    const char *fields[] = {kExpiresField, kReachableField};
    char **values = nullptr;
    size_t entries = 0;
    qx::cache::cache_hmget(SITE(), kVolatile, 2, fields, qx::format(kSipSessionKey, number),
                           &values, &entries);
    if (values) {
        const char *expires = values[0];
        const char *reachable = values[1];
        time_t until = 0;
        if (expires && reachable && redis_str2time(expires, &until) == 0 &&
            std::time(nullptr) < until && std::strlen(reachable) > 2 &&
            std::strncmp(reachable, kReachableYes, 3) == 0) {
            expired = 0;
        }
        rget_free_vals(2, values);
    }
    return expired;
} catch (...) {
    return 1;
}

int redis_str2time(const char *text, time_t *out) {
    if (!text || !out) return -1;
    struct tm parts {};
    const char *format = text[0] == '\'' ? kDateQuoted : kDate;
    if (!strptime(text, format, &parts)) return -1;
    parts.tm_isdst = -1;
    *out = timegm(&parts);
    return 0;
}

}  // extern "C"
