// Inside the quota engine: the pieces of the subtree refresh that the parallel refresh
// (quota_jobs) hands to its worker processes. Not part of the library's C API.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace qx::refresh {

// Engine entry points create files meant for the whole asterisk group, whatever the caller's
// umask is; the parallel refresh sets the same umask around its workers.
class UmaskGuard {
  public:
    UmaskGuard() : old_(::umask(007)) {}
    ~UmaskGuard() { ::umask(old_); }
    UmaskGuard(const UmaskGuard &) = delete;
    UmaskGuard &operator=(const UmaskGuard &) = delete;

  private:
    mode_t old_;
};

// One account as the sequential walk would reach it: the id texts it passes down (a target's
// own id is padded, its descendants' are the database's), its quota directory and force depth.
struct Account {
    std::optional<std::string> id, parent, grandparent;
    std::string dir;
    int level = -1;
    int force = 0;
};

// The lookups quota_update_slow makes for a target. 0, or the result quota_update_slow gives
// when they fail. ancestors receives the ids of the accounts above the target.
int look_up_target(int account_id, int force, Account &out, std::vector<int> &ancestors);
// The account's children as its walk would descend into them. False when the walk would stop at
// this account instead: it must then be walked whole, so that it fails the same way.
bool children_of(const Account &account, std::vector<Account> &out);
// The whole subtree, children first. Returns the number of faults.
int walk(const Account &account, int kind);
// Only the account's own files, summing its children's files as they are. Number of faults.
int refresh_own(const Account &account, int kind);
// Marks the account's existing files dirty and logs why they were not refreshed.
void abandon(const Account &account, int kind, const char *cause);
// Whether a fault fails the refresh (QUOTA_STRICT_REFRESH).
bool strict();
// From now on this process asks the lookups of an account's children once per account (the
// statements change, the results do not). Only for refresh workers.
void batch_lookups();

}  // namespace qx::refresh
