/* spoolcap: refreshes (set) or prints (show) the storage quotas of selected accounts.
 * Everything here lives in the tool's own executable; no library module includes it. */
#ifndef SPOOLCAP_H
#define SPOOLCAP_H

#include <stdint.h>
#include <stdio.h>

#include "zarn_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Actions and target modes as parse_args stores them. */
#define SPOOLCAP_ACTION_NONE 0
#define SPOOLCAP_ACTION_SET 1
#define SPOOLCAP_ACTION_SHOW 2

#define SPOOLCAP_TARGET_NONE 0
#define SPOOLCAP_TARGET_UID 1
#define SPOOLCAP_TARGET_LOGIN 2
#define SPOOLCAP_TARGET_ALL 3

/* Exit statuses of one run. */
#define SPOOLCAP_EXIT_OK 0
#define SPOOLCAP_EXIT_CMDLINE 1
#define SPOOLCAP_EXIT_CONFIG 2
#define SPOOLCAP_EXIT_NONE_UPDATED 5
#define SPOOLCAP_EXIT_SOME_FAILED 6
#define SPOOLCAP_EXIT_NO_TARGETS 10
/* No outcome decided yet ('Z'). */
#define SPOOLCAP_EXIT_UNDECIDED 90

#define SPOOLCAP_LEVEL_SLOTS 3
#define SPOOLCAP_LEVEL_ID_LEN 5

/* One selected account, stored by value in the target table under its id (int32 key).
 * The table owns the copy; destroy_client frees the login of that copy. */
typedef struct spoolcap_target {
    /* Id texts by level index: own id at level_idx, parent id just above it. Four digits and
     * a terminator; a longer id is cut, never spilled into the next slot. */
    char level_ids[SPOOLCAP_LEVEL_SLOTS][SPOOLCAP_LEVEL_ID_LEN];
    int32_t level;
    int32_t level_idx;
    int32_t parent_id;
    /* 1: this run refreshes the account itself; 0: shown only, or covered by its parent. */
    int32_t selected;
    char *login;
} spoolcap_target;

/* Run-wide settings, written by parse_args / get_config only. */
extern int action;
extern int target_mode;
extern char *uid_list;
extern char *ulogin_list;
extern int force_depth;
extern int children_flag;
extern int human_flag;
extern int quiet_flag;
extern safestr_t *quota_dir;
extern safestr_t *ast_spool_dir;
extern safestr_t *ast_lib_dir;
/* Worker processes of a refresh (QUOTA_REFRESH_JOBS of local.conf); 1 refreshes in this one. */
extern int refresh_jobs;
/* The selected accounts, from get_sql_data until the process exits. */
extern fr_hash_t *target_table;

/* Fills the settings from the command line, or ends the process (0 for --help, 1 on error). */
void parse_args(int argc, char **argv);
/* Writes the usage banner to stream. */
void usage(FILE *stream);
/* Fills quota_dir, ast_spool_dir, ast_lib_dir, refresh_jobs; 0 (never fails). */
int get_config(void);

/* The target table (keys int32 account ids, values spoolcap_target), or NULL when nothing was
 * selected. Freed by the caller with fr_hash_destroy. */
fr_hash_t *get_sql_data(void);
/* 10 -> 0, 50 -> 1, 100 -> 2, anything else 0. */
int lvl2idx(int level);
/* Frees the record's login (not the record); 0. */
int destroy_client(void *record);

/* 0 no refresh failed, 1 some failed and some succeeded, 2 only failures. */
int refresh_user_quotas(void);
/* 0 after printing; -1 when no session could be had or the listing query failed. */
int show_quotas(void);
/* Prints one five-kind vector (negative entries are unknown); 0. */
int print_quotas(const long long *quota);
/* Scales bytes by 1024 steps; unit (3 bytes) receives "B" .. "TB" or "?B". */
float to_human_readable(char *unit, float bytes);
/* Display name of a resource kind, or NULL above 4. */
const char *quota_get_target_name(unsigned int kind);

#ifdef __cplusplus
}
#endif

#endif
