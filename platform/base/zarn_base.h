/* libzarn_base: logger, hash table, counted strings, config reader, small I/O helpers.
 * Every pointer handed out is malloc memory unless said otherwise. */
#ifndef ZARN_BASE_H
#define ZARN_BASE_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- logger ---------------------------------------------------------------------------- */

/* Lines at or below this syslog priority are formatted and emitted. Starts at LOG_DEBUG until
 * the first call of fr_log_impl loads the node's setting (LOG_LEVEL in local.conf, default
 * notice), so after start-up a suppressed line costs one comparison in FR_LOG. */
extern int fr_log_threshold;

/* Receives every emitted line instead of syslog; used by tests. NULL restores syslog. */
typedef void (*fr_log_sink_fn)(const char *file, int line, const char *func, int channel,
                               int priority, const char *message, void *ctx);

/* Formats and emits one line if priority passes the threshold. Never fails. */
void fr_log_impl(const char *file, int line, const char *func, int channel, int priority,
                 const char *fmt, ...) __attribute__((format(printf, 6, 7)));
void fr_log_set_sink(fr_log_sink_fn sink, void *ctx);
/* Sets the threshold and stops the lazy load of local.conf from overriding it. */
void fr_log_set_threshold(int priority);

#define FR_LOG(src, channel, priority, ...)                                            \
    do {                                                                               \
        if ((priority) <= fr_log_threshold)                                            \
            fr_log_impl((src), __LINE__, __func__, (channel), (priority), __VA_ARGS__); \
    } while (0)

/* ---- counted strings (SafeStr) --------------------------------------------------------- */

typedef struct safestr safestr_t;

/* NULL text gives NULL. The result is freed with safestr_free. */
safestr_t *safestr_create(const char *text);
safestr_t *safestr_create_len(const char *text, size_t len);
/* The bytes, always NUL-terminated; NULL for a NULL string. Valid until the string is freed. */
const char *safestr_cstr(const safestr_t *s);
size_t safestr_length(const safestr_t *s);
void safestr_free(safestr_t *s);
/* Reads one whole line (newline included, any length); NULL at end of file or on error. */
safestr_t *safestr_readline(FILE *fp);

/* ---- locking hash table with binary keys ----------------------------------------------- */

typedef struct fr_hash fr_hash_t;
typedef struct fr_array fr_array_t;
/* Called on every stored value copy when the table is destroyed. */
typedef int (*fr_hash_value_destroy_fn)(void *value);

#define FR_HASH_KEY_BINARY 1

/* NULL on failure. */
fr_hash_t *fr_hash_init_api(int key_kind, fr_hash_value_destroy_fn destroy);
/* Stores a copy of value under a copy of key, replacing any value held. 0 or -1. */
int fr_hash_force_add(fr_hash_t *h, const void *key, size_t key_len, const void *value,
                      size_t value_len);
/* The table's own copy of the value, or NULL. */
void *fr_hash_find(fr_hash_t *h, const void *key, size_t key_len);
/* 1 when the table holds nothing (or is NULL). */
int fr_hash_empty(fr_hash_t *h);
size_t fr_hash_count(fr_hash_t *h);
/* A copy of every key in the table's order, or NULL; freed with fr_array_free. */
fr_array_t *fr_hash_getkeys(fr_hash_t *h);
/* The lock is recursive: the table's own operations may be called while holding it. */
void fr_hash_lock(fr_hash_t *h);
void fr_hash_unlock(fr_hash_t *h);
/* Runs the value destructor on every value and frees the table; NULL is ignored. */
void fr__hash_destroy(fr_hash_t *h);
#define fr_hash_destroy(h)     \
    do {                       \
        fr__hash_destroy((h)); \
        (h) = NULL;            \
    } while (0)

size_t fr_array_length(const fr_array_t *a);
/* Element i (NULL when out of range); its length is stored in *len when len is given. */
const void *fr_array_get(const fr_array_t *a, size_t i, size_t *len);
void fr_array_free(fr_array_t *a);

/* ---- strings ---------------------------------------------------------------------------- */

#define FR_TRIM_LEFT 1
#define FR_TRIM_RIGHT 2
#define FR_TRIM_BOTH 3
/* Strips isspace() bytes in place (the text is moved left); returns str (NULL stays NULL). */
char *fr_str_trim(char *str, int mode);
/* Splits at every occurrence of sep (non-empty); empty pieces are kept. NULL-terminated array
 * of malloc strings, count in *count when given; NULL on bad arguments. Free with
 * fr_explode_free. */
char **fr_explode(const char *str, const char *sep, size_t *count);
void fr_explode_free(char **parts);
/* Joins count pieces with sep between them; NULL on bad arguments. */
char *fr_implode(char *const *parts, size_t count, const char *sep);
/* Standard base64 of len bytes, NUL-terminated; NULL on failure. */
char *base64_enc_str(const void *data, size_t len);

/* ---- name/value configuration files ---------------------------------------------------- */

/* Line syntax: NAME value, or NAME = value; '#' starts a comment line; a value may be
 * wrapped in double quotes; the last line of a name wins. */
enum { FR_CONF_STRING = 1, FR_CONF_SAFESTR = 2, FR_CONF_INT = 3 };
typedef struct fr_conf_entry {
    const char *name;
    int type;  /* FR_CONF_STRING: var is char**; FR_CONF_SAFESTR: safestr_t**; FR_CONF_INT: int* */
    void *var; /* filled only when the name is present; a string held before is freed */
} fr_conf_entry;
/* -1 when the file cannot be opened; otherwise the number of lines that name a directive of the
 * table but were rejected (0 when the file is clean): longer than 4096 bytes, no value, an
 * unterminated quote, or a non-number for FR_CONF_INT. Each is logged at error priority and
 * leaves the variable as it was; missing names are never touched. */
int parseconfig(const char *path, const fr_conf_entry *table, size_t count);

/* ---- non-blocking I/O and processes (timeouts in seconds) ------------------------------ */

/* A connected stream socket descriptor, or -1 (errno set; ETIMEDOUT on timeout). */
int fr_connect_nb_unix(const char *path, float timeout);
/* Waits up to timeout for data, then reads once: bytes read, 0 at end of file, -1 on error or
 * timeout (errno ETIMEDOUT). */
ssize_t fr_read_nb(int fd, void *buf, size_t len, float timeout);
/* Writes all len bytes within timeout: len, or -1. */
ssize_t fr_write_nb_full(int fd, const void *buf, size_t len, float timeout);
/* Starts path with argv (NULL-terminated, argv[0] included) without a shell; its standard
 * output is a pipe whose read end is stored in *stdout_fd (close it). Child pid, or -1. */
pid_t fr_spawn_async_piped(const char *path, char *const argv[], int *stdout_fd);

#ifdef __cplusplus
}
#endif

#endif
