

#include "unit.hpp"
#include "zarn_config_parser.h"

using Log = qxtest::LogCapture;

// A row: the file, the keyword read (VELKAN_DEBUG_PBX is a plain string value), the status, what
// was read ("user|password|db", "host|port", the value; "(null)": nothing), an error fragment.
// The string value's keyword starts the line and ends at a blank; the others may stand anywhere
// in the line and the worker's ends at a blank or a control byte. String lines hold at most 8191
// bytes, the others 255; the tail of a longer line is never taken for a line of its own. A port
// that atoi would have read as 0, or as something else than written, is invalid.
TEST(ConfParser, KeywordsValuesAndLineLimitsOfEveryReader) {
    const char *cred = "DB_CREDENTIALS", *master = "DB_MASTER", *worker = "WORKER_EXCHANGE",
               *str = "VELKAN_DEBUG_PBX";
    const string c234(234, 'c'), v8174(8174, 'v');
    const std::tuple<string, const char *, int, string, const char *> rows[] = {
        {"VELKAN_DEBUG_PBX 1\n", str, 0, "1", ""},
        {"  \tvelkan_debug_pbx\t  1 \r\n", str, 0, "1", ""},
        {"VELKAN_DEBUG_PBXX 1\nVELKAN_DEBUG_PBX=1\nVELKAN_DEBUG_PBX\n", str, 0, "(null)",
         "Directive VELKAN_DEBUG_PBX on line [3] of <"},
        {"VELKAN_DEBUG_PBX \t\r\nVELKAN_DEBUG_PBX 2\n", str, 0, "", "on line [1] of <"},
        {"  # VELKAN_DEBUG_PBX 1\nX VELKAN_DEBUG_PBX 1\n", str, 0, "(null)", ""},
        {"VELKAN_DEBUG_PBX 1 # kept\nVELKAN_DEBUG_PBX 2\n", str, 0, "1 # kept", ""},
        {"VELKAN_DEBUG_PBX " + v8174 + "\n", str, 0, v8174, ""},
        {string(8191, 'x') + "VELKAN_DEBUG_PBX v\n", str, 0, "(null)", ""},
        {string(8192, ' ') + "VELKAN_DEBUG_PBX v\nVELKAN_DEBUG_PBX w\n", str, 0, "w",
         "Line [1] of <"},
        {"VELKAN_DEBUG_PBX " + string(9000, 'v'), str, 0, "(null)",
         "> is longer than 8191 bytes; VELKAN_DEBUG_PBX ignored."},
        {"DB_CREDENTIALS a:u:p:db\n", cred, 0, "u|p|db", ""},
        {"DB_CREDENTIALS b:x:y:z\nXDB_CREDENTIALS a:u::d #c\n", cred, 0, "u||d", ""},
        {"#DB_CREDENTIALS a:u:p:db\ndb_credentials a:u:p:db\n", cred, -1, "(null)", ""},
        {"DB_CREDENTIALS a:u:p:db:\n", cred, -1, "(null)", "Invalid DB credentials line [1]"},
        {"DB_CREDENTIALS a:u:p\nDB_CREDENTIALS a:x:y:z\n", cred, -1, "(null)", "line [1]"},
        {"#" + string(254, 'x') + "DB_CREDENTIALS a:u:p:db\n", cred, -1, "(null)", ""},
        {"DB_CREDENTIALS a:u:p:" + c234 + "\n", cred, 0, "u|p|" + c234, ""},
        {"DB_CREDENTIALS a:u:p:" + c234 + "c\nDB_CREDENTIALS a:u:p:q\n", cred, 0, "u|p|q",
         "> is longer than 255 bytes; DB_CREDENTIALS ignored."},
        {"DB_MASTER a:fe80::1:5432 # v6\n", master, 0, "fe80::1|5432", ""},
        {"DB_MASTER b:h:1\nXDB_MASTER a:h2:65535\n", master, 0, "h2|65535", ""},
        {"DB_MASTERX a:h:1\n", master, -1, "(null)", ""},  // the id is "X a"
        {"DB_MASTER a:dbhost\nDB_MASTER a:h:1\n", master, -1, "(null)", "host line [1]"},
        {"DB_SLAVE a:s:1\nDB_MASTER a:m:2\n", "DB_SLAVE", 0, "s|1", ""},
        {"DB_MASTER b:h:\nDB_MASTER a:h:1\n", master, -1, "(null)",
         "Invalid port [] of DB_MASTER on line [1]"},
        {"DB_MASTER a:h:80x\n", master, -1, "(null)", "Invalid port [80x]"},
        {"DB_MASTER a:h:65536\n", master, -1, "(null)", "Invalid port [65536]"},
        {"DB_MASTER a:h: 80\n", master, -1, "(null)", "Invalid port [ 80]"},
        {"DB_MASTER a:h:0\n", master, -1, "(null)", "Invalid port [0]"},
        {"WORKER_EXCHANGE ex1 # c\n", worker, 0, "ex1", ""},
        {"WORKER_EXCHANGEX ex1\n", worker, -1, "(null)", ""},
        {"MY_WORKER_EXCHANGE\tex1\n", worker, 0, "ex1", ""},
        {"WORKER_EXCHANGE\xc3\xa9x\n", worker, 0, "\xc3\xa9x", ""},
        {"WORKER_EXCHANGE#x\nWORKER_EXCHANGE y\n", worker, 0, "",
         "Directive WORKER_EXCHANGE on line [1]"}};
    TempDir dir;
    for (const auto &[content, keyword, rc, fields, error] : rows) {
        SCOPED_TRACE(content.substr(0, 60));
        const string path = dir.write("c", content);
        char *o[3] = {keyword == str ? strdup("stale") : nullptr, nullptr, nullptr};
        int port = -1;
        Opt got;
        Log log;
        if (keyword == cred) {
            EXPECT_EQ(qx_conf_parse_db_cred(nullptr, path.c_str(), "a", &o[0], &o[1], &o[2]), rc);
            if (o[0]) got = *take(o[0]) + "|" + *take(o[1]) + "|" + *take(o[2]);
        } else if (keyword == worker) {
            EXPECT_EQ(qx_conf_parse_worker(nullptr, path.c_str(), &o[0]), rc);
            got = take(o[0]);
        } else if (keyword == str) {
            EXPECT_EQ(qx_conf_parse_string_value(str, path.c_str(), &o[0]), rc);
            got = take(o[0]);
        } else {
            EXPECT_EQ(qx_conf_parse_db_host(path.c_str(), "a", keyword == master, &o[0], &port),
                      rc);
            if (o[0]) got = *take(o[0]) + "|" + std::to_string(port);
        }
        EXPECT_EQ(got.value_or("(null)"), fields);
        EXPECT_EQ(log.contains_at(3, error), *error != '\0') << error;
    }
}

TEST(ConfParser, InvalidLinesAreReportedWithTheirLineNumbers) {
    TempDir dir;
    const string cred = dir.write("cred", string(300, 'x') + "\n# c\nDB_CREDENTIALS a\n");
    const string host = dir.write("host", "\nDB_MASTER a:dbhost\n");
    Log log;
    EXPECT_EQ(qx_conf_parse_db_cred(nullptr, cred.c_str(), "a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qx_conf_parse_db_host_custom(host.c_str(), "a", "DB_MASTER", nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(),
              (std::vector<string>{"Invalid DB credentials line [3] in <" + cred + ">.\n\n",
                                   "Invalid DB host line [2] in <" + host + ">.\n\n"}));
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
        EXPECT_EQ(
            log.lines(),
            (std::vector<string>{
                "Error opening configuration file <" + missing +
                    ">: No such file or directory.\n\n",
                "Line [7] of <" + a + "> is longer than 8191 bytes; DISDBASE_HOST ignored.\n\n",
                "Directive DISDBASE_CREDENTIALS on line [8] of <" + a + "> has no value.\n\n"}));
    }
    // A NULL path reads nothing but still starts from an empty table.
    EXPECT_EQ(qx_conf_parse_multi_directives(table, nullptr), 0);
    EXPECT_EQ(std::pair(table[0].values, table[0].count), std::pair((char **)nullptr, 0));
    errno = 0;
    EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    // A missing file fails every reader.
    char *out = nullptr;
    EXPECT_EQ(qx_conf_parse_string_value("K", missing.c_str(), &out), -1);
    EXPECT_EQ(qx_conf_parse_db_cred(nullptr, missing.c_str(), "a", &out, &out, &out), -1);
    EXPECT_EQ(qx_conf_parse_worker(nullptr, missing.c_str(), &out), -1);
    EXPECT_EQ(qx_conf_parse_db_host(missing.c_str(), "a", 1, &out, nullptr), -1);
    EXPECT_EQ(out, nullptr);
}
