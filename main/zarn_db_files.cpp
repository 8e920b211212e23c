// Database records of stored media files. One set of functions serves the recording, voicemail
// and fax tables: the table is always the caller's argument and is put into the statements as
// given, like every other argument here (the callers pass ids and names they built themselves).
#include "zarn_db_files.h"

#include <strings.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "cxx_util.hpp"
#include "sql_util.hpp"
#include "zarn_base.h"

namespace {

constexpr char kSrc[] = "../main/zarn_db_files";
constexpr int kChannel = 3;
constexpr int kDebug = 7;

constexpr char kMsgCondition[] = "%s:%d:condition failed\n";
constexpr char kMsgMysql[] = "../main/zarn_db_files:%s:%d -MySQL error: %s\n";

constexpr char kSqlList[] = "SELECT id,filesize,%s,%s,se,az FROM %s WHERE extension_id=%d %s";
constexpr char kSuffixFolderOrder[] = " AND folder='%s' ORDER BY %s";
constexpr char kSuffixOrder[] = " ORDER BY %s";
constexpr char kSuffixFolder[] = " AND folder='%s'";
constexpr char kSqlParse[] =
    "SELECT filesize, filename, se, az FROM %s WHERE id in (%s)ORDER BY FIELD(id, %s)";
constexpr char kSqlCountFolder[] =
    "SELECT COUNT(*) FROM %s WHERE extension_id='%d' AND folder='%s'";
constexpr char kSqlCount[] = "SELECT COUNT(*) FROM %s WHERE extension_id='%d'";
constexpr char kSqlDelete[] = "DELETE FROM %s WHERE id='%llu' ";
constexpr char kSqlSetMeta[] = "UPDATE %s SET %s='%s' WHERE id='%llu' ";
constexpr char kSqlCreated[] = "SELECT UNIX_TIMESTAMP(%s) FROM %s WHERE id=%llu";
constexpr char kSqlRecording[] =
    "SELECT rid from extension_recording, extension where extension_recording.extension_id = "
    "extension.id and callid = '%s' and flow = '%s' and extension.extended_number='%s' order by "
    "rid desc limit 1";

constexpr char kSqlQuotaUser[] =
    "SELECT SUM(er.filesize) FROM %s as er, extension as e WHERE e.id=er.extension_id and "
    "e.client_id='%s'";
constexpr char kSqlQuotaClient[] =
    "SELECT SUM(er.filesize) FROM %s as er, extension as e, client as c WHERE "
    "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id='%s'";
constexpr char kSqlQuotaReseller[] =
    "SELECT SUM(er.filesize) FROM %s as er, extension as e, client as c, client as cc WHERE "
    "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id=cc.id and "
    "cc.parent_client_id='%s'";
constexpr char kSqlQuotaRoot[] = "SELECT SUM(er.filesize) FROM %s";

// Faxes are always PDF and name their file column differently.
constexpr char kFaxTable[] = "extension_fax_center";
constexpr char kFaxExtColumn[] = "\"pdf\"";
constexpr char kFaxNameColumn[] = "file_name";
constexpr char kExtColumn[] = "ext";
constexpr char kNameColumn[] = "filename";

#define DBF_CONDITION_FAILED() FR_LOG(kSrc, kChannel, kDebug, kMsgCondition, kSrc, __LINE__)
#define DBF_MYSQL_ERROR(sess) \
    FR_LOG(kSrc, kChannel, kDebug, kMsgMysql, __func__, __LINE__, (sess).error())

char *copy_or_null(const char *s) {
    return s ? qx::c_copy(s) : nullptr;
}

// Reuses the caller's list (emptied) or hangs a new empty one on the pointer.
qx_db_file_list *prepare_list(qx_db_file_list **list) {
    if (*list) {
        qx_reset_db_files(*list);
        return *list;
    }
    auto *fresh = static_cast<qx_db_file_list *>(std::calloc(1, sizeof(qx_db_file_list)));
    *list = fresh;
    return fresh;
}

// Record array of n zeroed slots, so a reset after a partial fill frees only what was set.
bool allocate_records(qx_db_file_list *l, unsigned long long n) {
    if (n == 0) return true;
    l->files = static_cast<qx_db_file *>(std::calloc(n, sizeof(qx_db_file)));
    return l->files != nullptr;
}

// Runs one statement on the session. The MySQL error is logged by the caller, so that the
// message names the caller's own function and line.
bool run_statement(qx::SessionGuard &sess, const std::string &statement, qx::Result *res) {
    MYSQL_RES *raw = nullptr;
    const int rc = fr_sql_conn_query(sess.get(), 1, &raw, "%s", statement.c_str());
    res->reset(raw);
    return rc == 0;
}

// First column of the first row; nullptr when there is no row or the column is NULL.
const char *first_column(const qx::Result &res) {
    MYSQL_ROW row = mysql_fetch_row(res.get());
    return row ? row[0] : nullptr;
}

}  // namespace

extern "C" {

void qx_reset_db_files(qx_db_file_list *list) {
    if (!list) return;
    if (list->files) {
        for (unsigned long long i = 0; i < list->count; ++i) {
            qx_db_file &f = list->files[i];
            std::free(f.ext);
            std::free(f.filename);
            std::free(f.se);
            std::free(f.az);
        }
        std::free(list->files);
    }
    list->files = nullptr;
    list->count = 0;
}

void qx_release_db_files(qx_db_file_list **list) {
    if (!list || !*list) return;
    qx_reset_db_files(*list);
    std::free(*list);
    *list = nullptr;
}

long long qx_list_db_files(const char *table, int extension_id, const char *folder,
                           const char *order_by, qx_db_file_list **list) {
    if (!table || !list) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    qx_db_file_list *l = prepare_list(list);
    if (!l) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        std::string suffix;
        if (folder && order_by)
            suffix = qx::format(kSuffixFolderOrder, folder, order_by);
        else if (order_by)
            suffix = qx::format(kSuffixOrder, order_by);
        else if (folder)
            suffix = qx::format(kSuffixFolder, folder);

        const bool fax = strcasecmp(table, kFaxTable) == 0;
        MYSQL_RES *raw = nullptr;
        if (fr_sql_conn_query(sess.get(), 1, &raw, kSqlList, fax ? kFaxExtColumn : kExtColumn,
                              fax ? kFaxNameColumn : kNameColumn, table, extension_id,
                              suffix.c_str()) != 0) {
            DBF_MYSQL_ERROR(sess);
            return -1;
        }
        qx::Result res(raw);
        if (!res) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        const unsigned long long rows = mysql_num_rows(res.get());
        bool allocated = false;
        while (MYSQL_ROW row = mysql_fetch_row(res.get())) {
            if (!allocated) {
                if (!allocate_records(l, rows)) {
                    DBF_CONDITION_FAILED();
                    return -1;
                }
                allocated = true;
            }
            if (l->count >= rows) break;  // never more rows than the result announced
            qx_db_file &f = l->files[l->count++];
            f.id = row[0] ? std::strtoull(row[0], nullptr, 10) : 0;
            f.filesize = row[1] ? std::strtoll(row[1], nullptr, 10) : 0;
            f.ext = copy_or_null(row[2]);
            f.filename = copy_or_null(row[3]);
            f.se = copy_or_null(row[4]);
            f.az = copy_or_null(row[5]);
        }
        return static_cast<long long>(l->count);
    } catch (...) {
        qx_reset_db_files(l);
        return -1;
    }
}

long long qx_parse_db_files(const char *table, const char *names, qx_db_file_list **list) {
    if (!table || !names || !list) return -1;
    qx_db_file_list *l = prepare_list(list);
    if (!l) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    unsigned long long dots = 0;
    for (const char *p = names; *p; ++p)
        if (*p == '.') ++dots;
    // No "id.ext" name at all: nothing to look up (an empty IN () would not even parse).
    if (dots == 0) return 0;
    if (!allocate_records(l, dots)) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    l->count = dots;

    auto fail = [l] {
        qx_reset_db_files(l);
        return -1LL;
    };
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return fail();
        }
        // Each name is "<id>.<ext>", names are separated by single blanks. A name may hold
        // further dots (they end up in its extension), so there are never more names than
        // dots and the walk stays inside the array.
        std::string ids;
        std::string_view rest(names);
        unsigned long long filled = 0;
        while (filled < dots) {
            size_t dot = rest.find('.');
            if (dot == std::string_view::npos) break;
            std::string id(rest.substr(0, dot));
            std::string_view after = rest.substr(dot + 1);
            size_t blank = after.find(' ');
            qx_db_file &f = l->files[filled++];
            f.id = std::strtoull(id.c_str(), nullptr, 10);
            f.ext = qx::c_copy(after.substr(0, blank));
            ids += ids.empty() ? id : ", " + id;
            if (blank == std::string_view::npos) break;
            rest = after.substr(blank + 1);
        }

        MYSQL_RES *raw = nullptr;
        if (fr_sql_conn_query(sess.get(), 1, &raw, kSqlParse, table, ids.c_str(), ids.c_str()) !=
            0) {
            DBF_MYSQL_ERROR(sess);
            return fail();
        }
        qx::Result res(raw);
        if (!res) {
            DBF_CONDITION_FAILED();
            return fail();
        }
        unsigned long long next = 0;
        while (MYSQL_ROW row = mysql_fetch_row(res.get())) {
            if (next >= l->count) break;
            qx_db_file &f = l->files[next++];
            f.filesize = row[0] ? std::strtoll(row[0], nullptr, 10) : 0;
            f.filename = copy_or_null(row[1]);
            f.se = copy_or_null(row[2]);
            f.az = copy_or_null(row[3]);
        }
        return static_cast<long long>(l->count);
    } catch (...) {
        return fail();
    }
}

long long qx_count_db_files(const char *table, int extension_id, const char *folder) {
    if (!table) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        const std::string statement = folder
                                          ? qx::format(kSqlCountFolder, table, extension_id, folder)
                                          : qx::format(kSqlCount, table, extension_id);
        qx::Result res;
        if (!run_statement(sess, statement, &res)) {
            DBF_MYSQL_ERROR(sess);
            return -1;
        }
        if (!res) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        const char *value = first_column(res);
        return value ? std::strtoll(value, nullptr, 10) : 0;
    } catch (...) {
        return -1;
    }
}

int qx_delete_db_file(const char *table, unsigned long long id) {
    if (!table) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        qx::Result res;
        if (!run_statement(sess, qx::format(kSqlDelete, table, id), &res)) {
            DBF_MYSQL_ERROR(sess);
            return -1;
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

int qx_db_file_set_meta(const char *table, unsigned long long id, const char *column,
                        const char *value) {
    if (!table || !column || !value) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        qx::Result res;
        if (!run_statement(sess, qx::format(kSqlSetMeta, table, column, value, id), &res)) {
            DBF_MYSQL_ERROR(sess);
            return -1;
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

unsigned long qx_db_file_creation_timestamp(const char *table, unsigned long long id,
                                            const char *column) {
    if (!table || !column) {
        DBF_CONDITION_FAILED();
        return 0;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return 0;
        }
        qx::Result res;
        if (!run_statement(sess, qx::format(kSqlCreated, column, table, id), &res)) {
            DBF_MYSQL_ERROR(sess);
            return 0;
        }
        if (!res) return 0;
        const char *value = first_column(res);
        return value ? std::strtoul(value, nullptr, 10) : 0;
    } catch (...) {
        return 0;
    }
}

int qx_get_db_recording(const char *call_id, const char *flow, const char *full_number) {
    if (!call_id || !flow || !full_number) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        qx::Result res;
        if (!run_statement(sess, qx::format(kSqlRecording, call_id, flow, full_number), &res)) {
            DBF_MYSQL_ERROR(sess);
            return -1;
        }
        if (!res) return -1;
        const char *value = first_column(res);
        return value ? std::atoi(value) : -1;
    } catch (...) {
        return -1;
    }
}

long long qx_get_db_files_quota(const char *table, int level, const char *account_id) {
    if (level != 100 && level != 50 && level != 10 && level != 0)
        return 0;  // stored files are counted at no other level
    if (!table || (level != 0 && !account_id)) {
        DBF_CONDITION_FAILED();
        return -1;
    }
    try {
        qx::SessionGuard sess;
        if (!sess) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        std::string statement;
        if (level == 100)
            statement = qx::format(kSqlQuotaUser, table, account_id);
        else if (level == 50)
            statement = qx::format(kSqlQuotaClient, table, account_id);
        else if (level == 10)
            statement = qx::format(kSqlQuotaReseller, table, account_id);
        else
            statement = qx::format(kSqlQuotaRoot, table);
        qx::Result res;
        if (!run_statement(sess, statement, &res)) {
            DBF_MYSQL_ERROR(sess);
            return -1;
        }
        if (!res) {
            DBF_CONDITION_FAILED();
            return -1;
        }
        // SUM over no rows is NULL: an account without files uses nothing.
        const char *value = first_column(res);
        return value ? std::strtoll(value, nullptr, 10) : 0;
    } catch (...) {
        return -1;
    }
}

}  // extern "C"
