// The command line of the built spoolcap: banner, every rejection with its message, stream and
// status, and the runs that pass the parser but find no target.
#include <string>
#include <vector>

#include "qxtest.hpp"

namespace {

[[maybe_unused]] static auto *const sandbox_env = qxtest::register_sandbox();

const std::string kBanner =
    "Quorvex spoolcap\n"
    "Command line tool that refreshes or inspects client quotas\n"
    "Usage:\n"
    "\tspoolcap --action|-A set|show --uid|-u <client_id> [, <client_id2> [, ...]] | "
    "--ulogin|-l <login> [, <login2> [, ...]] | --all|-a [--child|-c]  [--human|-h] "
    "[--quiet|-q]\n"
    "Valid options:\n"
    "\t--action|-A:  set  will refresh quotas and print them on stdout;\n"
    "\t\tshow  will inspect only and print them to stdout\n"
    "\t--uid|-u: User id from sql client.id. May be a list \"id1, id2..\"\n"
    "\t--ulogin|-l: User login from sql client.login. May be a list \"login1, login2\"\n"
    "\t--all|-a: All users from database (resellers, clients and extensions)\n"
    "\t--force|-f: Quota files are considered dirty and must be regenerated\n"
    "\t-u, -l, -a are mutually exclusive and at least one must be present\n"
    "\t--children|-c: Do the action on all the child objects too\n"
    "\t--human|-h: Print sizes in human readble form (KB, MB, GB etc)\n"
    "\t--quiet|-q: Print nothing on stdout. Invalid if -A show was requested\n";

const std::string kBadAction = "Bad command line. Action invalid or missing\n\n";
const std::string kConflict =
    "Bad command line. Target users must be specified using one and only one of "
    "--all|--uid|--ulogin\n\n";
const std::string kShowQuiet =
    "Bad command line. --action show   and  --quiet  cannot be used together\n\n";
const std::string kNoTargets = "None of the requested users found in database.\n";

struct CliCase {
    const char *what;
    std::vector<std::string> args;
    std::string out;
    std::string err;
    int status;
};

TEST(SpoolcapCli, RejectsOrAnswersEachCommandLine) {
    // clang-format off
    const CliCase cases[] = {
        {"help alone", {"--help"}, kBanner, "", 0},
        {"help after valid options", {"--action", "set", "--uid", "5", "--help"}, kBanner, "", 0},
        {"anything after help is ignored", {"--help", "--bogus", "--action"}, kBanner, "", 0},
        {"help after a conflict still wins", {"--all", "--uid", "3", "--help"}, kBanner, "", 0},
        {"error before help wins", {"--bogus", "--help"}, "--bogus: unknown option\n", "", 1},
        {"unknown long option", {"--action", "set", "--nope"}, "--nope: unknown option\n", "", 1},
        {"missing action argument", {"--action"}, "--action: missing argument\n", "", 1},
        {"missing uid argument", {"-A", "set", "-u"}, "-u: missing argument\n", "", 1},
        {"short h is human, not help", {"-h"}, kBadAction + kBanner, "", 1},
        {"no arguments at all", {}, kBadAction + kBanner, "", 1},
        {"action is case-sensitive", {"--action", "SET", "--uid", "1"}, kBadAction + kBanner, "", 1},
        {"unknown action word", {"-A", "list", "--all"}, kBadAction + kBanner, "", 1},
        {"uid with all", {"--action", "set", "--uid", "5", "--all"}, kConflict + kBanner, "", 1},
        {"uid with ulogin", {"-A", "show", "-u", "5", "-l", "'x'"}, kConflict + kBanner, "", 1},
        {"all three", {"-A", "set", "-a", "-u", "1", "-l", "'x'"}, kConflict + kBanner, "", 1},
        {"conflict reported before show/quiet", {"-A", "show", "-q", "-a", "-u", "1"},
         kConflict + kBanner, "", 1},
        {"show with quiet", {"--action", "show", "--quiet", "--uid", "5"}, kShowQuiet + kBanner, "", 1},
        {"show with quiet and no target", {"-A", "show", "-q"}, kShowQuiet + kBanner, "", 1},
        {"set with no target is no parser error", {"--action", "set"}, "", kNoTargets, 10},
        {"show with no target", {"--action", "show", "--human"}, "", kNoTargets, 10},
        {"set quiet force children, no target", {"-A", "set", "-q", "-f", "-c"}, "", kNoTargets, 10},
    };
    // clang-format on
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        auto r = qxtest::spoolcap(c.args);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.status, c.status);
    }
}

}  // namespace
