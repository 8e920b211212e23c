/* Set-up of the process's DisDB cache client from local.conf, disdbase.conf and pbx.conf. */
#ifndef ZARN_VELKAN_H
#define ZARN_VELKAN_H

#include "velkan.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates the client into *client and configures it. 0 when a "main" server was added and
 * "main" credentials were found, else -1 (the client, once created, stays in *client). */
int ast_vk_init(vk_client_t **client);
/* 0 when no known level word was given, else the status of vk_enable_syslog. */
int add_vk_syslog_(vk_client_t *client, const char *levels);
/* 0 when the server was added; 1 for a malformed value or another partition; else the
 * library's status. */
int add_vk_srv_(vk_client_t *client, const char *value);
void log_wrap(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
