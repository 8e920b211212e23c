/* Storage of media files (recordings, voicemail, faxes) in the local POSIX store or in S3
 * through the host's transfer service, with reference-counted, thread-shared sessions. */
#ifndef ZARN_STORAGE_H
#define ZARN_STORAGE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Resource types; any other value is "misc". */
#define QX_STORAGE_RECORDING 1
#define QX_STORAGE_VOICEMAIL 2
#define QX_STORAGE_FAX 3

/* Engines. */
#define QX_STORAGE_ENGINE_INVALID (-1)
#define QX_STORAGE_ENGINE_POSIX 1
#define QX_STORAGE_ENGINE_S3 2

/* Session status. */
#define QX_STORAGE_PENDING 1
#define QX_STORAGE_READY 3
#define QX_STORAGE_FAILED 4

/* Status code a download completion reports on success. */
#define QX_STORAGE_DOWNLOAD_OK 3

typedef struct qx_storage_session qx_storage_session;

/* Completion of a download, called once on any thread: status (QX_STORAGE_DOWNLOAD_OK on
 * success), the downloaded file's path (may be NULL on failure), the argument given. */
typedef void (*qx_storage_download_done_fn)(int status, const char *path, void *arg);

/* Operations of the transfer service, registered by the host process. Every member must be
 * set. */
typedef struct qx_storage_api {
    /* Non-zero when the S3 engine is configured and usable. */
    int (*s3_usable)(void);
    /* Location text of this node for the store (new malloc string the module frees), or NULL
     * on failure. node_id may be NULL; text_a, text_b and arg are the caller's of
     * qx_storage_delete_extension and NULL elsewhere. */
    char *(*location)(const char *node_id, const char *text_a, const char *text_b, void *arg);
    /* Starts downloading (stored name, shard, engine word "s3", extra) into target_path. The
     * request handle, or NULL when refused (done is then never called). */
    void *(*download)(const char *stored_name, const char *shard, const char *engine,
                      const char *extra, const char *target_path, qx_storage_download_done_fn done,
                      void *arg);
    /* Releases a request returned by download, once, after done was called (possibly from
     * within done, on the service's thread). */
    void (*release_download)(void *request);
} qx_storage_api;

/* Node id, configuration (storage.conf) and, unless STORAGE_DISDB is off, the cache client.
 * monitor_dir NULL means "<base_dir>/monitor". 0, or -1 (logged). */
int qx_storage_initialize(const char *base_dir, const char *monitor_dir);
/* Frees the node id. */
void qx_storage_cleanup(void);
/* Re-reads storage.conf into the process-wide configuration. A value that cannot be used is
 * logged at error priority with the file and directive, and its default stays. 0, or -1 (bad
 * arguments, or a directory path longer than 4095 characters); the previous configuration then
 * stays. */
int qx_storage_load_config(const char *base_dir, const char *monitor_dir);
/* The integer settings carried for the transfer service; each pointer may be NULL. */
void qx_storage_get_intervals(int *cache_expire, int *trash_expire, int *upload_interval);

/* Copies the table; NULL is treated as unregister. */
void qx_storage_register_api(const qx_storage_api *api);
void qx_storage_unregister_api(void);

/* 1 for NULL or "posix", 2 for "s3" (whole word, any case), else -1. */
int qx_storage_engine_from_text(const char *word);

/* A session for storing one file (reference count 1), or NULL (logged). extension may be
 * NULL; it is cut to 15 characters. */
qx_storage_session *qx_storage_session_create(int type, int first_id, int second_id,
                                              const char *extension);
/* The temporary file the caller writes before committing; owned by the session. */
const char *qx_storage_get_temp_file(qx_storage_session *session);
/* The stored file's path (after a commit or a completed retrieval), or NULL; owned by the
 * session. */
const char *qx_storage_get_file_path(qx_storage_session *session);
/* File name used by a POSIX commit: absolute, or relative to the type's folder; NULL clears.
 * 0, or -1 for a NULL session. */
int qx_storage_set_posix_filename(qx_storage_session *session, const char *name);
/* Stores the temporary file as file_id and records where in the file's database row. 0 or -1. */
int qx_storage_commit_file(qx_storage_session *session, int file_id);

/* A session for reading a stored file (ready, failed, or pending on a download), or NULL. */
qx_storage_session *qx_storage_session_retrieve(int type, const char *stored_name,
                                                const char *engine, const char *extra);
/* Blocks while the session is pending; the final status. */
int qx_storage_wait_for_file(qx_storage_session *session);
int qx_storage_get_session_status(qx_storage_session *session);
/* The release that drops the count below 1 destroys the session (and its temporary file). */
void qx_storage_ref_session(qx_storage_session *session);
void qx_storage_release_session(qx_storage_session *session);

/* Removes a POSIX file, or queues an S3 object for deletion. 0, or -1 (errno EIO when the queue
 * write failed). */
int qx_storage_delete(int type, const char *stored_name, const char *engine, const char *location);
/* Queues the deletion of every S3 object of one owner; the texts and arg go to the service's
 * location query. 0, or -1 with errno ENOBUFS (no location), ENOMEM or EIO. */
int qx_storage_delete_extension(int second_id, const char *text_a, int first_id, const char *text_b,
                                void *arg);

#ifdef __cplusplus
}
#endif

#endif
