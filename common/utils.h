/* Asterisk configuration reader, Asterisk console helpers and small file helpers. */
#ifndef UTILS_H
#define UTILS_H

#include <grp.h>
#include <pwd.h>
#include <stddef.h>

#include "zarn_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* keys: NULL-terminated; values[i] receives a SafeStr (caller frees with safestr_free) or stays
 * NULL. -1 when the file cannot be opened, else 0. */
int get_astconf_section_values(const char *path, const char *section, const char **keys,
                               safestr_t **values);
int get_astconf_values(const char *path, const char **keys, safestr_t **values, int count);
int is_ignorable(const char *line, char c1, char c2);
char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars);
/* dst, or (without dst) a pointer into line or to a static empty string. */
char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker);

int rasterisk(const char *asterisk_binary, const char *command);
int ast_connect(const char *socket_path);
int ast_runcmd(int fd, const char *command, int wait);
int ast_el_read_char(int fd, char *out);
int write_safe(int fd, const void *buf, int len);
/* Writes (not reads) buf to fd, as it always has: do not use it to read. */
int read_safe(int fd, void *buf, int len);
int check_subdir_of(const char *path, const char *dir);
safestr_t *pad(int number, int width);
safestr_t *get_extension(const safestr_t *name);
/* extensions: NULL-terminated. */
int validate_file_ext(const safestr_t *name, const char **extensions, int case_sensitive);
int validate_alnum(const safestr_t *text, int length);
void free_pw_nam(struct passwd *entry);
void free_gr_nam(struct group *entry);
/* Product version text; caller frees. */
char *get_version_string(void);

#ifdef __cplusplus
}
#endif

#endif
