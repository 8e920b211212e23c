/* Parallel subtree refresh: the refresh of many accounts spread over worker processes. */
#ifndef QUOTA_JOBS_H
#define QUOTA_JOBS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Refreshes accounts[0..count) as quota_update_slow(accounts[i], kind, NULL, force) would, one
 * after the other, but on up to jobs forked worker processes; the quota files and dirty marks
 * end as that sequential run leaves them. results[i] receives what quota_update_slow would
 * return for accounts[i]; -1 for an account whose worker died. Returns 0, or -1 for invalid
 * arguments. Call it with no SQL session taken and no other thread running. */
int quota_update_slow_jobs(const int *accounts, int count, int kind, int force, int jobs,
                           int *results);

#ifdef __cplusplus
}
#endif

#endif
