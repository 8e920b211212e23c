/* Extension lookups: full numbers, ids, owners, preferences, types, system parameters. */
#ifndef ZARN_EXTENSION_H
#define ZARN_EXTENSION_H

#include <stddef.h>
#include <time.h>

#include "sqlsession.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Strings returned are malloc'd and freed by the caller; ids are -1 when unknown. */
char *qx_get_full_number(const char *parent_id, const char *number);
char *qx_get_full_number_sess(SessionHandle *sess, const char *parent_id, const char *number);
/* "%04d" of id. */
char *qx_get_padded_account_id(int id);
/* 0 or -1; each out may be NULL. */
int qx_split_full_number(const char *full, char **owner, char **number);
char *qx_get_extension_owner_str(const char *full);
int qx_get_extension_owner(const char *full);
/* 0 or -1; each out may be NULL (not wanted). */
int qx_get_extension_ids_sess_internal(SessionHandle *sess, const char *full, int *extid,
                                       int *usrid, int *orgid);
int qx_get_extension_ids(const char *full, int *extid, int *usrid, int *orgid);
int qx_get_extension_ids_sess(SessionHandle *sess, const char *full, int *extid, int *usrid,
                              int *orgid);
int qx_get_extension_id(const char *full);
int qx_get_extension_usrid(const char *full);
int qx_get_extension_orgid(const char *full);
int qx_get_extension_usrid_sess(SessionHandle *sess, const char *full);

/* count values or NULL; free with qx_free_string_array(count, ...). */
char **qx_extension_get_prefs(const char *full, int count, const char **names);
char *qx_extension_get_pref(const char *full, const char *name);
char **qx_misc_get_params(int count, const char **names);
char *qx_misc_get_param(const char *name);
int qx_get_extlen(void);
int qx_get_extsep(void);
int qx_billing_disabled(void);
void qx_free_string_array(int count, char **array);

char *qx_get_extension_from_alias_sess(SessionHandle *sess, const char *alias);
char *qx_get_alias_from_full_number(SessionHandle *sess, const char *full);
int qx_extension_exists(const char *full);
char *qx_get_user_name_from_number(SessionHandle *sess, const char *full);
int qx_get_extension_usrid_from_extid(int extid);
char *qx_extension_get_pref_by_id(int extid, const char *param);
char *qx_get_extension_virtphone(const char *number);
/* Codec names in priority order, each followed by ",". */
char *qx_get_extension_codecs(const char *full);
/* Ids of the accounts that own extensions in the subtree of account_id (the account itself
 * included when it owns extensions); with flag non-zero every account of the subtree.
 * Malloc array, count in *count; NULL when none. */
int *qx_get_extensions_of(int account_id, int flag, size_t *count);
char *qx_get_extension_timezone(int extid);
int qx_extension_can_register(SessionHandle *sess, const char *full);
int qx_get_extension_type(const char *full);
int qx_is_multiuser_aware(const char *full);
/* 0 or -1; behaviour is the numeric "scrb" value; allow/deny are comma-joined lists or NULL. */
int qx_screening_get_behaviour(const char *full, int *behaviour, char **allow, char **deny);
int qx_extension_expired(const char *full);
int redis_str2time(const char *text, time_t *out);

#ifdef __cplusplus
}
#endif

#endif
