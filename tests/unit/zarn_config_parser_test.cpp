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

TEST(ConfParser, StringValueKeywordAtStartThenABlank) {
    const std::pair<std::string, Opt> rows[] = {
        {"VELKAN_DEBUG_PBX 1\n", "1"},
        {"  \tvelkan_debug_pbx\t  1 \r\n", "1"},
        {"VELKAN_DEBUG_PBXX 1\nVELKAN_DEBUG_PBX=1\nVELKAN_DEBUG_PBX\n", std::nullopt},
        {"  # VELKAN_DEBUG_PBX 1\nX VELKAN_DEBUG_PBX 1\n", std::nullopt},
        {"VELKAN_DEBUG_PBX 1 # kept\nVELKAN_DEBUG_PBX 2\n", "1 # kept"},
        // Lines are read in 8191-byte pieces; blanks leading a piece are skipped.
        {std::string(8190, 'x') + "VELKAN_DEBUG_PBX v\n", std::nullopt},
        {std::string(8191, 'x') + "VELKAN_DEBUG_PBX v\n", "v"},
        {std::string(8192, 'x') + "VELKAN_DEBUG_PBX v\n", std::nullopt},
        {std::string(8192, ' ') + "VELKAN_DEBUG_PBX v\n", "v"},
        {"VELKAN_DEBUG_PBX " + std::string(9000, 'v'), std::string(8191 - 17, 'v')},
    };
    for (const auto &[content, want] : rows) {
        TempFile f(content);
        char *out = strdup("stale");
        EXPECT_EQ(qx_conf_parse_string_value("VELKAN_DEBUG_PBX", f.path(), &out), 0);
        EXPECT_EQ(take(out), want) << content.substr(0, 60);
    }
}

TEST(ConfParser, CredentialsAndHostsKeywordAnywhereIn255BytePieces) {
    const struct {
        std::string content;
        const char *keyword;
        int rc;
        std::string fields;  // "f1|f2|f3" or "host|port"
    } rows[] = {
        {"DB_CREDENTIALS a:u:p:db\n", nullptr, 0, "u|p|db"},
        {"DB_CREDENTIALS b:x:y:z\nXDB_CREDENTIALS a:u::d #c\n", nullptr, 0, "u||d"},
        {"#DB_CREDENTIALS a:u:p:db\ndb_credentials a:u:p:db\n", nullptr, -1, ""},
        {"DB_CREDENTIALS a:u:p:db:\n", nullptr, -1, ""},
        {"DB_CREDENTIALS a:u:p\nDB_CREDENTIALS a:x:y:z\n", nullptr, -1, ""},
        // The '#' of one piece does not cut the next one.
        {"#" + std::string(253, 'x') + "DB_CREDENTIALS a:u:p:db\n", nullptr, -1, ""},
        {"#" + std::string(254, 'x') + "DB_CREDENTIALS a:u:p:db\n", nullptr, 0, "u|p|db"},
        {"DB_CREDENTIALS a:u:p:" + std::string(234, 'c') + "\n", nullptr, 0,
         "u|p|" + std::string(234, 'c')},
        {"DB_CREDENTIALS a:u:p:" + std::string(235, 'c') + "\n", nullptr, 0,
         "u|p|" + std::string(234, 'c')},
        {"DB_MASTER a:db1:3306\n", "DB_MASTER", 0, "db1|3306"},
        {"DB_MASTER a:fe80::1:5432 # v6\n", "DB_MASTER", 0, "fe80::1|5432"},
        {"DB_MASTER b:h:1\nXDB_MASTER a:h2:\n", "DB_MASTER", 0, "h2|0"},
        {"DB_MASTERX a:h:1\n", "DB_MASTER", -1, ""},  // the id is "X a"
        {"DB_MASTER a:dbhost\nDB_MASTER a:h:1\n", "DB_MASTER", -1, ""},
        {"DB_SLAVE a:s:1\nDB_MASTER a:m:2\n", "DB_SLAVE", 0, "s|1"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.content.substr(0, 60));
        TempFile f(r.content);
        char *o[3] = {};
        int port = -1, rc;
        std::string got;
        if (r.keyword) {
            rc = qx_conf_parse_db_host(f.path(), "a", r.keyword[3] == 'M', &o[0], &port);
            if (rc == 0) got = *take(o[0]) + "|" + std::to_string(port);
        } else {
            rc = qx_conf_parse_db_cred(nullptr, f.path(), "a", &o[0], &o[1], &o[2]);
            if (rc == 0) got = *take(o[0]) + "|" + *take(o[1]) + "|" + *take(o[2]);
        }
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(got, r.fields);
    }
}

TEST(ConfParser, InvalidLinesAreReportedWithPieceLineNumbers) {
    TempFile cred(std::string(300, 'x') + "\n# c\nDB_CREDENTIALS a\n", 1);
    TempFile host("\nDB_MASTER a:dbhost\n", 2);
    Log log;
    EXPECT_EQ(qx_conf_parse_db_cred(nullptr, cred.path(), "a", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(qx_conf_parse_db_host_custom(host.path(), "a", "DB_MASTER", nullptr, nullptr), -1);
    EXPECT_EQ(log.lines,
              (std::vector<std::string>{
                  "3/3 Invalid DB credentials line [4] in <" + std::string(cred.path()) + ">.\n\n",
                  "3/3 Invalid DB host line [2] in <" + std::string(host.path()) + ">.\n\n"}));
}

TEST(ConfParser, WorkerKeywordEndsAtABlankOrControlByte) {
    const std::pair<const char *, Opt> rows[] = {
        {"WORKER_EXCHANGE ex1 # c\n", "ex1"},           {"WORKER_EXCHANGEX ex1\n", std::nullopt},
        {"MY_WORKER_EXCHANGE\tex1\n", "ex1"},           {"WORKER_EXCHANGE\xc3\xa9x\n", "\xc3\xa9x"},
        {"WORKER_EXCHANGE#x\nWORKER_EXCHANGE y\n", ""},
    };
    for (const auto &[content, want] : rows) {
        TempFile f(content);
        char *out = nullptr;
        EXPECT_EQ(qx_conf_parse_worker(nullptr, f.path(), &out), want ? 0 : -1);
        EXPECT_EQ(take(out), want) << content;
    }
}

TEST(ConfParser, DirectiveTablesTakePrefixesAndStartEmptyOnEveryCall) {
    TempFile a(
        "DISDBASE_HOST h1\n  disdbase_host\th2\n# DISDBASE_HOST no\nDISDBASE_HOSTS x\n"
        "DISDBASE_CREDENTIALS c1\nOTHER y\n" +
            std::string(8191, ' ') + "DISDBASE_HOST h3\n",
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
        {"h1", "h2", "S x", "h3", "h4 # kept"}, {"c1"}, {"_HOST z"}, {}};
    for (int call = 0; call < 2; ++call) {
        Log log;
        EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, files), 0);
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_EQ(std::vector<std::string>(table[i].values, table[i].values + table[i].count),
                      want[i]);
        EXPECT_EQ(log.lines,
                  std::vector<std::string>{"3/3 Error opening configuration file <" + missing +
                                           ">: No such file or directory.\n\n"});
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
