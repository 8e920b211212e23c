#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <vector>

#include "unit.hpp"
#include "zarn_config_parser.h"

namespace {

using namespace unit;
using std::string;

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
    // The error lines, joined; "" when there were none.
    string errors() const {
        string out;
        for (const auto &l : lines)
            if (l.rfind("3/3 ", 0) == 0) out += l.substr(4);
        return out;
    }
    std::vector<string> lines;
};

// Every reader: a row's error is a fragment of the errors logged, "" when none may be.
void expect_errors(const Log &log, const char *error) {
    const string logged = log.errors();
    EXPECT_NE(logged.find(error), string::npos) << logged;
    EXPECT_EQ(logged.empty(), !*error) << logged;
}

TEST(ConfParser, StringValueKeywordAtStartThenABlank) {
    const struct {
        string content;
        Opt want;
        const char *error;
    } rows[] = {
        {"VELKAN_DEBUG_PBX 1\n", "1", ""},
        {"  \tvelkan_debug_pbx\t  1 \r\n", "1", ""},
        {"VELKAN_DEBUG_PBXX 1\nVELKAN_DEBUG_PBX=1\nVELKAN_DEBUG_PBX\n", no,
         "Directive VELKAN_DEBUG_PBX on line [3] of <"},
        {"VELKAN_DEBUG_PBX \t\r\nVELKAN_DEBUG_PBX 2\n", "", "on line [1] of <"},
        {"  # VELKAN_DEBUG_PBX 1\nX VELKAN_DEBUG_PBX 1\n", no, ""},
        {"VELKAN_DEBUG_PBX 1 # kept\nVELKAN_DEBUG_PBX 2\n", "1 # kept", ""},
        // Lines hold at most 8191 bytes before the newline; the tail of a longer one is never
        // taken for a line of its own.
        {"VELKAN_DEBUG_PBX " + string(8191 - 17, 'v') + "\n", string(8174, 'v'), ""},
        {string(8191, 'x') + "VELKAN_DEBUG_PBX v\n", no, ""},
        {string(8192, ' ') + "VELKAN_DEBUG_PBX v\nVELKAN_DEBUG_PBX w\n", "w", "Line [1] of <"},
        {"VELKAN_DEBUG_PBX " + string(9000, 'v'), no,
         "> is longer than 8191 bytes; VELKAN_DEBUG_PBX ignored."}};
    TempDir dir;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.content.substr(0, 60));
        char *out = strdup("stale");
        Log log;
        EXPECT_EQ(
            qx_conf_parse_string_value("VELKAN_DEBUG_PBX", dir.write("c", r.content).c_str(), &out),
            0);
        EXPECT_EQ(take(out), r.want);
        expect_errors(log, r.error);
    }
}

TEST(ConfParser, CredentialsHostsAndWorkerKeywordAnywhereInTheLine) {
    const struct {
        string content;
        const char *keyword;  // DB_MASTER, DB_SLAVE, WORKER_EXCHANGE or (null) DB_CREDENTIALS
        int rc;
        string fields;  // "user|password|db", "host|port" or the exchange
        const char *error;
    } rows[] = {{"DB_CREDENTIALS a:u:p:db\n", nullptr, 0, "u|p|db", ""},
                {"DB_CREDENTIALS b:x:y:z\nXDB_CREDENTIALS a:u::d #c\n", nullptr, 0, "u||d", ""},
                {"#DB_CREDENTIALS a:u:p:db\ndb_credentials a:u:p:db\n", nullptr, -1, "", ""},
                {"DB_CREDENTIALS a:u:p:db:\n", nullptr, -1, "", "Invalid DB credentials line [1]"},
                {"DB_CREDENTIALS a:u:p\nDB_CREDENTIALS a:x:y:z\n", nullptr, -1, "", "line [1]"},
                // Lines of 255 bytes.
                {"#" + string(254, 'x') + "DB_CREDENTIALS a:u:p:db\n", nullptr, -1, "", ""},
                {"DB_CREDENTIALS a:u:p:" + string(234, 'c') + "\n", nullptr, 0,
                 "u|p|" + string(234, 'c'), ""},
                {"DB_CREDENTIALS a:u:p:" + string(235, 'c') + "\nDB_CREDENTIALS a:u:p:q\n", nullptr,
                 0, "u|p|q", "> is longer than 255 bytes; DB_CREDENTIALS ignored."},
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
                // The worker's keyword ends at a blank or a control byte.
                {"WORKER_EXCHANGE ex1 # c\n", "WORKER_EXCHANGE", 0, "ex1", ""},
                {"WORKER_EXCHANGEX ex1\n", "WORKER_EXCHANGE", -1, "", ""},
                {"MY_WORKER_EXCHANGE\tex1\n", "WORKER_EXCHANGE", 0, "ex1", ""},
                {"WORKER_EXCHANGE\xc3\xa9x\n", "WORKER_EXCHANGE", 0, "\xc3\xa9x", ""},
                {"WORKER_EXCHANGE#x\nWORKER_EXCHANGE y\n", "WORKER_EXCHANGE", 0, "",
                 "Directive WORKER_EXCHANGE on line [1]"}};
    TempDir dir;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.content.substr(0, 60));
        const string path = dir.write("c", r.content);
        char *o[3] = {};
        int port = -1, rc;
        Opt got;
        Log log;
        if (!r.keyword) {
            rc = qx_conf_parse_db_cred(nullptr, path.c_str(), "a", &o[0], &o[1], &o[2]);
            if (rc == 0) got = *take(o[0]) + "|" + *take(o[1]) + "|" + *take(o[2]);
        } else if (r.keyword[0] == 'W') {
            rc = qx_conf_parse_worker(nullptr, path.c_str(), &o[0]);
            got = take(o[0]);
        } else {
            rc = qx_conf_parse_db_host(path.c_str(), "a", r.keyword[3] == 'M', &o[0], &port);
            if (rc == 0) got = *take(o[0]) + "|" + std::to_string(port);
        }
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(got.value_or(""), r.fields);
        EXPECT_EQ(got.has_value(), r.rc == 0);
        expect_errors(log, r.error);
    }
}

TEST(ConfParser, InvalidLinesAreReportedWithTheirLineNumbers) {
    TempDir dir;
    const string cred = dir.write("cred", string(300, 'x') + "\n# c\nDB_CREDENTIALS a\n");
    const string host = dir.write("host", "\nDB_MASTER a:dbhost\n");
    Log log;
    EXPECT_EQ(qx_conf_parse_db_cred(nullptr, cred.c_str(), "a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qx_conf_parse_db_host_custom(host.c_str(), "a", "DB_MASTER", nullptr, nullptr), -1);
    EXPECT_EQ(log.lines,
              (std::vector<string>{"3/3 Invalid DB credentials line [3] in <" + cred + ">.\n\n",
                                   "3/3 Invalid DB host line [2] in <" + host + ">.\n\n"}));
}

TEST(ConfParser, DirectiveTablesTakePrefixesAndStartEmptyOnEveryCall) {
    TempDir dir;
    const string a =
        dir.write("a",
                  "DISDBASE_HOST h1\n  disdbase_host\th2\n# DISDBASE_HOST no\nDISDBASE_HOSTS x\n"
                  "DISDBASE_CREDENTIALS c1\nOTHER y\n" +
                      string(8191, ' ') + "DISDBASE_HOST h3\nDISDBASE_CREDENTIALS \t\n");
    const string b = dir.write("b", "DISDBASE_HOST h4 # kept\nDB_HOST z\n"), missing = a + ".no";
    const char *files[] = {missing.c_str(), a.c_str(), b.c_str(), nullptr};
    qx_conf_directive table[] = {{"DISDBASE_HOST", 0, nullptr},
                                 {"DISDBASE_CREDENTIALS", 0, nullptr},
                                 {"DB", 0, nullptr},
                                 {"DB_HOST", 0, nullptr},
                                 {nullptr, 0, nullptr}};
    const std::vector<std::vector<string>> want = {
        {"h1", "h2", "S x", "h4 # kept"}, {"c1", ""}, {"_HOST z"}, {}};
    for (int call = 0; call < 2; ++call) {
        Log log;
        EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, files), 0);
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_EQ(std::vector<string>(table[i].values, table[i].values + table[i].count),
                      want[i]);
        EXPECT_EQ(log.lines, (std::vector<string>{
                                 "3/3 Error opening configuration file <" + missing +
                                     ">: No such file or directory.\n\n",
                                 "3/3 Line [7] of <" + a +
                                     "> is longer than 8191 bytes; DISDBASE_HOST ignored.\n\n",
                                 "3/3 Directive DISDBASE_CREDENTIALS on line [8] of <" + a +
                                     "> has no value.\n\n"}));
    }
    // A NULL path reads nothing but still starts from an empty table.
    EXPECT_EQ(qx_conf_parse_multi_directives(table, nullptr), 0);
    EXPECT_EQ(std::pair(table[0].values, table[0].count), std::pair((char **)nullptr, 0));
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
        [&] { return qx_conf_parse_db_host(missing, "a", 1, &out, nullptr); }};
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
