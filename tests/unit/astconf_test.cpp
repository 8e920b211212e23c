#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "unit.hpp"
#include "utils.h"

namespace {

using namespace unit;
using std::string;
const char *keys[] = {"astspooldir", "astlibdir", "a=b", nullptr};
using Values = std::vector<Opt>;

// Reads content with the section reader (section given) or the plain reader (no section) and
// returns the three values; the errors logged go to *errors.
Values read(const string &content, std::optional<const char *> section, string *errors) {
    qxtest::LogCapture log;
    fr_log_set_threshold(3);
    TempDir dir;
    const string path = dir.write("asterisk.conf", content);
    safestr_t *values[3];
    // The plain reader drops what the caller left in the array without freeing it.
    for (auto &v : values)
        v = section ? nullptr : reinterpret_cast<safestr_t *>(&values);
    EXPECT_EQ(section ? get_astconf_section_values(path.c_str(), *section, keys, values)
                      : get_astconf_values(path.c_str(), keys, values, 3),
              0);
    Values out;
    for (auto *v : values)
        out.push_back(take(v));
    for (const auto &l : log.lines())
        *errors += l;
    return out;
}

TEST(Astconf, SectionReaderLineRules) {
    const char *dirs = "directories";
    const struct {
        string content;
        const char *section;
        Values want;
        const char *error = "";  // fragment of the errors logged
    } rows[] = {
        {"[directories]\nastspooldir => /a\nastlibdir=/b\n", dirs, {"/a", "/b", no}},
        {"[directories]\nastspooldir => /a\nastspooldir => /b\n", dirs, {"/b", no, no}},
        {"astspooldir => /x\n[directories]\nastlibdir => /b\n", dirs, {no, "/b", no}},
        {"[g]\nastspooldir => /x\n[directories]\nastlibdir => /b\n", nullptr, {"/x", "/b", no}},
        {"[directories]\nastspooldir => /a\n[x]\nastlibdir => /b\n", dirs, {"/a", no, no}},
        {"  [directories](!)\nastspooldir => /a\n", dirs, {"/a", no, no}},
        {"[directories]\n # see [x]\nastspooldir => /a\n", dirs, {"/a", no, no}},
        {"[directories]\nastspooldir => /a[1]\nastlibdir => /b\n", dirs, {no, no, no}},
        {"astspooldir => /a\nastspooldir =>\nastlibdir=  \t\n",
         nullptr,
         {"/a", no, no},
         "Key astspooldir on line [2] of <"},
        {"astspooldir => /a\nastlibdir=  \t\n",
         nullptr,
         {"/a", no, no},
         "Key astlibdir on line [2]"},
        {"[directories]\nastspooldir /a\n[x]\nother\n",
         dirs,
         {no, no, no},
         "Line [2] of <" /* only the wanted section */},
        {"[directories]\n astlibdir  /a \n",
         dirs,
         {no, no, no},
         "is not a key => value line: astlibdir  /a\n"},
        {"  # astspooldir => /x\n; astlibdir => /y\n", nullptr, {no, no, no}},
        {"astspooldir => /spool ; old\n", nullptr, {"/spool ; old", no, no}},
        {"a=b=>c\nAstLibDir => /a\n", nullptr, {no, no, "c"}},
        {" \tastspooldir \t =>  /a b \r\nastlibdir => " + string(5000, 'v'),
         nullptr,
         {"/a b", string(5000, 'v'), no}},
    };
    for (const auto &r : rows) {
        string errors;
        EXPECT_EQ(read(r.content, r.section, &errors), r.want) << r.content;
        EXPECT_NE(errors.find(r.error), string::npos) << errors;
        EXPECT_EQ(errors.empty(), !*r.error) << errors;
        EXPECT_EQ(errors.find("[4]"), string::npos) << errors;
    }
}

TEST(Astconf, PlainReaderTakesArrowsOnlyInLinesOf1023Bytes) {
    const string too_long = "> is longer than 1023 bytes; ignored: ";
    const struct {
        string content;
        Values want;
        string error;  // fragment of the errors logged
    } rows[] = {
        {"astspooldir=/srv\n[x]\nastlibdir => /b\n#astlibdir => /c\n", {no, "/b", no}, ""},
        {"astspooldir =>  \na=b=>c\n", {no, no, "c"}, "Key astspooldir on line [1] of <"},
        {string(1008, 'x') + "astlibdir => /b\n", {no, no, no}, ""},  // 1023 bytes
        {"astlibdir => " + string(1010, 'v'), {no, string(1010, 'v'), no}, ""},
        // The tail of a longer line is not read as a line of its own.
        {string(1023, 'x') + "astlibdir => /b\n", {no, no, no}, "Line [1] of <"},
        {"\n" + string(1024, 'x') + "\nastlibdir => /b", {no, "/b", no}, "Line [2] of <"},
        {"astlibdir => " + string(2000, 'v'), {no, no, no}, too_long + "astlibdir => vvv"},
    };
    for (const auto &r : rows) {
        string errors;
        EXPECT_EQ(read(r.content, std::nullopt, &errors), r.want) << r.content.substr(0, 40);
        EXPECT_NE(errors.find(r.error), string::npos) << errors;
        EXPECT_EQ(errors.empty(), r.error.empty()) << errors;
    }
    safestr_t *values[3] = {};
    EXPECT_EQ(get_astconf_section_values("/nonexistent", nullptr, keys, values), -1);
    EXPECT_EQ(get_astconf_values("/nonexistent", keys, values, 3), -1);
}

TEST(Astconf, LineLayoutHelpers) {
    for (auto [line, c1, c2, want] : {std::tuple{" \t\r\n", '#', '\0', 1},
                                      {"  # x", '#', '\0', 1},
                                      {"; x", '#', '\0', 0},
                                      {"//x", '/', '/', 1},
                                      {" /x", '/', '/', 0},
                                      {"\xa0#", '#', '\0', 0}})
        EXPECT_EQ(is_ignorable(line, c1, c2), want) << line;

    for (auto [line, len, chars, want] : {std::tuple{"\t  x", 3, (const char *)nullptr, "\t "},
                                          {"--x", 10, "-", "--"},
                                          {"     ", 5, nullptr, "    "},
                                          {"abc", 10, nullptr, ""}}) {
        char dst[16];
        std::memset(dst, 'Z', sizeof dst);
        EXPECT_STREQ(get_start_padding(line, dst, len, chars), want);
        EXPECT_EQ(string(dst + len, sizeof dst - len), string(sizeof dst - len, 'Z'));
    }

    for (auto [line, want] : {std::pair{"value ;note", " ;note"},
                              {"value;note", ";note"},
                              {";note", ";note"},
                              {"  ;note", " ;note"},
                              {"a \t;b ;c", " \t;b ;c"},
                              {"value", ""}}) {
        const char *got = get_inline_comment(line, nullptr, 0, ";");
        EXPECT_STREQ(got, want);
        if (*want) {
            EXPECT_EQ(got, line + std::strlen(line) - std::strlen(want)) << "not into line";
        }
    }
    char dst[8];
    std::memset(dst, 'Z', sizeof dst);
    EXPECT_EQ(get_inline_comment("value ;note", dst, 4, ";"), dst);
    EXPECT_EQ(string(dst, sizeof dst), " ;noZZZZ");  // like strncpy: no terminator
}

}  // namespace
