

#include "unit.hpp"
#include "utils.h"

const char *keys[] = {"astspooldir", "astlibdir", "a=b", nullptr};
using Values = std::vector<Opt>;

// The three values read by the section reader (section given) or the plain one; errors to *errors.
Values read(const string &content, std::optional<const char *> section, string *errors) {
    qxtest::LogCapture log;
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
        *errors += log.contains_at(3, l) ? l : "";
    return out;
}

// A row: the file, the reader (section name or null: section reader; plain), the three values, a
// fragment of the errors logged ("" when none may be). The plain reader takes arrows only in
// lines of at most 1023 bytes; the tail of a longer line is never read as a line of its own.
TEST(Astconf, ReadersLineRules) {
    const std::optional<const char *> dirs = "directories", whole = nullptr, plain;
    const string too_long = "> is longer than 1023 bytes; ignored: ";
    const std::tuple<string, std::optional<const char *>, Values, string> rows[] = {
        {"[directories]\nastspooldir => /a\nastlibdir=/b\n", dirs, {"/a", "/b", no}, ""},
        {"[directories]\nastspooldir => /a\nastspooldir => /b\n", dirs, {"/b", no, no}, ""},
        {"astspooldir => /x\n[directories]\nastlibdir => /b\n", dirs, {no, "/b", no}, ""},
        {"[g]\nastspooldir => /x\n[directories]\nastlibdir => /b\n", whole, {"/x", "/b", no}, ""},
        {"[directories]\nastspooldir => /a\n[x]\nastlibdir => /b\n", dirs, {"/a", no, no}, ""},
        {"  [directories](!)\nastspooldir => /a\n", dirs, {"/a", no, no}, ""},
        {"[directories]\n # see [x]\nastspooldir => /a\n", dirs, {"/a", no, no}, ""},
        {"[directories]\nastspooldir => /a[1]\nastlibdir => /b\n", dirs, {no, no, no}, ""},
        {"astspooldir => /a\nastspooldir =>\nastlibdir=  \t\n",
         whole,
         {"/a", no, no},
         "Key astspooldir on line [2] of <"},
        {"[directories]\nastspooldir /a\n[x]\nother\n", dirs, {no, no, no}, "Line [2] of <"},
        {"[directories]\n astlibdir  /a \n",
         dirs,
         {no, no, no},
         "is not a key => value line: astlibdir  /a\n"},
        {"  # astspooldir => /x\n; astlibdir => /y\n", whole, {no, no, no}, ""},
        {"astspooldir => /spool ; old\n", whole, {"/spool ; old", no, no}, ""},
        {"a=b=>c\nAstLibDir => /a\n", whole, {no, no, "c"}, ""},
        {" \tastspooldir \t =>  /a b \r\nastlibdir => " + string(5000, 'v'),
         whole,
         {"/a b", string(5000, 'v'), no},
         ""},
        {"astspooldir=/srv\n[x]\nastlibdir => /b\n#astlibdir => /c\n", plain, {no, "/b", no}, ""},
        {"astspooldir =>  \na=b=>c\n", plain, {no, no, "c"}, "Key astspooldir on line [1] of <"},
        {string(1008, 'x') + "astlibdir => /b\n", plain, {no, no, no}, ""},  // 1023 bytes
        {"astlibdir => " + string(1010, 'v'), plain, {no, string(1010, 'v'), no}, ""},
        {string(1023, 'x') + "astlibdir => /b\n", plain, {no, no, no}, "Line [1] of <"},
        {"\n" + string(1024, 'x') + "\nastlibdir => /b", plain, {no, "/b", no}, "Line [2] of <"},
        {"astlibdir => " + string(2000, 'v'), plain, {no, no, no}, too_long + "astlibdir => vvv"},
    };
    for (const auto &[content, section, want, error] : rows) {
        string errors;
        EXPECT_EQ(read(content, section, &errors), want) << content.substr(0, 40);
        EXPECT_NE(errors.find(error), string::npos) << errors;
        EXPECT_EQ(errors.empty(), error.empty()) << errors;
        EXPECT_EQ(errors.find("[4]"), string::npos) << errors;
    }
    safestr_t *values[3] = {};
    EXPECT_EQ(get_astconf_section_values("/nonexistent", nullptr, keys, values), -1);
    EXPECT_EQ(get_astconf_values("/nonexistent", keys, values, 3), -1);
}

TEST(Astconf, LineLayoutHelpers) {
    const std::tuple<const char *, char, char, int> ignorable[] = {
        {" \t\r\n", '#', '\0', 1}, {"  # x", '#', '\0', 1}, {"; x", '#', '\0', 0},
        {"//x", '/', '/', 1},      {" /x", '/', '/', 0},    {"\xa0#", '#', '\0', 0}};
    for (auto [line, c1, c2, want] : ignorable)
        EXPECT_EQ(is_ignorable(line, c1, c2), want) << line;

    // At most dst_len - 1 blanks; where an inline comment starts is checked by the fuzz target.
    char pad[4];
    EXPECT_STREQ(get_start_padding("     x", pad, sizeof pad, nullptr), "   ");
    EXPECT_STREQ(get_start_padding("--x", pad, sizeof pad, "-"), "--");
    char dst[8];
    std::memset(dst, 'Z', sizeof dst);
    EXPECT_EQ(get_inline_comment("value ;note", dst, 4, ";"), dst);
    EXPECT_EQ(string(dst, sizeof dst), " ;noZZZZ");  // like strncpy: no terminator
}
