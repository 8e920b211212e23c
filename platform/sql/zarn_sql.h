/* libzarn_sql: the process-wide MySQL connection pool over MariaDB Connector/C.
 *
 * Shard descriptions (DB_CREDENTIALS value in pbx.conf): "<shard>:<user>:<password>:<database>".
 * Server lines (sqldbase.conf): "DB_MASTER <shard>:<host>:<port>" and
 * "DB_SLAVE <shard>:<host>:<port>"; host may be an IPv6 literal (its colons are kept) or an
 * absolute unix-socket path (port then ignored). Connections are pooled and reused; a lost
 * connection is re-established once before a query fails (not after a timeout: a stalled
 * server would only make the caller wait twice); SELECTs may go to a slave, and a slave that
 * fails is avoided for the down time. A master whose connection fails or times out is avoided
 * for the master down time: sessions are refused and statements on the master fail at once
 * meanwhile. Connect/read/write timeouts are bounded. */
#ifndef ZARN_SQL_H
#define ZARN_SQL_H

#include <mysql.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct fr_sql_conn fr_sql_conn_t;
typedef struct fr_sql_shard fr_sql_shard_t;

/* Resets the pool (drops shards, servers and idle connections; down time and verbosity back to
 * their defaults); a connection idle for longer than idle_timeout seconds is checked before
 * reuse and a surplus one closed (0: never). The two pointers are reserved (pass NULL). 0. */
int fr_sqlpool_init_api(void *reserved1, void *reserved2, double idle_timeout);
void fr_sqlpool_verbosity_set(int level);
/* A shard description parsed from "<shard>:<user>:<password>:<database>", or NULL (logged). */
fr_sql_shard_t *fr_sql_shard_parse_info(const char *text);
/* Registers a parsed shard (the pool takes ownership). 0 or -1. */
int fr_sqlpool_shard_add(fr_sql_shard_t *shard);
/* Seconds a failed slave is avoided (default 30; a negative value counts as 0). */
void fr_sqlpool_down_time_set(int seconds);
/* The down time in force. */
int fr_sqlpool_down_time_get(void);
/* Seconds a master is avoided after a connection-level failure (default 30; a negative value
 * counts as 0). */
void fr_sqlpool_master_down_time_set(int seconds);
int fr_sqlpool_master_down_time_get(void);

typedef enum { FR_SQL_TIMEOUT_CONNECT, FR_SQL_TIMEOUT_READ, FR_SQL_TIMEOUT_WRITE } fr_sql_timeout_t;
/* Timeouts in seconds of connections opened from now on (defaults: connect 2, read 30, write
 * 30). A value below 1 counts as 1: the client library would read 0 as "wait forever". */
void fr_sqlpool_timeout_set(fr_sql_timeout_t which, int seconds);
/* The timeout in force; -1 for an unknown which. */
int fr_sqlpool_timeout_get(fr_sql_timeout_t which);
/* Reads DB_MASTER / DB_SLAVE lines of path for every registered shard (shard NULL) or one.
 * 0 when every shard considered has a master; non-zero otherwise. */
int fr_sql_shard_parse_connection_info(const char *path, const char *shard, int required);
/* A pooled connection of shard index (0: the first shard added), or NULL. */
fr_sql_conn_t *fr_sqlpool_conn_get(int shard_index);
/* Gives a connection back to the pool; NULL is ignored. */
void fr_sqlpool_conn_free(fr_sql_conn_t *conn);
/* Closes every connection and forgets the configuration. 0. */
int fr_sqlpool_destroy(void);
/* For a forked child: forgets every connection and the configuration without closing or
 * talking on any connection (the parent still uses them; their memory is left behind). Set the
 * pool up again before the next session. 0. */
int fr_sqlpool_forget(void);

/* Formats and runs one statement. With store non-zero the whole result is stored and handed
 * back in *result (NULL for statements without result set; free with mysql_free_result).
 * 0 on success, non-zero on failure (mysql_error of fr_sql_conn_get_mysql tells why). */
int fr_sql_conn_query(fr_sql_conn_t *conn, int store, MYSQL_RES **result, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* The MYSQL handle of the connection's last statement (for mysql_error); never NULL for a
 * valid connection. */
MYSQL *fr_sql_conn_get_mysql(fr_sql_conn_t *conn);

#ifdef __cplusplus
}
#endif

#endif
