/* How a telephony component uses the quota engine around storing a file: check the account's
 * quota, store, then add the file's size to the quota files of the account and its ancestors.
 *
 *   quota_example ACCOUNT_ID KIND FILE
 *
 * KIND is 0 fax, 1 sound, 2 recording, 3 voicemail, 4 music. Prints the verification result
 * before and after the update; exits 0 when the update ran, 3 when the account is over quota. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "quota.h"
#include "sqlsession.h"

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s ACCOUNT_ID KIND FILE\n", argv[0]);
        return 2;
    }
    int account = atoi(argv[1]);
    int kind = atoi(argv[2]);
    struct stat st;
    if (stat(argv[3], &st) != 0) {
        perror(argv[3]);
        return 2;
    }

    qx_sql_pool_init();

    /* quota_verify prints its own line on standard output. */
    int full = quota_verify(account, kind);
    if (full > 0) {
        printf("over quota: account %d (level %d) is full\n", full % 10000000, full / 10000000);
        return 3;
    }
    if (quota_update(account, kind, (long long)st.st_size, 30) != 0) {
        fprintf(stderr, "quota update failed for account %d\n", account);
        return 1;
    }
    printf("added %lld bytes\n", (long long)st.st_size);
    quota_verify(account, kind);
    return 0;
}
