/* libvelkan: client of the platform's distributed key-value cache (DisDB), on Redis.
 *
 * A client holds a persistent handle (the client itself) and a secondary handle
 * (vk_client_secondary) for non-persistent data; both talk to the same registered servers.
 * The database key of vk_set_database_key is the server's AUTH password and the database
 * number is its SELECT. Several servers registered for one client give failover: when the
 * current one cannot be reached the next is tried. A host that starts with '/' is a unix
 * socket. Connect and command timeouts are bounded (milliseconds), so a dead cache is cheap.
 * Every function returns 0 on success or a VK_E* code (text from vk_strerror). */
#ifndef VELKAN_H
#define VELKAN_H

#include <stddef.h>
#include <stdlib.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vk_mm vk_mm_t;
typedef struct vk_client vk_client_t;

enum {
    VK_OK = 0,
    VK_EINVAL = 2,    /* bad argument */
    VK_ENOSERVER = 3, /* no server registered or none reachable */
    VK_EIO = 4,       /* connection lost or timed out */
    VK_EREPLY = 5,    /* the server answered with an error (AUTH, SELECT, wrong type ...) */
    VK_ENOMEM = 6,
};

/* Syslog mask bits of vk_enable_syslog. */
#define VK_LOG_ERROR 0x01
#define VK_LOG_DEBUG 0x02
#define VK_LOG_EVENT 0x04
#define VK_LOG_NOTICE 0x08
#define VK_LOG_WARNING 0x10

vk_mm_t *vk_mm_create(void *(*malloc_fn)(size_t), void *(*calloc_fn)(size_t, size_t),
                      void *(*realloc_fn)(void *, size_t), void (*free_fn)(void *));
void vk_mm_destroy(vk_mm_t *mm);
/* A client (the persistent handle) or NULL. opt1/opt2 are library options, reserved. */
vk_client_t *vk_client_create(int opt1, int opt2, const vk_mm_t *mm, void *reserved);
/* The secondary (non-persistent) handle carried by a client; NULL for NULL. */
vk_client_t *vk_client_secondary(vk_client_t *client);
void vk_client_destroy(vk_client_t *client);
int vk_enable_syslog(vk_client_t *client, unsigned mask);
int vk_server_add(vk_client_t *client, const char *host, int port, const char *name);
int vk_set_database_key(vk_client_t *client, int db, const char *key, size_t key_len);
int vk_select(vk_client_t *client, int db, int flags);
/* Static text for a status. */
const char *vk_strerror(int status);

/* Reads one field. *value is a malloc string (NUL-terminated, *value_len bytes) or NULL when
 * the field or the hash does not exist (not an error). */
int vk_hget_whole(vk_client_t *h, const char *key, size_t key_len, const char *field,
                  size_t field_len, char **value, size_t *value_len, const char *prefix,
                  int flags);
/* Reads n fields of one hash. *values is a malloc array of n slots, each a malloc string or
 * NULL where absent; *entries counts the present ones; *buffer is library scratch the caller
 * frees with free (may be NULL). */
int vk_hmget_whole(vk_client_t *h, const char *key, size_t key_len, const char **fields,
                   size_t n, const size_t *field_lens, char ***values, size_t *entries,
                   void **buffer, const char *prefix, int flags);
/* Reads every value of one hash: *values is a malloc array of *count malloc strings, NULL when
 * the hash is empty or absent; *buffer as above. */
int vk_hgetall_whole(vk_client_t *h, const char *key, size_t key_len, size_t *count,
                     char ***values, void **buffer, int opt1, int opt2, const char *prefix,
                     int flags);
/* Reads every field and value of one hash as two parallel malloc arrays of *count malloc
 * strings; an absent hash gives VK_OK with count 0 and NULL arrays. */
int vk_hgetall(vk_client_t *h, const char *key, size_t key_len, size_t *count, char ***fields,
               char ***values, int opt1, int opt2);
int vk_hset(vk_client_t *h, const char *key, size_t key_len, const char *field, size_t field_len,
            const char *value, size_t value_len, int persistent);
int vk_hmset(vk_client_t *h, const char *key, size_t key_len, const char **fields, size_t n,
             const size_t *field_lens, const char **values, const size_t *value_lens,
             int persistent);
/* Non-zero when the key exists or the question could not be answered; 0 when it does not. */
int vk_exists(vk_client_t *h, const char *key, size_t key_len);
/* Adds member with score to the sorted set key; a value other than "_NL_" is kept beside it in
 * the hash "<key>:val". */
int vk_zaddval(vk_client_t *h, const char *key, size_t key_len, double score, const char *member,
               size_t member_len, const char *value, size_t value_len);

#ifdef __cplusplus
}
#endif

#endif
