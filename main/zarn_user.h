/* Account lookups (table client and client_prefs), read through the DisDB cache. */
#ifndef ZARN_USER_H
#define ZARN_USER_H

#include <stddef.h>

#include "sqlsession.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Parent id as text ("" for no parent), or NULL. Caller frees. sess may be NULL. */
char *qx_account_get_parent_str_sess(SessionHandle *sess, int account_id);
/* Parent id; -1 for no parent, -2 when unknown. */
int qx_account_get_parent_sess(SessionHandle *sess, int account_id);
/* Level, -1 when unknown. */
int qx_account_get_level_sess(SessionHandle *sess, int account_id);
int qx_account_get_level(int account_id);
/* Status / phone status, -1 when unknown. */
int qx_user_get_status(int account_id);
int qx_user_get_phonestatus(int account_id);
/* Name, or NULL. Caller frees. */
char *qx_account_get_name_sess(SessionHandle *sess, int account_id);
char *qx_account_get_name(int account_id);
/* Extension numbers of an account (short numbers when numbers_only, else full numbers), count
 * in *count; NULL when none. Caller frees every string and the array. */
char **qx_user_get_extensions_sess(SessionHandle *sess, const char *parent_id, int account_id,
                                   int numbers_only, size_t *count);
/* n preference values in the order of names (NULL where absent), or NULL; free with
 * rget_free_vals(n, ...). */
char **qx_account_get_prefs(int account_id, int n, const char **names);
/* One preference value, or NULL. Caller frees. */
char *qx_account_get_pref(int account_id, const char *name);

#ifdef __cplusplus
}
#endif

#endif
