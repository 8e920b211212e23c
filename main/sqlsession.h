/* Process-wide SQL pool set-up from the node's configuration files, and sessions. */
#ifndef SQLSESSION_H
#define SQLSESSION_H

#include "zarn_sql.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A pooled MySQL connection. Whoever called sess_init gives it back with sess_destroy. */
typedef struct fr_sql_conn SessionHandle;

/* Sets the pool up from pbx.conf and sqldbase.conf; the status is dropped. */
void qx_sql_pool_init(void);
/* 0 when the pool is ready, -1 on failure. */
int qx_sql_pool_init_from_config_files(const char *cred_file, const char *servers_file);
int qx_sql_pool_destroy(void);
/* A session, or NULL. */
SessionHandle *sess_init(void);
/* Gives a session back; NULL is legal. */
void sess_destroy(SessionHandle *sess);

#ifdef __cplusplus
}
#endif

#endif
