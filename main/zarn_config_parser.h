/* Readers of the node's directive files (the .conf files in /etc/quorvex). Out-strings are
 * malloc'd and owned by the caller; results are 0 or -1. */
#ifndef ZARN_CONFIG_PARSER_H
#define ZARN_CONFIG_PARSER_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One row of a directive table; a table ends with a row whose name is NULL. The values are
 * owned by the module and released by qx_conf_parse_multi_directives_free_data. */
typedef struct qx_conf_directive {
    const char *name;
    int count;
    char **values;
} qx_conf_directive;

int qx_conf_parse_string_value(const char *keyword, const char *path, char **out);
int qx_conf_parse_db_cred(const char *keyword, const char *path, const char *id, char **field1,
                          char **field2, char **field3);
int qx_conf_parse_worker(const char *keyword, const char *path, char **out);
int qx_conf_parse_db_host_custom(const char *path, const char *id, const char *keyword,
                                 char **host, int *port);
int qx_conf_parse_db_host(const char *path, const char *id, int is_master, char **host,
                          int *port);
int qx_conf_parse_multi_directives(qx_conf_directive *table, const char *path);
/* files: NULL-terminated list. */
int qx_conf_parse_multi_directives_multi_files(qx_conf_directive *table,
                                               const char *const *files);
int qx_conf_parse_multi_directives_handle_file(FILE *fp, qx_conf_directive *table);
void qx_conf_parse_multi_directives_free_data(qx_conf_directive *table);

#ifdef __cplusplus
}
#endif

#endif
