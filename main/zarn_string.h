/* String helpers. Strings handed out are malloc'd (lists: free with zarn_str_freelist);
 * functions taking char ** may move the caller's string. */
#ifndef ZARN_STRING_H
#define ZARN_STRING_H

#ifdef __cplusplus
extern "C" {
#endif

#define ZARN_TRIM_START 1
#define ZARN_TRIM_END 2
#define ZARN_CASE_UPPER 1
#define ZARN_CASE_LOWER 2
#define ZARN_CASE_NAME 4

char *zarn_str_slice(const char *str, int start, int end);
/* NULL-terminated list, or NULL for NULL arguments or an empty separator. */
char **zarn_str_split(const char *str, const char *sep);
char **zarn_str_split_char(const char *str, char ch);
int zarn_str_freelist(char **list);
char *zarn_str_append(char **dst, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int zarn_str_replace(char **str, const char *from, const char *to);
int zarn_str_trim(char **str, int mode);
/* Returns -1 in every case, also after deleting. */
int zarn_str_delete(char **str, int pos, int count);
int zarn_str_insert(char **str, int pos, const char *text);
char *zarn_str_join(char **list, const char *sep);
char *zarn_str_toupper(const char *str);
char *zarn_str_tolower(const char *str);
int zarn_str_convert(char *str, int mode);
char *ast_pad_id(int id, unsigned width);
int zarn_utf8_get_char_length(unsigned char byte);
char *zarn_base64_encode_email_header(const char *name, const char *charset, const char *text,
                                      const char *address);
char *get_nodeid(void);
int zarn_sleep(float seconds);
double qx_get_tstamp(void);

#ifdef __cplusplus
}
#endif

#endif
