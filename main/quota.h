/* Quota engine: quota files, usage measurement, subtree refresh, reading, fast update and
 * verification. Kinds: 0 fax, 1 sound, 2 recording, 3 voicemail, 4 music, 5 all. */
#ifndef QUOTA_H
#define QUOTA_H

#include <sys/types.h>

#include "sqlsession.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QUOTA_KIND_ALL 5

/* Quota store. Paths handed out are malloc'd; the caller frees them. */
int get_conf(void);
int get_ids(const char *user_name, const char *group_name, uid_t *uid, gid_t *gid);
int make_qpaths(int kind, int reseller_id, int client_id, int owner_id, char **reseller_path,
                char **client_path, char **owner_path);
/* *paths: malloc array of *count malloc strings (start *count at 0). */
int make_dpath(int kind, int level, const char *reseller_id, const char *client_id,
               const char *owner_id, char ***paths, int *count);
/* Appends "/" if missing, then number ("%d") or, for number 0, the next two arguments
 * (const char *text, int flag; flag 0 skips leading '0's). Returns *path, or NULL. */
char *quota_str_append(char **path, int number, ...);
int quota_read_internal(int fd, long long *value, int *revision);
int quota_write_internal(int fd, long long value, int revision);
int make_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid);
int is_dirty(const char *path);
int set_dirty(const char *path);
int unset_dirty(const char *path);

/* Usage measurement. */
int compute_quota_dir(char **path, long long *total, int recurse);
int compute_quota(const char *path, long long *total, int recurse);
long long quota_get_dirsize(const char *path);

/* Subtree refresh. total may be NULL. */
int quota_update_slow(int account_id, int kind, long long *total, int force);
int quota_update_slow_internal(int account_id, int kind, long long *total, int force,
                               long long *scratch);
int quota_update_subtree(const char *id, const char *parent_id, const char *grandparent_id,
                         int level, int kind, char **dir, long long *total, int force,
                         long long *scratch);
int grab_child_quotas(const char *id, const char *parent_id, const char *grandparent_id, int kind,
                      const char *dir, long long *sum);
int is_rev_inrange(const char *path, long long *value);
int quota_real_update(const char *path, long long value, int revision);

/* Reading. values/revisions hold 1 slot, or 5 for kind 5; revisions may be NULL. */
int quota_read(unsigned account_id, unsigned parent_id, unsigned grandparent_id, int kind,
               long long *values, int *revisions);
int quota_read_sql(int account_id, int kind, long long *values, int *revisions);
/* Outputs are optional; strings handed out are malloc'd. */
int get_parid_level(SessionHandle *sess, int account_id, int *parent, char **parent_str,
                    int *level, char **level_str);
int get_parentid(SessionHandle *sess, int account_id, int *parent, char **parent_str);

/* Fast update and verification (telephony components). */
int quota_update(int account_id, int kind, long long delta, int wait);
int quota_update_fast(int kind, long long delta, int wait, int reseller_id, int client_id,
                      int owner_id);
int quota_upd_fast_internal(const char *path, long long delta, int wait);
int quota_verify(int account_id, int kind);
int quota_verify_disk(int kind, int reseller_id, int client_id, int owner_id,
                      long long reseller_limit, long long client_limit, long long owner_limit);
int fine_sleep(float seconds);

#ifdef __cplusplus
}
#endif

#endif
