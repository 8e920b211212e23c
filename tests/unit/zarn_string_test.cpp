
#include <cmath>
#include <ctime>

#include "unit.hpp"
#include "zarn_string.h"

using List = std::optional<std::vector<string>>;

List take_list(char **list) {
    if (!list) return std::nullopt;
    std::vector<string> out;
    for (char **p = list; *p; ++p)
        out.emplace_back(*p);
    zarn_str_freelist(list);
    return out;
}

// Split and join are each other's inverse except for the trailing empty piece split drops.
TEST(ZarnString, SplitKeepsInnerEmptyPiecesButNoTrailingOneAndJoinPutsThemBack) {
    using V = std::vector<string>;
    const std::tuple<const char *, const char *, List, Opt> rows[] = {
        {"a,,b,", ",", V{"a", "", "b"}, "a,,b"},
        {",a", ",", V{"", "a"}, ",a"},
        {"", ",", V{}, no},
        {"a::b::", "::", V{"a", "b"}, "a::b"},
        {"abc", "", no, no},
        {nullptr, ",", no, no}};
    for (const auto &[str, sep, want, joined] : rows) {
        EXPECT_EQ(take_list(zarn_str_split(str, sep)), want) << (str ? str : "null");
        if (std::strlen(sep) == 1) {
            EXPECT_EQ(take_list(zarn_str_split_char(str, *sep)), want);
        }
        char **list = zarn_str_split(str, sep);
        EXPECT_EQ(take(zarn_str_join(list, sep)), joined);
        zarn_str_freelist(list);
    }
    EXPECT_EQ(take_list(zarn_str_split_char("abc", '\0')), std::nullopt);
    char *two[] = {const_cast<char *>("a"), const_cast<char *>("b"), nullptr};
    EXPECT_EQ(take(zarn_str_join(two, nullptr)), "ab");
    EXPECT_EQ(zarn_str_join(nullptr, ","), nullptr);
}

// Each row edits a heap copy of text in place; guards must leave the text untouched.
TEST(ZarnString, InPlaceEditsAndTheirGuards) {
    const struct {
        const char *text;
        int (*edit)(char **);
        int rc;
        const char *want;
    } rows[] = {{"\t x \n", [](char **s) { return zarn_str_trim(s, 3); }, 0, "x"},
                {"\t x \n", [](char **s) { return zarn_str_trim(s, 1); }, 0, "x \n"},
                {"\x01 x\x7f", [](char **s) { return zarn_str_trim(s, 3); }, 0, "x\x7f"},
                {"abcdef", [](char **s) { return zarn_str_delete(s, 2, 10); }, -1, "ab"},
                {"abcdef", [](char **s) { return zarn_str_delete(s, 7, 1); }, -1, "abcdef"},
                {"abcdef", [](char **s) { return zarn_str_delete(s, 1, -3); }, -1, "abcdef"},
                {"abc", [](char **s) { return zarn_str_insert(s, 3, "XY"); }, 0, "abcXY"},
                {"abc", [](char **s) { return zarn_str_insert(s, 4, "X"); }, -1, "abc"},
                {"aaa", [](char **s) { return zarn_str_replace(s, "aa", "b"); }, 0, "ba"},
                {"ab", [](char **s) { return zarn_str_replace(s, "a", "aa"); }, 0, "aab"},
                {"abc", [](char **s) { return zarn_str_replace(s, "", "y"); }, -1, "abc"}};
    for (const auto &r : rows) {
        char *s = strdup(r.text);
        EXPECT_EQ(r.edit(&s), r.rc) << r.text;
        EXPECT_EQ(take(s), r.want);
    }
    const std::tuple<int, int, Opt> slices[] = {{-5, 2, "ab"}, {2, 99, "cdef"}, {3, 3, ""},
                                                {6, 12, ""},   {9, 12, no},     {4, 2, no}};
    for (auto [start, end, want] : slices)
        EXPECT_EQ(take(zarn_str_slice("abcdef", start, end)), want) << start << ".." << end;
}

// Mode 0 is the copying helpers: upper and lower case copies of the input.
TEST(ZarnString, CaseConversionTouchesOnlyAsciiLetters) {
    const std::tuple<int, const char *, const char *> rows[] = {
        {ZARN_CASE_UPPER, "abZ9 \xc3\xa9", "ABZ9 \xc3\xa9"},
        {ZARN_CASE_LOWER, "ABz9 \xc3\x89", "abz9 \xc3\x89"},
        {ZARN_CASE_NAME, "mcdonald o'neil", "McDonald O'Neil"},
        {ZARN_CASE_NAME, "o'neil mcdonald", "O'Neil Mcdonald"},
        {ZARN_CASE_NAME, "smcx", "SMcX"},
        {ZARN_CASE_NAME, "xmc", "Xmc"},
        {ZARN_CASE_NAME, "JOHN SMITH", "John Smith"},
        {3, "MiXed", "MiXed"}};
    for (auto [mode, in, want] : rows) {
        string buf = in;
        EXPECT_EQ(zarn_str_convert(buf.data(), mode), 0);
        EXPECT_EQ(buf, want) << in;
    }
    EXPECT_EQ(zarn_str_convert(nullptr, ZARN_CASE_UPPER), -1);
    EXPECT_EQ(take(zarn_str_toupper("aZ9 \xc3\xa9")), "AZ9 \xc3\xa9");
    EXPECT_EQ(take(zarn_str_tolower("Az9 \xc3\x89")), "az9 \xc3\x89");
}

// Sleeps are judged by the clock the module itself offers, which must agree with the system's.
TEST(ZarnString, SleepWaitsTheWholeFractionAndRefusesNonsense) {
    // time() reads a coarse clock, a tick behind: the stamp may run past the next whole second.
    EXPECT_NEAR(qx_get_tstamp(), static_cast<double>(std::time(nullptr)), 1.1);
    for (auto [seconds, rc] : {std::pair{0.25f, 0}, {0.0f, 0}, {-0.5f, -1}, {NAN, -1}}) {
        errno = 0;
        const double t0 = qx_get_tstamp();
        EXPECT_EQ(zarn_sleep(seconds), rc) << seconds;
        EXPECT_EQ(errno, rc ? EINVAL : 0);
        EXPECT_TRUE(rc || qx_get_tstamp() - t0 >= seconds) << seconds;
    }
}

// Encoded words of at most 76 bytes: every word but the last fills its line's budget, and none
// splits a character. Room for the address is measured on the whole buffer.
TEST(ZarnString, MailHeaderFoldsIntoEncodedWords) {
    string ascii, mixed;
    for (int i = 0; i < 110; ++i)
        ascii += static_cast<char>('a' + i % 26);
    for (int i = 0; i < 6; ++i)
        mixed += "x\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
    const string far(100, 'q'), w = "=?UTF-8?B?";
    const std::tuple<const char *, string, string, string> rows[] = {
        {"Subj", ascii, "",
         "Subj: " + w + "YWJjZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXphYmNkZWZnaGlqa2xtbm9wcXJz?=\n " + w +
             "dHV2d3h5emFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6YWJjZGVmZ2hpamtsbW5v?=\n " + w +
             "cHFyc3R1dnd4eXphYmNkZWY=?=\n"},
        {"Subject", mixed, "ops@example.org",
         "Subject: " + w + "eMOp4oKs8J+YgHjDqeKCrPCfmIB4w6nigqzwn5iAeMOp4oKs8J+YgHg=?=\n " + w +
             "w6nigqzwn5iAeMOp4oKs8J+YgA==?=\n <ops@example.org>\n"},
        {"Subject", ascii.substr(0, 60), far,
         "Subject: " + w + "YWJjZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXphYmNkZWZnaGlqa2xtbm9w?=\n " + w +
             "cXJzdHV2d3h5emFiY2RlZmdo?=\n  <" + far + ">\n"},
        {"To", "", "a@b.c", "To:  <a@b.c>\n"},
        {"Subject", "Hi", "a@b.c", "Subject: " + w + "SGk=?=\n <a@b.c>\n"},
        {"Subject", "Hi", string(48, 'a'),
         "Subject: " + w + "SGk=?=\n  <" + string(48, 'a') + ">\n"}};
    for (const auto &[name, text, address, want] : rows)
        EXPECT_EQ(take(zarn_base64_encode_email_header(
                      name, "UTF-8", text.c_str(), address.empty() ? nullptr : address.c_str())),
                  want);
}

// A blank first line is an empty id: a node id file is there.
TEST(ZarnString, NodeIdIsTheFirstLineWithoutTrailingBlanks) {
    for (auto [content, id] :
         {std::pair{Opt("node7 \t\nsecond\n"), Opt("node7")}, {" \t\n", ""}, {no, no}}) {
        qxtest::ConfFile file(QX_NODEID_FILE, content.value_or(""));  // the node's id comes back
        if (!content) fs::remove(QX_NODEID_FILE);
        EXPECT_EQ(take(get_nodeid()), id);
    }
}
