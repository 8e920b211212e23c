/* Every public header compiles as C, and the shared library links and works from C. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qx_paths.h"
#include "quota.h"
#include "sqlsession.h"
#include "utils.h"
#include "velkan.h"
#include "zarn_base.h"
#include "zarn_cache.h"
#include "zarn_config_parser.h"
#include "zarn_db_files.h"
#include "zarn_extension.h"
#include "zarn_sql.h"
#include "zarn_storage.h"
#include "zarn_string.h"
#include "zarn_user.h"
#include "zarn_velkan.h"

static int failures;

#define CHECK(cond)                                                  \
    do {                                                             \
        if (!(cond)) {                                               \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                              \
        }                                                            \
    } while (0)

int main(void) {
    char *padded = ast_pad_id(42, 4);
    CHECK(padded && strcmp(padded, "0042") == 0);
    free(padded);

    char **parts = zarn_str_split("a,,b,", ",");
    CHECK(parts && strcmp(parts[0], "a") == 0 && parts[1][0] == '\0' && parts[3] == NULL);
    zarn_str_freelist(parts);

    long long values[5];
    CHECK(quota_read(0, 0, 0, QUOTA_KIND_ALL, values, NULL) == -1);
    CHECK(quota_update(1, 5, 10, 30) == -1);

    cache_binding b = {"name", "key:%s", 0, "f"};
    CHECK(get_binding(1, &b, "NAME") == &b);

    /* Reference the rest so that a missing symbol fails the link. */
    void *volatile symbols[] = {
        (void *)fr_log_impl,         (void *)fr_sql_conn_query,     (void *)sess_init,
        (void *)vk_client_create,    (void *)ast_vk_init,           (void *)drmget_hash,
        (void *)qx_account_get_pref, (void *)qx_get_full_number,    (void *)quota_verify,
        (void *)qx_list_db_files,    (void *)qx_conf_parse_db_cred, (void *)get_astconf_values,
        (void *)rasterisk,           (void *)qx_storage_commit_file,
    };
    for (size_t i = 0; i < sizeof symbols / sizeof symbols[0]; ++i) CHECK(symbols[i] != NULL);

    printf("%d passed, %d failed\n", failures ? 0 : 1, failures ? 1 : 0);
    return failures ? 1 : 0;
}
