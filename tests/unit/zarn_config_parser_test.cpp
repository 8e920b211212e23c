#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "zarn_base.h"
#include "zarn_config_parser.h"

namespace {

class TempFile {
  public:
    explicit TempFile(const std::string &content, int n = 0)
        : path_(std::filesystem::temp_directory_path() /
                ("conf_parser_test." + std::to_string(getpid()) + "." + std::to_string(n))) {
        std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
    }
    ~TempFile() { std::filesystem::remove(path_); }
    const char *path() const { return path_.c_str(); }

  private:
    std::filesystem::path path_;
};

// Collects the logger's lines as "channel/priority message" for its lifetime.
struct Log {
    Log() {
        fr_log_set_threshold(7);
        fr_log_set_sink(
            [](const char *, int, const char *, int ch, int prio, const char *msg, void *ctx) {
                static_cast<Log *>(ctx)->lines.push_back(std::to_string(ch) + "/" +
                                                         std::to_string(prio) + " " + msg);
            },
            this);
    }
    ~Log() { fr_log_set_sink(nullptr, nullptr); }
    std::vector<std::string> lines;
};

using Opt = std::optional<std::string>;
Opt take(char *p) {
    Opt s = p ? Opt(p) : std::nullopt;
    std::free(p);
    return s;
}

// The error lines a read left, joined; "" when it left none.
std::string errors(const Log &log) {
    std::string out;
    for (const auto &l : log.lines)
        if (l.rfind("3/3 ", 0) == 0) out += l.substr(4);
    return out;
}

TEST(ConfParser, StringValueKeywordAtStartThenABlank) {
    const struct {
        std::string content;
        Opt want;
        const char *error;  // fragment of the error logged, "" for none
    } rows[] = {
        {"VELKAN_DEBUG_PBX 1\n", "1", ""},
        {"  \tvelkan_debug_pbx\t  1 \r\n", "1", ""},
        {"VELKAN_DEBUG_PBXX 1\nVELKAN_DEBUG_PBX=1\nVELKAN_DEBUG_PBX\n", std::nullopt,
         "Directive VELKAN_DEBUG_PBX on line [3] of <"},
        {"VELKAN_DEBUG_PBX \t\r\nVELKAN_DEBUG_PBX 2\n", "", "on line [1] of <"},
        {"  # VELKAN_DEBUG_PBX 1\nX VELKAN_DEBUG_PBX 1\n", std::nullopt, ""},
        {"VELKAN_DEBUG_PBX 1 # kept\nVELKAN_DEBUG_PBX 2\n", "1 # kept", ""},
        // Lines hold at most 8191 bytes before the newline; the tail of a longer one is never
        // taken for a line of its own.
        {"VELKAN_DEBUG_PBX " + std::string(8191 - 17, 'v') + "\n", std::string(8174, 'v'), ""},
        {std::string(8191, 'x') + "VELKAN_DEBUG_PBX v\n", std::nullopt, ""},
        {std::string(8192, ' ') + "VELKAN_DEBUG_PBX v\nVELKAN_DEBUG_PBX w\n", "w", "Line [1] of <"},
        {"VELKAN_DEBUG_PBX " + std::string(9000, 'v'), std::nullopt,
         "> is longer than 8191 bytes; VELKAN_DEBUG_PBX ignored."},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.content.substr(0, 60));
        TempFile f(r.content);
        char *out = strdup("stale");
        Log log;
        EXPECT_EQ(qx_conf_parse_string_value("VELKAN_DEBUG_PBX", f.path(), &out), 0);
        EXPECT_EQ(take(out), r.want);
        const std::string logged = errors(log);
        EXPECT_NE(logged.find(r.error), std::string::npos) << logged;
        EXPECT_EQ(logged.empty(), !*r.error) << logged;
    }
}

TEST(ConfParser, CredentialsAndHostsKeywordAnywhereInLinesOf255Bytes) {
    const struct {
        std::string content;
        const char *keyword;
        int rc;
        std::string fields;  // "f1|f2|f3" or "host|port"
        const char *error;   // fragment of the error logged, "" for none
    } rows[] = {
        {"DB_CREDENTIALS a:u:p:db\n", nullptr, 0, "u|p|db", ""},
        {"DB_CREDENTIALS b:x:y:z\nXDB_CREDENTIALS a:u::d #c\n", nullptr, 0, "u||d", ""},
        {"#DB_CREDENTIALS a:u:p:db\ndb_credentials a:u:p:db\n", nullptr, -1, "", ""},
        {"DB_CREDENTIALS a:u:p:db:\n", nullptr, -1, "", "Invalid DB credentials line [1]"},
        {"DB_CREDENTIALS a:u:p\nDB_CREDENTIALS a:x:y:z\n", nullptr, -1, "", "line [1]"},
        {"#" + std::string(254, 'x') + "DB_CREDENTIALS a:u:p:db\n", nullptr, -1, "", ""},
        {"DB_CREDENTIALS a:u:p:" + std::string(234, 'c') + "\n", nullptr, 0,
         "u|p|" + std::string(234, 'c'), ""},
        {"DB_CREDENTIALS a:u:p:" + std::string(235, 'c') + "\nDB_CREDENTIALS a:u:p:q\n", nullptr, 0,
         "u|p|q", "> is longer than 255 bytes; DB_CREDENTIALS ignored."},
        {"DB_MASTER a:db1:3306\n", "DB_MASTER", 0, "db1|3306", ""},
        {"DB_MASTER a:fe80::1:5432 # v6\n", "DB_MASTER", 0, "fe80::1|5432", ""},
        {"DB_MASTER b:h:1\nXDB_MASTER a:h2:65535\n", "DB_MASTER", 0, "h2|65535", ""},
        {"DB_MASTERX a:h:1\n", "DB_MASTER", -1, "", ""},  // the id is "X a"
        {"DB_MASTER a:dbhost\nDB_MASTER a:h:1\n", "DB_MASTER", -1, "", "host line [1]"},
        {"DB_SLAVE a:s:1\nDB_MASTER a:m:2\n", "DB_SLAVE", 0, "s|1", ""},
        // A port that atoi would have read as 0, or as something else than written.
        {"DB_MASTER b:h:\nDB_MASTER a:h:1\n", "DB_MASTER", -1, "",
         "Invalid port [] of DB_MASTER on line [1]"},
        {"DB_MASTER a:h:80x\n", "DB_MASTER", -1, "", "Invalid port [80x]"},
        {"DB_MASTER a:h:65536\n", "DB_MASTER", -1, "", "Invalid port [65536]"},
        {"DB_MASTER a:h: 80\n", "DB_MASTER", -1, "", "Invalid port [ 80]"},
        {"DB_MASTER a:h:0\n", "DB_MASTER", -1, "", "Invalid port [0]"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.content.substr(0, 60));
        TempFile f(r.content);
        char *o[3] = {};
        int port = -1, rc;
        std::string got;
        Log log;
        if (r.keyword) {
            rc = qx_conf_parse_db_host(f.path(), "a", r.keyword[3] == 'M', &o[0], &port);
            if (rc == 0) got = *take(o[0]) + "|" + std::to_string(port);
        } else {
            rc = qx_conf_parse_db_cred(nullptr, f.path(), "a", &o[0], &o[1], &o[2]);
            if (rc == 0) got = *take(o[0]) + "|" + *take(o[1]) + "|" + *take(o[2]);
        }
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(got, r.fields);
        const std::string logged = errors(log);
        EXPECT_NE(logged.find(r.error), std::string::npos) << logged;
        EXPECT_EQ(logged.empty(), !*r.error) << logged;
    }
}

TEST(ConfParser, InvalidLinesAreReportedWithTheirLineNumbers) {
    TempFile cred(std::string(300, 'x') + "\n# c\nDB_CREDENTIALS a\n", 1);
    TempFile host("\nDB_MASTER a:dbhost\n", 2);
    Log log;
    EXPECT_EQ(qx_conf_parse_db_cred(nullptr, cred.path(), "a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qx_conf_parse_db_host_custom(host.path(), "a", "DB_MASTER", nullptr, nullptr), -1);
    EXPECT_EQ(log.lines,
              (std::vector<std::string>{
                  "3/3 Invalid DB credentials line [3] in <" + std::string(cred.path()) + ">.\n\n",
                  "3/3 Invalid DB host line [2] in <" + std::string(host.path()) + ">.\n\n"}));
}

TEST(ConfParser, WorkerKeywordEndsAtABlankOrControlByte) {
    const struct {
        const char *content;
        Opt want;
        const char *error;
    } rows[] = {
        {"WORKER_EXCHANGE ex1 # c\n", "ex1", ""},
        {"WORKER_EXCHANGEX ex1\n", std::nullopt, ""},
        {"MY_WORKER_EXCHANGE\tex1\n", "ex1", ""},
        {"WORKER_EXCHANGE\xc3\xa9x\n", "\xc3\xa9x", ""},
        {"WORKER_EXCHANGE#x\nWORKER_EXCHANGE y\n", "", "Directive WORKER_EXCHANGE on line [1]"},
    };
    for (const auto &r : rows) {
        TempFile f(r.content);
        char *out = nullptr;
        Log log;
        EXPECT_EQ(qx_conf_parse_worker(nullptr, f.path(), &out), r.want ? 0 : -1);
        EXPECT_EQ(take(out), r.want) << r.content;
        EXPECT_NE(errors(log).find(r.error), std::string::npos) << r.content;
        EXPECT_EQ(errors(log).empty(), !*r.error) << r.content;
    }
}

TEST(ConfParser, DirectiveTablesTakePrefixesAndStartEmptyOnEveryCall) {
    TempFile a(
        "DISDBASE_HOST h1\n  disdbase_host\th2\n# DISDBASE_HOST no\nDISDBASE_HOSTS x\n"
        "DISDBASE_CREDENTIALS c1\nOTHER y\n" +
            std::string(8191, ' ') + "DISDBASE_HOST h3\nDISDBASE_CREDENTIALS \t\n",
        1);
    TempFile b("DISDBASE_HOST h4 # kept\nDB_HOST z\n", 2);
    const std::string missing = std::string(a.path()) + ".missing";
    const char *files[] = {missing.c_str(), a.path(), b.path(), nullptr};
    qx_conf_directive table[] = {{"DISDBASE_HOST", 0, nullptr},
                                 {"DISDBASE_CREDENTIALS", 0, nullptr},
                                 {"DB", 0, nullptr},
                                 {"DB_HOST", 0, nullptr},
                                 {nullptr, 0, nullptr}};
    const std::vector<std::vector<std::string>> want = {
        {"h1", "h2", "S x", "h4 # kept"}, {"c1", ""}, {"_HOST z"}, {}};
    for (int call = 0; call < 2; ++call) {
        Log log;
        EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, files), 0);
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_EQ(std::vector<std::string>(table[i].values, table[i].values + table[i].count),
                      want[i]);
        const std::string at = std::string(" of <") + a.path() + ">";
        EXPECT_EQ(log.lines,
                  (std::vector<std::string>{"3/3 Error opening configuration file <" + missing +
                                                ">: No such file or directory.\n\n",
                                            "3/3 Line [7]" + at +
                                                " is longer than 8191 bytes; "
                                                "DISDBASE_HOST ignored.\n\n",
                                            "3/3 Directive DISDBASE_CREDENTIALS on line [8]" + at +
                                                " has no value.\n\n"}));
    }
    // A NULL path reads nothing but still starts from an empty table.
    EXPECT_EQ(qx_conf_parse_multi_directives(table, nullptr), 0);
    EXPECT_EQ(table[0].values, nullptr);
    EXPECT_EQ(table[0].count, 0);
    errno = 0;
    EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ConfParser, EarlyReturnsLeaveADebugTrace) {
    const char *missing = "/nonexistent/quorvex.conf";
    char *out = nullptr;
    const std::function<int()> calls[] = {
        [&] { return qx_conf_parse_string_value("K", missing, nullptr); },
        [&] { return qx_conf_parse_string_value("K", missing, &out); },
        [&] { return qx_conf_parse_db_cred(nullptr, missing, "a", &out, &out, &out); },
        [&] { return qx_conf_parse_worker(nullptr, missing, &out); },
        [&] { return qx_conf_parse_db_host(missing, "a", 1, &out, nullptr); },
    };
    for (const auto &call : calls) {
        Log log;
        EXPECT_EQ(call(), -1);
        ASSERT_EQ(log.lines.size(), 1u);
        int line = 0;
        char tail[32] = {};
        EXPECT_EQ(std::sscanf(log.lines[0].c_str(), "2/7 ../main/zarn_config_parser:%d:%31[^\n]",
                              &line, tail),
                  2)
            << log.lines[0];
        EXPECT_GT(line, 0);
        EXPECT_STREQ(tail, "conditional return");
    }
    EXPECT_EQ(out, nullptr);
}

}  // namespace
