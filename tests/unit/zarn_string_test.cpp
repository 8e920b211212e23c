#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <sstream>
#include <tuple>
#include <vector>

#include "qx_paths.h"
#include "unit.hpp"
#include "zarn_string.h"

namespace {

using namespace unit;
using std::string;
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
    const struct {
        const char *str, *sep;
        List want;
        Opt joined;
    } rows[] = {{"a,,b,", ",", V{"a", "", "b"}, "a,,b"},
                {",a", ",", V{"", "a"}, ",a"},
                {"", ",", V{}, no},
                {"a::b::", "::", V{"a", "b"}, "a::b"},
                {"abc", "", no, no},
                {nullptr, ",", no, no}};
    for (const auto &r : rows) {
        EXPECT_EQ(take_list(zarn_str_split(r.str, r.sep)), r.want) << (r.str ? r.str : "null");
        if (std::strlen(r.sep) == 1) {
            EXPECT_EQ(take_list(zarn_str_split_char(r.str, *r.sep)), r.want);
        }
        char **list = zarn_str_split(r.str, r.sep);
        EXPECT_EQ(take(zarn_str_join(list, r.sep)), r.joined);
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
    for (auto [start, end, want] : {std::tuple{-5, 2, Opt("ab")},
                                    {2, 99, "cdef"},
                                    {3, 3, ""},
                                    {6, 12, ""},
                                    {9, 12, no},
                                    {4, 2, no}})
        EXPECT_EQ(take(zarn_str_slice("abcdef", start, end)), want) << start << ".." << end;
}

// Mode 0 is the copying helpers: upper and lower case copies of the input.
TEST(ZarnString, CaseConversionTouchesOnlyAsciiLetters) {
    for (auto [mode, in, want] : {std::tuple{ZARN_CASE_UPPER, "abZ9 \xc3\xa9", "ABZ9 \xc3\xa9"},
                                  {ZARN_CASE_LOWER, "ABz9 \xc3\x89", "abz9 \xc3\x89"},
                                  {ZARN_CASE_NAME, "mcdonald o'neil", "McDonald O'Neil"},
                                  {ZARN_CASE_NAME, "o'neil mcdonald", "O'Neil Mcdonald"},
                                  {ZARN_CASE_NAME, "smcx", "SMcX"},
                                  {ZARN_CASE_NAME, "xmc", "Xmc"},
                                  {ZARN_CASE_NAME, "JOHN SMITH", "John Smith"},
                                  {3, "MiXed", "MiXed"}}) {
        string buf = in;
        EXPECT_EQ(zarn_str_convert(buf.data(), mode), 0);
        EXPECT_EQ(buf, want) << in;
    }
    EXPECT_EQ(zarn_str_convert(nullptr, ZARN_CASE_UPPER), -1);
    EXPECT_EQ(take(zarn_str_toupper("aZ9 \xc3\xa9")), "AZ9 \xc3\xa9");
    EXPECT_EQ(take(zarn_str_tolower("Az9 \xc3\x89")), "az9 \xc3\x89");
    EXPECT_EQ(zarn_str_toupper(nullptr), nullptr);
    EXPECT_EQ(zarn_str_tolower(nullptr), nullptr);
}

TEST(ZarnString, PadIdKeepsTheLowestDigits) {
    for (auto [id, width, want] : {std::tuple{7, 4u, "0007"}, {12345, 4u, "2345"}, {0, 2u, "00"}})
        EXPECT_EQ(take(ast_pad_id(id, width)), want);
    EXPECT_EQ(ast_pad_id(5, 0), nullptr);
}

TEST(ZarnString, AppendGrowsAndAcceptsItsOwnText) {
    char *s = nullptr;
    string want;
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(zarn_str_append(&s, "/%d", i), s);
        want += "/" + std::to_string(i);
    }
    ASSERT_NE(zarn_str_append(&s, "%s", s), nullptr);  // long text from the string itself
    EXPECT_EQ(take(s), want + want);
    s = strdup("ab");
    ASSERT_NE(zarn_str_append(&s, "%.1s", s), nullptr);
    EXPECT_EQ(take(s), "aba");
}

// Sleeps are judged by the clock the module itself offers, which must agree with the system's.
TEST(ZarnString, SleepWaitsTheWholeFractionAndRefusesNonsense) {
    EXPECT_NEAR(qx_get_tstamp(), static_cast<double>(std::time(nullptr)), 1.0);
    for (auto [seconds, rc] : {std::pair{0.25f, 0}, {0.0f, 0}, {-0.5f, -1}, {NAN, -1}}) {
        errno = 0;
        const double t0 = qx_get_tstamp();
        EXPECT_EQ(zarn_sleep(seconds), rc) << seconds;
        EXPECT_EQ(errno, rc ? EINVAL : 0);
        if (rc == 0) {
            EXPECT_GE(qx_get_tstamp() - t0, seconds);
        }
    }
}

string base64_decode(const string &in) {
    static const string abc = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    string out;
    unsigned bits = 0, acc = 0;
    for (size_t i = 0; i < in.size() && in[i] != '='; ++i) {
        acc = (acc << 6) | static_cast<unsigned>(abc.find(in[i]));
        if ((bits += 6) >= 8) out += static_cast<char>((acc >> (bits -= 8)) & 0xff);
    }
    return out;
}

bool whole_utf8(const string &s) {
    size_t i = 0;
    while (i < s.size())
        i += zarn_utf8_get_char_length(static_cast<unsigned char>(s[i]));
    return i == s.size() && (s.empty() || (static_cast<unsigned char>(s[0]) & 0xc0) != 0x80);
}

TEST(ZarnString, MailHeaderFoldsIntoWordsThatDecodeBack) {
    string ascii, mixed;
    for (int i = 0; i < 200; ++i)
        ascii += static_cast<char>('a' + i % 26);
    for (int i = 0; i < 40; ++i)
        mixed += "x\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
    const string far(100, 'q');  // fits no line
    // The names give first lines whose room is not a multiple of four.
    const std::tuple<const char *, string, const char *> rows[] = {
        {"Subject", ascii, nullptr},     {"Subject", mixed, "ops@example.org"},
        {"Subject", ascii, far.c_str()}, {"Subject", "", far.c_str()},
        {"X-Tag", ascii, nullptr},       {"Subj", ascii, nullptr}};
    for (const auto &[name, text, address] : rows) {
        SCOPED_TRACE(name + (": " + text.substr(0, 8)) + (address ? address : ""));
        const Opt got = take(zarn_base64_encode_email_header(name, "UTF-8", text.c_str(), address));
        ASSERT_TRUE(got);
        std::istringstream lines(*got);
        string line, decoded, seen_address;
        for (int n = 0; std::getline(lines, line); ++n) {
            ASSERT_EQ(line.rfind(n ? string(" ") : name + string(": "), 0), 0u) << line;
            const size_t at = line.find("=?UTF-8?B?");
            if (at == string::npos) {
                seen_address = line.substr(line.find('<') + 1);
                seen_address.pop_back();
                continue;
            }
            ASSERT_EQ(line.substr(line.size() - 2), "?=");
            EXPECT_LE(line.size(), 78u);
            const string raw = base64_decode(line.substr(at + 10, line.size() - at - 12));
            EXPECT_LE(raw.size(), 57u);
            // Plain text fills every word but the last to the whole budget of its line.
            if (text == ascii && lines.peek() == ' ' && !address) {
                EXPECT_EQ(raw.size(), (76 - at - 10) / 4 * 3) << line;
            }
            EXPECT_TRUE(whole_utf8(raw)) << "character split: " << line;
            decoded += raw;
        }
        EXPECT_EQ(decoded, text);
        EXPECT_EQ(seen_address, address ? address : "");
    }
    // The room left for an address is measured on the whole buffer, the encoded line included.
    for (auto [name, text, address, want] :
         {std::tuple{"To", "", string("a@b.c"), string("To:  <a@b.c>\n")},
          {"Subject", "Hi", "a@b.c", "Subject: =?UTF-8?B?SGk=?=\n <a@b.c>\n"},
          {"Subject", "Hi", string(48, 'a'),
           "Subject: =?UTF-8?B?SGk=?=\n  <" + string(48, 'a') + ">\n"}})
        EXPECT_EQ(take(zarn_base64_encode_email_header(name, "UTF-8", text, address.c_str())),
                  want);
}

TEST(ZarnString, NodeIdIsTheFirstLineWithoutTrailingBlanks) {
    const string file = QX_NODEID_FILE;
    fs::create_directories(fs::path(file).parent_path());
    const Opt saved = read(file);  // the node's own id goes back in place afterwards
    // A blank first line is an empty id: a node id file is there.
    for (auto [content, id] :
         {std::pair{Opt("node7 \t\nsecond\n"), Opt("node7")}, {" \t\n", ""}, {no, no}}) {
        fs::remove(file);
        if (content) std::ofstream(file) << *content;
        EXPECT_EQ(take(get_nodeid()), id);
    }
    fs::remove(file);
    if (saved) std::ofstream(file) << *saved;
}

}  // namespace
