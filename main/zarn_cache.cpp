// Read-through layer between the platform's lookups, the DisDB cache and MySQL.
//
// A lookup reads its field from a cache hash; on a miss it asks the database once and writes
// the answer back, including the negative answers: an absent row as "_NR_" and an SQL NULL as
// "_NL_", so that a lookup that found nothing does not reach the database again. Markers are
// turned into NULL on the way out unless the caller asks to see them. Cache failures never
// stop a lookup: a failed read is a miss and a failed write is only logged.
#include "zarn_cache.h"
#include "zarn_cache.hpp"

#include <strings.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "sql_util.hpp"
#include "zarn_base.h"
#include "zarn_velkan.h"

namespace {

using qx::cache::Site;

constexpr char kSource[] = "../main/zarn_cache";
constexpr int kChannel = 3;
constexpr int kDebug = 7;

constexpr char kNoRows[] = CACHE_NOROWS;
constexpr char kNullValue[] = CACHE_NULL;
constexpr char kNullText[] = "(null)";
// Status reported when the cache client could not be created.
constexpr int kNoClient = 1;
// The read calls' trailing arguments, as the platform has always passed them.
constexpr char kReadPrefix[] = "";
constexpr int kReadFlags = 1;

constexpr char kMsgCondition[] = "%s:%d:condition failed\n";
constexpr char kMsgMysql[] = "../main/zarn_cache:%s:%d -MySQL error: %s\n";
constexpr char kMsgGetError[] = "%s:%d:rget_hash_str(%s,%s): error %s\n\n";
constexpr char kMsgGet[] = "%s:%d:rget_hash_str(%s,%s): %s\n\n";
constexpr char kMsgSetRefused[] =
    "%s:%d:rset_hash_str(%s,%s,%s): error Trying to add NOROWS to nonexistent hash\n\n";
constexpr char kMsgSetError[] = "%s:%d:rset_hash_str(%s,%s,%s): error %s\n\n";
constexpr char kMsgSet[] = "%s:%d:rset_hash_str(%s,%s,%s): success\n\n";
constexpr char kMsgExists[] = "%s:%d:cache_exists(%s): %d\n\n";
constexpr char kMsgHsetError[] = "%s:%d:cache_hset(%s,%.*s,%.*s): error %s\n\n";
constexpr char kMsgHset[] = "%s:%d:cache_hset(%s,%.*s,%.*s): success\n\n";
constexpr char kMsgHgetallError[] = "%s:%d:cache_hgetall(%s): error %s\n\n";
constexpr char kMsgHgetall[] = "%s:%d:cache_hgetall(%s): %zuX\n\n";
constexpr char kMsgGetallError[] = "%s:%d:rgetall_hash_comma(%s): error %s\n\n";
constexpr char kMsgGetall[] = "%s:%d:rgetall_hash_comma(%s): %d memberss\n\n";
constexpr char kMsgHmgetError[] = "%s:%d:cache_hmget(%s,%zuX): error %s\n\n";
constexpr char kMsgHmget[] = "%s:%d:cache_hmget(%s,%zuX): %zu entries retrieved\n\n";
constexpr char kMsgMgetError[] = "%s:%d:rmget_hash(%s,X%d): error %s\n\n";
constexpr char kMsgMget[] = "%s:%d:rmget_hash(%s,X%d): success\n\n";
constexpr char kMsgHmsetError[] = "%s:%d:cache_hmset(%s,%zuX): error %s\n\n";
constexpr char kMsgHmset[] = "%s:%d:cache_hmset(%s,%zuX): success\n\n";
constexpr char kMsgMsetError[] = "%s:%d:rmset_hash(%s,X%d): error %s\n\n";
constexpr char kMsgMset[] = "%s:%d:rmset_hash(%s,X%d): success\n\n";

// Every message of this layer repeats its source file and line at its start.
#define CACHE_LOG(fmt, ...) FR_LOG(kSource, kChannel, kDebug, fmt, kSource, __LINE__, __VA_ARGS__)
#define CACHE_CONDITION_FAILED() FR_LOG(kSource, kChannel, kDebug, kMsgCondition, kSource, __LINE__)
// As CACHE_LOG, but reported from *at when a lookup of another module made the call.
#define CACHE_LOG_AT(at, fmt, ...)                                                           \
    do {                                                                                     \
        const Site site_ = (at) ? *(at) : Site{kSource, __func__, __LINE__};                 \
        if (kDebug <= fr_log_threshold)                                                      \
            fr_log_impl(site_.src, site_.line, site_.func, kChannel, kDebug, fmt, site_.src, \
                        site_.line, __VA_ARGS__);                                            \
    } while (0)

// The process-wide cache client: created by the first operation that needs it, never torn down.
vk_client_t *g_cache = nullptr;

const char *text_or_null(const char *s) {
    return s ? s : kNullText;
}

bool is_marker(const char *value, const char *marker) {
    return value && std::strcmp(value, marker) == 0;
}

std::optional<std::string> vformat_key(const char *fmt, va_list ap) {
    if (!fmt) return std::nullopt;
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0) return std::nullopt;
    std::string out(static_cast<size_t>(n), '\0');
    std::vsnprintf(out.data(), out.size() + 1, fmt, ap);
    return out;
}

// One argument of a key or statement format that comes from a table or a caller at run time.
struct Arg {
    const char *text = nullptr;  // used when is_int is false
    long long number = 0;
    bool is_int = false;

    static Arg str(const char *s) { return {s, 0, false}; }
    static Arg integer(long long n) { return {nullptr, n, true}; }
};

// Appends one value through a conversion built by format_args from flags, width and precision.
template <class T>
void append_printf(std::string &out, const std::string &conversion, T value) {
    const int n = std::snprintf(nullptr, 0, conversion.c_str(), value);
    if (n <= 0) return;
    const size_t at = out.size();
    out.resize(at + static_cast<size_t>(n));
    std::snprintf(out.data() + at, static_cast<size_t>(n) + 1, conversion.c_str(), value);
}

// printf for formats that are data (binding tables, statements handed in by callers): each
// %s/%d-style conversion takes the next argument, "%%" is a percent sign, and a conversion
// that has no argument left or is of another kind is copied as it stands, so a malformed
// format can never read beyond the arguments given.
std::string format_args(const char *fmt, std::initializer_list<Arg> args) {
    std::string out;
    if (!fmt) return out;
    auto next = args.begin();
    const std::string_view f(fmt);
    size_t i = 0;
    while (i < f.size()) {
        const size_t pct = f.find('%', i);
        out.append(f.substr(i, pct == std::string_view::npos ? std::string_view::npos : pct - i));
        if (pct == std::string_view::npos) break;
        if (pct + 1 < f.size() && f[pct + 1] == '%') {
            out += '%';
            i = pct + 2;
            continue;
        }
        size_t j = pct + 1;
        while (j < f.size() && std::strchr("-+ #0", f[j]))
            ++j;
        while (j < f.size() && f[j] >= '0' && f[j] <= '9')
            ++j;
        if (j < f.size() && f[j] == '.') {
            ++j;
            while (j < f.size() && f[j] >= '0' && f[j] <= '9')
                ++j;
        }
        const size_t flags_end = j;
        while (j < f.size() && std::strchr("hlqjzt", f[j]))
            ++j;
        const char conv = j < f.size() ? f[j] : '\0';
        const bool known = conv == 's' || conv == 'd' || conv == 'i' || conv == 'u';
        if (!known || next == args.end()) {
            out.append(f.substr(pct, j < f.size() ? j + 1 - pct : std::string_view::npos));
            i = j + 1;
            continue;
        }
        const Arg &a = *next++;
        std::string conversion(f.substr(pct, flags_end - pct));
        if (conv == 's') {
            const std::string text = a.is_int ? std::to_string(a.number) : text_or_null(a.text);
            append_printf(out, conversion + 's', text.c_str());
        } else {
            const long long v = a.is_int ? a.number : (a.text ? std::atoi(a.text) : 0);
            append_printf(out, conversion + (conv == 'u' ? "llu" : "lld"), v);
        }
        i = j + 1;
    }
    return out;
}

// Backslash before every backslash, double quote and single quote.
std::string sql_escape(const char *s) {
    std::string out;
    for (; *s; ++s) {
        if (*s == '\\' || *s == '"' || *s == '\'') out += '\\';
        out += *s;
    }
    return out;
}

// The handle is replaced at run time by the storage module's re-initialisation (which never
// frees a client it replaces), so every read and write of it is atomic; the lock hooks are
// empty by design and cannot order them.
vk_client_t *current_client() {
    return std::atomic_ref<vk_client_t *>(g_cache).load(std::memory_order_acquire);
}

// Two threads must not both create the client: one of the two would be lost half in use.
std::mutex g_create_lock;

void ensure_client() {
    if (current_client()) return;
    std::lock_guard<std::mutex> lock(g_create_lock);
    ast_cache_wrlock();
    if (!current_client()) {
        vk_client_t *fresh = nullptr;
        ast_vk_init(&fresh);
        if (fresh) std::atomic_ref<vk_client_t *>(g_cache).store(fresh, std::memory_order_release);
    }
    ast_cache_unlock();
}

// Runs one library call on the handle chosen by persistent, inside the read section.
template <class F>
int with_handle(int persistent, F &&call) {
    ensure_client();
    ast_cache_rdlock();
    vk_client_t *client = current_client();
    const int rc = client ? call(persistent ? client : vk_client_secondary(client)) : kNoClient;
    ast_cache_unlock();
    return rc;
}

// Hands a vector of owned strings over as a malloc array (NULL slots stay NULL).
char **to_c_array(std::vector<qx::CStr> &values) {
    auto **arr =
        static_cast<char **>(std::calloc(values.empty() ? 1 : values.size(), sizeof(char *)));
    if (!arr) return nullptr;
    for (size_t i = 0; i < values.size(); ++i)
        arr[i] = values[i].release();
    return arr;
}

// The single cache operations, each with its diagnostic, on an already formatted key.
namespace op {

int rget_hash_str(int persistent, const char *field, const std::string &key, char **value,
                  const Site *at = nullptr) {
    *value = nullptr;
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hget_whole(h, key.data(), key.size(), field, field ? std::strlen(field) : 0,
                             value, nullptr, kReadPrefix, kReadFlags);
    });
    if (rc != 0) {
        CACHE_LOG_AT(at, kMsgGetError, key.c_str(), text_or_null(field), vk_strerror(rc));
        std::free(*value);
        *value = nullptr;
    } else {
        CACHE_LOG_AT(at, kMsgGet, key.c_str(), text_or_null(field), text_or_null(*value));
    }
    return rc;
}

int cache_exists(const std::string &key) {
    ensure_client();
    ast_cache_rdlock();
    // Existence is always asked on the persistent handle; without a client the answer is
    // "exists", so that the write is attempted and its own failure is logged.
    vk_client_t *client = current_client();
    const int rc = client ? vk_exists(client, key.data(), key.size()) : kNoClient;
    ast_cache_unlock();
    CACHE_LOG(kMsgExists, key.c_str(), rc);
    return rc;
}

// 0 written, -1 refused by the NOROWS guard, else the library's status.
int rset_hash_str(int persistent, const char *field, const char *value, const std::string &key,
                  const Site *at = nullptr) {
    if (check_add_norows_to_missing_persistent(key.c_str(), persistent, value) != 0) {
        CACHE_LOG_AT(at, kMsgSetRefused, key.c_str(), text_or_null(field), text_or_null(value));
        return -1;
    }
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hset(h, key.data(), key.size(), field, field ? std::strlen(field) : 0, value,
                       value ? std::strlen(value) : 0, persistent);
    });
    if (rc != 0)
        CACHE_LOG_AT(at, kMsgSetError, key.c_str(), text_or_null(field), text_or_null(value),
                     vk_strerror(rc));
    else
        CACHE_LOG_AT(at, kMsgSet, key.c_str(), text_or_null(field), text_or_null(value));
    return rc;
}

int cache_hset(int persistent, const char *field, size_t field_len, const char *value,
               size_t value_len, const std::string &key, const Site *at = nullptr) {
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hset(h, key.data(), key.size(), field, field_len, value, value_len, persistent);
    });
    const char *f = field ? field : kNullText;
    const int flen = field ? static_cast<int>(field_len) : static_cast<int>(sizeof kNullText - 1);
    const char *v = value ? value : kNullText;
    const int vlen = value ? static_cast<int>(value_len) : static_cast<int>(sizeof kNullText - 1);
    if (rc != 0)
        CACHE_LOG_AT(at, kMsgHsetError, key.c_str(), flen, f, vlen, v, vk_strerror(rc));
    else
        CACHE_LOG_AT(at, kMsgHset, key.c_str(), flen, f, vlen, v);
    return rc;
}

int cache_hmget(int persistent, size_t n, const char **fields, const std::string &key,
                char ***values, size_t *entries, const Site *at = nullptr) {
    std::vector<size_t> lens(n);
    for (size_t i = 0; i < n; ++i)
        lens[i] = fields[i] ? std::strlen(fields[i]) : 0;
    void *buffer = nullptr;
    *values = nullptr;
    *entries = 0;
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hmget_whole(h, key.data(), key.size(), fields, n, lens.data(), values, entries,
                              &buffer, kReadPrefix, kReadFlags);
    });
    std::free(buffer);
    if (rc != 0)
        CACHE_LOG_AT(at, kMsgHmgetError, key.c_str(), n, vk_strerror(rc));
    else
        CACHE_LOG_AT(at, kMsgHmget, key.c_str(), n, *entries);
    return rc;
}

// Always a count-slot array (all NULL when the read failed: a failed read is a miss), or NULL
// when memory ran out.
char **rmget_hash(int persistent, int count, const char **fields, const std::string &key) {
    char **values = nullptr;
    size_t entries = 0;
    const int rc =
        cache_hmget(persistent, static_cast<size_t>(count), fields, key, &values, &entries);
    if (rc != 0)
        CACHE_LOG(kMsgMgetError, key.c_str(), count, vk_strerror(rc));
    else
        CACHE_LOG(kMsgMget, key.c_str(), count);
    if (rc != 0 || !values) {
        rget_free_vals(count, values);
        values = static_cast<char **>(std::calloc(static_cast<size_t>(count), sizeof(char *)));
    }
    return values;
}

int cache_hgetall_whole(int persistent, const std::string &key, size_t *count, char ***values) {
    void *buffer = nullptr;
    *count = 0;
    *values = nullptr;
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hgetall_whole(h, key.data(), key.size(), count, values, &buffer, 0, 0,
                                kReadPrefix, kReadFlags);
    });
    std::free(buffer);
    if (rc != 0)
        CACHE_LOG(kMsgHgetallError, key.c_str(), vk_strerror(rc));
    else
        CACHE_LOG(kMsgHgetall, key.c_str(), *count);
    return rc;
}

int cache_hgetall(int persistent, const std::string &key, size_t *count, char ***fields,
                  char ***values) {
    *count = 0;
    *fields = nullptr;
    *values = nullptr;
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hgetall(h, key.data(), key.size(), count, fields, values, 0, 0);
    });
    if (rc != 0)
        CACHE_LOG(kMsgHgetallError, key.c_str(), vk_strerror(rc));
    else
        CACHE_LOG(kMsgHgetall, key.c_str(), *count);
    return rc;
}

}  // namespace op

// Steps 2 to 6 of a single-value read-through on a formatted key; statement is formatted
// only on a miss. caller names the public function in the MySQL error message.
char *read_through(const char *caller, int persistent, const char *field, const std::string &key,
                   const char *sql_fmt, Arg arg, int keep_markers) {
    qx::CStr value;
    {
        char *cached = nullptr;
        op::rget_hash_str(persistent, field, key, &cached);
        value.reset(cached);
    }
    if (!value) {
        qx::SessionGuard sess;
        if (!sess) {
            CACHE_CONDITION_FAILED();
        } else {
            // A failed statement caches the absent-row marker like an empty result, so a
            // broken query does not hammer the database on every call.
            value.reset(qx::c_copy(kNoRows));
            const std::string statement = format_args(sql_fmt, {arg});
            MYSQL_RES *raw = nullptr;
            const int q = fr_sql_conn_query(sess.get(), 1, &raw, "%s", statement.c_str());
            qx::Result result(raw);
            if (q != 0) {
                FR_LOG(kSource, kChannel, kDebug, kMsgMysql, caller, __LINE__, sess.error());
            } else if (result && mysql_num_rows(result.get()) > 0) {
                if (MYSQL_ROW row = mysql_fetch_row(result.get()))
                    value.reset(qx::c_copy(row[0] ? row[0] : kNullValue));
            }
            op::rset_hash_str(persistent, field, value.get(), key);
        }
    }
    char *out = value.release();
    filter_cache_return(&out, keep_markers);
    return out;
}

struct KeyArg {
    enum { kNone, kInt, kText } kind = kNone;
    int number = 0;
    const char *text = nullptr;

    std::string key(const char *key_format) const {
        switch (kind) {
            case kInt:
                return format_args(key_format, {Arg::integer(number)});
            case kText:
                return format_args(key_format, {Arg::str(text)});
            default:
                return format_args(key_format, {});
        }
    }
};

std::optional<std::vector<qx::CStr>> multi_read_through(int nbindings, const cache_binding *table,
                                                        int count, const char **names,
                                                        const char *sql_fmt, const char *arg,
                                                        int numeric_arg, int column_mode) {
    const size_t n = static_cast<size_t>(count);
    std::vector<qx::CStr> values(n);
    std::vector<const cache_binding *> bindings(n);
    std::vector<const char *> fields(n);
    std::vector<bool> from_db(n);
    for (size_t i = 0; i < n; ++i) {
        bindings[i] = get_binding(nbindings, table, names[i]);
        if (bindings[i]) fields[i] = bindings[i]->field;
    }

    KeyArg key_arg;
    if (arg && numeric_arg) {
        key_arg.kind = KeyArg::kInt;
        key_arg.number = std::atoi(arg);
    } else if (arg) {
        key_arg.kind = KeyArg::kText;
        key_arg.text = arg;
    }

    // Names that share a key format are read in one multi-field read. A name without binding
    // is never cached and always asked from the database.
    for (size_t i = 0; i < n;) {
        if (!bindings[i]) {
            ++i;
            continue;
        }
        const char *format = bindings[i]->key_format;
        size_t end = i + 1;
        while (end < n && bindings[end] && format && bindings[end]->key_format &&
               std::strcmp(bindings[end]->key_format, format) == 0)
            ++end;
        const int run = static_cast<int>(end - i);
        char **got = op::rmget_hash(bindings[i]->persistent, run, &fields[i], key_arg.key(format));
        if (got) {
            for (int k = 0; k < run; ++k)
                values[i + static_cast<size_t>(k)].reset(got[k]);
            std::free(got);
        }
        i = end;
    }

    std::string missing;
    for (size_t i = 0; i < n; ++i) {
        if (values[i]) continue;
        if (!missing.empty()) missing += ',';
        if (column_mode) {
            missing += text_or_null(names[i]);
        } else {
            missing += '\'';
            missing += text_or_null(names[i]);
            missing += '\'';
        }
    }
    if (missing.empty()) return values;

    const std::string escaped = arg ? sql_escape(arg) : std::string();
    std::string statement;
    if (!arg)
        statement = format_args(sql_fmt, {Arg::str(missing.c_str())});
    else if (column_mode)
        statement = format_args(sql_fmt, {Arg::str(missing.c_str()), Arg::str(escaped.c_str())});
    else
        statement = format_args(sql_fmt, {Arg::str(escaped.c_str()), Arg::str(missing.c_str())});

    qx::SessionGuard sess;
    if (!sess) {
        CACHE_CONDITION_FAILED();
        return std::nullopt;
    }
    MYSQL_RES *raw = nullptr;
    const int q = fr_sql_conn_query(sess.get(), 1, &raw, "%s", statement.c_str());
    qx::Result result(raw);
    if (q != 0) {
        FR_LOG(kSource, kChannel, kDebug, kMsgMysql, "drmget_hash", __LINE__, sess.error());
        return std::nullopt;
    }
    if (!result) {
        CACHE_CONDITION_FAILED();
        return std::nullopt;
    }

    std::vector<bool> asked(n);
    for (size_t i = 0; i < n; ++i)
        asked[i] = !values[i];
    auto take = [&](size_t slot, const char *column) {
        values[slot].reset(qx::c_copy(column ? column : kNullValue));
        from_db[slot] = true;
    };

    if (column_mode) {
        if (mysql_num_rows(result.get()) > 0) {
            if (MYSQL_ROW row = mysql_fetch_row(result.get())) {
                const unsigned columns = mysql_num_fields(result.get());
                unsigned c = 0;
                for (size_t i = 0; i < n && c < columns; ++i)
                    if (asked[i]) take(i, row[c++]);
            }
        } else {
            for (size_t i = 0; i < n; ++i)
                if (asked[i]) take(i, kNoRows);
        }
    } else {
        // Rows are (parameter, value); a parameter is matched exactly as it was asked. A row
        // that matches no name asked is ignored.
        while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
            if (!row[0] || mysql_num_fields(result.get()) < 2) continue;
            for (size_t i = 0; i < n; ++i) {
                if (asked[i] && names[i] && std::strcmp(names[i], row[0]) == 0) {
                    take(i, row[1]);
                    break;
                }
            }
        }
        for (size_t i = 0; i < n; ++i)
            if (!values[i]) take(i, kNoRows);
    }

    for (size_t i = 0; i < n; ++i) {
        if (!from_db[i] || !bindings[i]) continue;
        op::rset_hash_str(bindings[i]->persistent, bindings[i]->field, values[i].get(),
                          key_arg.key(bindings[i]->key_format));
    }
    return values;
}

}  // namespace

extern "C" {

void ast_cache_rdlock(void) {}
void ast_cache_wrlock(void) {}
void ast_cache_unlock(void) {}

vk_client_t **ast_cache_handle(void) {
    return &g_cache;
}

char *rgetall_hash_comma(int persistent, const char *key_fmt, ...) try {
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return nullptr;

    size_t count = 0;
    char **values = nullptr;
    const int rc = op::cache_hgetall_whole(persistent, *key, &count, &values);
    std::vector<qx::CStr> owned(count);
    for (size_t i = 0; i < count && values; ++i)
        owned[i].reset(values[i]);
    std::free(values);
    if (rc != 0) {
        CACHE_LOG(kMsgGetallError, key->c_str(), vk_strerror(rc));
        return nullptr;
    }
    CACHE_LOG(kMsgGetall, key->c_str(), static_cast<int>(count));
    if (count == 0) return nullptr;
    std::string joined;
    for (size_t i = 0; i < count; ++i) {
        if (i) joined += ',';
        if (owned[i]) joined += owned[i].get();
    }
    return qx::c_copy(joined);
} catch (...) {
    return nullptr;
}

char **rmget_hash(int persistent, int count, const char **fields, const char *key_fmt, ...) try {
    if (count <= 0 || !fields || !key_fmt) return nullptr;
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return nullptr;
    return op::rmget_hash(persistent, count, fields, *key);
} catch (...) {
    return nullptr;
}

void rget_free_vals(int count, char **vals) {
    if (!vals) return;
    for (int i = 0; i < count; ++i)
        std::free(vals[i]);
    std::free(vals);
}

int rmset_hash(int persistent, int count, const char **fields, const char **values,
               const char *key_fmt, ...) try {
    if (count < 0 || !fields || !values || !key_fmt) return -1;
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return -1;
    if (count == 0) return 0;

    const size_t n = static_cast<size_t>(count);
    std::vector<size_t> field_lens(n), value_lens(n);
    for (size_t i = 0; i < n; ++i) {
        field_lens[i] = fields[i] ? std::strlen(fields[i]) : 0;
        value_lens[i] = values[i] ? std::strlen(values[i]) : 0;
    }
    const int rc = with_handle(persistent, [&](vk_client_t *h) {
        return vk_hmset(h, key->data(), key->size(), fields, n, field_lens.data(), values,
                        value_lens.data(), persistent);
    });
    if (rc != 0) {
        CACHE_LOG(kMsgHmsetError, key->c_str(), n, vk_strerror(rc));
        CACHE_LOG(kMsgMsetError, key->c_str(), count, vk_strerror(rc));
    } else {
        CACHE_LOG(kMsgHmset, key->c_str(), n);
        CACHE_LOG(kMsgMset, key->c_str(), count);
    }
    // A lost write is only logged: the data is still in the database and callers go on.
    return 0;
} catch (...) {
    return -1;
}

int compare_entries(const void *a, const void *b) {
    const char *x = static_cast<const cache_binding *>(a)->name;
    const char *y = static_cast<const cache_binding *>(b)->name;
    return strcasecmp(x ? x : "", y ? y : "");
}

const cache_binding *get_binding(int rows, const cache_binding *table, const char *name) {
    if (rows <= 0 || !table || !name) return nullptr;
    cache_binding probe{name, nullptr, 0, nullptr};
    return static_cast<const cache_binding *>(
        std::bsearch(&probe, table, static_cast<size_t>(rows), sizeof *table, compare_entries));
}

char *drget_hash(int persistent, const char *field, const char *sql_fmt, const char *key_fmt,
                 const char *arg, int keep_markers) try {
    if (!arg || !field || !sql_fmt || !key_fmt) {
        CACHE_CONDITION_FAILED();
        return nullptr;
    }
    return read_through(__func__, persistent, field, format_args(key_fmt, {Arg::str(arg)}), sql_fmt,
                        Arg::str(arg), keep_markers);
} catch (...) {
    return nullptr;
}

char *drget_hash_by_id(int persistent, const char *field, const char *sql_fmt, const char *key_fmt,
                       int id, int keep_markers) try {
    if (id <= 0 || !field || !sql_fmt || !key_fmt) {
        CACHE_CONDITION_FAILED();
        return nullptr;
    }
    return read_through(__func__, persistent, field, format_args(key_fmt, {Arg::integer(id)}),
                        sql_fmt, Arg::integer(id), keep_markers);
} catch (...) {
    return nullptr;
}

char **drmget_hash(int nbindings, const cache_binding *table, int count, const char **names,
                   const char *sql_fmt, const char *arg, int numeric_arg, int column_mode,
                   int keep_markers) try {
    if (nbindings == 0 || !table || count < 0 || !names) return nullptr;
    if (count == 0 || !sql_fmt) return nullptr;
    auto values =
        multi_read_through(nbindings, table, count, names, sql_fmt, arg, numeric_arg, column_mode);
    if (!values) return nullptr;
    char **out = to_c_array(*values);
    if (out)
        for (int i = 0; i < count; ++i)
            filter_cache_return(&out[i], keep_markers);
    return out;
} catch (...) {
    return nullptr;
}

int check_add_norows_to_missing_persistent(const char *key, int persistent, const char *value) try {
    if (persistent || !is_marker(value, kNoRows)) return 0;
    if (!key) return 1;
    // An absent-row marker may only join a hash that already exists: a hash holding nothing
    // but markers would outlive the rows it was meant to stand for.
    return op::cache_exists(std::string(key)) == 0 ? 1 : 0;
} catch (...) {
    return 1;
}

void filter_cache_return(char **value, int keep_markers) {
    if (!value || !*value) return;
    if (!(keep_markers & CACHE_KEEP_NULL) && is_marker(*value, kNullValue)) {
        std::free(*value);
        *value = nullptr;
        return;
    }
    if (!(keep_markers & CACHE_KEEP_NOROWS) && is_marker(*value, kNoRows)) {
        std::free(*value);
        *value = nullptr;
    }
}

int rget_hash_str(int persistent, const char *field, char **value, const char *key_fmt, ...) try {
    if (!value) return VK_EINVAL;
    *value = nullptr;
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return VK_EINVAL;
    return op::rget_hash_str(persistent, field, *key, value);
} catch (...) {
    return VK_ENOMEM;
}

int rset_hash_str(int persistent, const char *field, const char *value, const char *key_fmt,
                  ...) try {
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return VK_EINVAL;
    return op::rset_hash_str(persistent, field, value, *key);
} catch (...) {
    return VK_ENOMEM;
}

int cache_hset(int persistent, const char *field, size_t field_len, const char *value,
               size_t value_len, const char *key_fmt, ...) try {
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return VK_EINVAL;
    return op::cache_hset(persistent, field, field_len, value, value_len, *key);
} catch (...) {
    return VK_ENOMEM;
}

int cache_hgetall(int persistent, size_t *count, char ***fields, char ***values,
                  const char *key_fmt, ...) try {
    if (!count || !fields || !values) return VK_EINVAL;
    *count = 0;
    *fields = nullptr;
    *values = nullptr;
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return VK_EINVAL;
    const int rc = op::cache_hgetall(persistent, *key, count, fields, values);
    // Callers tell a hash that is not there from one that is; an empty read is no hash.
    if (rc == 0 && *count == 0) return -1;
    return rc;
} catch (...) {
    return VK_ENOMEM;
}

int cache_hmget(int persistent, size_t n, const char **fields, char ***values, size_t *entries,
                const char *key_fmt, ...) try {
    size_t unused = 0;
    if (!entries) entries = &unused;
    if (!values) return VK_EINVAL;
    *values = nullptr;
    *entries = 0;
    if (!fields || n == 0) return VK_EINVAL;
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return VK_EINVAL;
    return op::cache_hmget(persistent, n, fields, *key, values, entries);
} catch (...) {
    return VK_ENOMEM;
}

int cache_zaddval(int persistent, double score, const char *member, const char *key_fmt, ...) try {
    if (!member) return VK_EINVAL;
    va_list ap;
    va_start(ap, key_fmt);
    const auto key = vformat_key(key_fmt, ap);
    va_end(ap);
    if (!key) return VK_EINVAL;
    return with_handle(persistent, [&](vk_client_t *h) {
        return vk_zaddval(h, key->data(), key->size(), score, member, std::strlen(member),
                          kNullValue, sizeof kNullValue - 1);
    });
} catch (...) {
    return VK_ENOMEM;
}

}  // extern "C"

namespace qx::cache {

int rget_hash_str(const Site &site, int persistent, const char *field, const std::string &key,
                  char **value) {
    if (!value) return VK_EINVAL;
    try {
        return op::rget_hash_str(persistent, field, key, value, &site);
    } catch (...) {
        return VK_ENOMEM;
    }
}

int rset_hash_str(const Site &site, int persistent, const char *field, const char *value,
                  const std::string &key) {
    try {
        return op::rset_hash_str(persistent, field, value, key, &site);
    } catch (...) {
        return VK_ENOMEM;
    }
}

int cache_hset(const Site &site, int persistent, const char *field, size_t field_len,
               const char *value, size_t value_len, const std::string &key) {
    try {
        return op::cache_hset(persistent, field, field_len, value, value_len, key, &site);
    } catch (...) {
        return VK_ENOMEM;
    }
}

int cache_hmget(const Site &site, int persistent, size_t n, const char **fields,
                const std::string &key, char ***values, size_t *entries) {
    size_t unused = 0;
    if (!entries) entries = &unused;
    if (!values) return VK_EINVAL;
    *values = nullptr;
    *entries = 0;
    if (!fields || n == 0) return VK_EINVAL;
    try {
        return op::cache_hmget(persistent, n, fields, key, values, entries, &site);
    } catch (...) {
        return VK_ENOMEM;
    }
}

}  // namespace qx::cache
