/* Database records of stored media files (extension_recording, extension_voicemail,
 * extension_fax_center). */
#ifndef ZARN_DB_FILES_H
#define ZARN_DB_FILES_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qx_db_file {
    unsigned long long id;
    long long filesize;
    char *ext;
    char *filename; /* may be NULL */
    char *se;       /* may be NULL */
    char *az;       /* may be NULL */
} qx_db_file;

typedef struct qx_db_file_list {
    qx_db_file *files;
    unsigned long long count;
} qx_db_file_list;

/* Fill *list (reused after a reset, or allocated); record count, or -1. */
long long qx_list_db_files(const char *table, int extension_id, const char *folder,
                           const char *order_by, qx_db_file_list **list);
long long qx_parse_db_files(const char *table, const char *names, qx_db_file_list **list);
long long qx_count_db_files(const char *table, int extension_id, const char *folder);
void qx_reset_db_files(qx_db_file_list *list);
void qx_release_db_files(qx_db_file_list **list);
int qx_delete_db_file(const char *table, unsigned long long id);
int qx_db_file_set_meta(const char *table, unsigned long long id, const char *column,
                        const char *value);
unsigned long qx_db_file_creation_timestamp(const char *table, unsigned long long id,
                                            const char *column);
int qx_get_db_recording(const char *call_id, const char *flow, const char *full_number);
/* SUM(filesize) of one account's files by level (100, 50, 10, 0); 0 for NULL/no row or other
 * levels; -1 on failure. */
long long qx_get_db_files_quota(const char *table, int level, const char *account_id);

#ifdef __cplusplus
}
#endif

#endif
