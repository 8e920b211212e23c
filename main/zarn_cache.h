/* Read-through cache layer between the lookups, the DisDB cache and MySQL. */
#ifndef ZARN_CACHE_H
#define ZARN_CACHE_H

#include <stddef.h>

#include "velkan.h"

#ifdef __cplusplus
extern "C" {
#endif

#define CACHE_NOROWS "_NR_"
#define CACHE_NULL "_NL_"
#define CACHE_KEEP_NULL 1   /* keep_markers bit: return "_NL_" instead of NULL */
#define CACHE_KEEP_NOROWS 2 /* keep_markers bit: return "_NR_" instead of NULL */

/* Maps an SQL parameter name to its cache key format, persistence and short field name.
 * Tables are sorted by name, ignoring case. */
typedef struct cache_binding {
    const char *name;
    const char *key_format;
    int persistent;
    const char *field;
} cache_binding;

/* Sections around every use of the cache client handle; deliberately empty. */
void ast_cache_rdlock(void);
void ast_cache_wrlock(void);
void ast_cache_unlock(void);
/* Address of the process-wide cache client handle (NULL until first use). */
vk_client_t **ast_cache_handle(void);

/* All entries of one hash joined with ","; NULL on failure or when empty. Caller frees. */
char *rgetall_hash_comma(int persistent, const char *key_fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* count values (NULL where absent) of one hash; NULL on bad arguments. rget_free_vals frees. */
char **rmget_hash(int persistent, int count, const char **fields, const char *key_fmt, ...)
    __attribute__((format(printf, 4, 5)));
void rget_free_vals(int count, char **vals);
/* -1 on bad arguments; 0 otherwise, also when the cache refused the write (it is logged). */
int rmset_hash(int persistent, int count, const char **fields, const char **values,
               const char *key_fmt, ...) __attribute__((format(printf, 5, 6)));
int compare_entries(const void *a, const void *b);
/* The row named name (ignoring case) of a sorted table, or NULL. */
const cache_binding *get_binding(int rows, const cache_binding *table, const char *name);
/* One value read through cache and database; NULL when none. Caller frees. */
char *drget_hash(int persistent, const char *field, const char *sql_fmt, const char *key_fmt,
                 const char *arg, int keep_markers);
char *drget_hash_by_id(int persistent, const char *field, const char *sql_fmt,
                       const char *key_fmt, int id, int keep_markers);
/* count values for the named parameters, or NULL; rget_free_vals frees. */
char **drmget_hash(int nbindings, const cache_binding *table, int count, const char **names,
                   const char *sql_fmt, const char *arg, int numeric_arg, int column_mode,
                   int keep_markers);
/* Non-zero when value must not be written to key (a "_NR_" into a missing non-persistent hash). */
int check_add_norows_to_missing_persistent(const char *key, int persistent, const char *value);
void filter_cache_return(char **value, int keep_markers);

/* Single operations with the layer's diagnostics, for lookups that carry their own read-through
 * steps. Each returns 0 or the library's status (1 when the client could not be created). */
/* *value: malloc string, or NULL on a miss. */
int rget_hash_str(int persistent, const char *field, char **value, const char *key_fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Writes one field behind the "_NR_" guard (a refused write returns -1). */
int rset_hash_str(int persistent, const char *field, const char *value, const char *key_fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Writes one field without the guard. */
int cache_hset(int persistent, const char *field, size_t field_len, const char *value,
               size_t value_len, const char *key_fmt, ...) __attribute__((format(printf, 6, 7)));
/* Whole hash as parallel arrays (free both with rget_free_vals(*count, ...)); an absent hash is
 * reported as a failure (non-zero). */
int cache_hgetall(int persistent, size_t *count, char ***fields, char ***values,
                  const char *key_fmt, ...) __attribute__((format(printf, 5, 6)));
/* Several fields of one hash on the chosen handle, with the "cache_hmget" diagnostics.
 * *values: malloc array of n slots (rget_free_vals frees). */
int cache_hmget(int persistent, size_t n, const char **fields, char ***values, size_t *entries,
                const char *key_fmt, ...) __attribute__((format(printf, 6, 7)));
/* Adds member (value "_NL_") with score to a sorted set on the chosen handle. No diagnostics:
 * callers log with their own texts. */
int cache_zaddval(int persistent, double score, const char *member, const char *key_fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
