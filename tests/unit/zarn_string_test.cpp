#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "qx_paths.h"
#include "zarn_string.h"

namespace {

using Str = std::unique_ptr<char, decltype(&std::free)>;
Str own(char *p) {
    return Str(p, &std::free);
}
using List = std::optional<std::vector<std::string>>;

List take_list(char **list) {
    if (!list) return std::nullopt;
    std::vector<std::string> out;
    for (char **p = list; *p; ++p)
        out.emplace_back(*p);
    zarn_str_freelist(list);
    return out;
}

TEST(ZarnString, SplitKeepsInnerEmptyPiecesButNoTrailingOne) {
    using V = std::vector<std::string>;
    const struct {
        const char *str, *sep;
        List want;
    } rows[] = {
        {"a,,b,", ",", V{"a", "", "b"}}, {",a", ",", V{"", "a"}},   {"", ",", V{}},
        {"a::b::", "::", V{"a", "b"}},   {"abc", "", std::nullopt}, {nullptr, ",", std::nullopt}};
    for (const auto &r : rows) {
        EXPECT_EQ(take_list(zarn_str_split(r.str, r.sep)), r.want) << (r.str ? r.str : "null");
        if (std::strlen(r.sep) == 1) {
            EXPECT_EQ(take_list(zarn_str_split_char(r.str, *r.sep)), r.want);
        }
    }
    EXPECT_EQ(take_list(zarn_str_split_char("abc", '\0')), std::nullopt);
}

// Each row edits a heap copy of text in place; guards must leave the text untouched.
TEST(ZarnString, InPlaceEditsAndTheirGuards) {
    const struct {
        const char *text;
        int (*edit)(char **);
        int rc;
        const char *want;
    } rows[] = {
        {"\t x \n", [](char **s) { return zarn_str_trim(s, 3); }, 0, "x"},
        {"\t x \n", [](char **s) { return zarn_str_trim(s, 1); }, 0, "x \n"},
        {"\x01 x\x7f", [](char **s) { return zarn_str_trim(s, 3); }, 0, "x\x7f"},
        {"abcdef", [](char **s) { return zarn_str_delete(s, 2, 10); }, -1, "ab"},
        {"abcdef", [](char **s) { return zarn_str_delete(s, 7, 1); }, -1, "abcdef"},
        {"abcdef", [](char **s) { return zarn_str_delete(s, 1, -3); }, -1, "abcdef"},
        {"abc", [](char **s) { return zarn_str_insert(s, 3, "XY"); }, 0, "abcXY"},
        {"abc", [](char **s) { return zarn_str_insert(s, 4, "X"); }, -1, "abc"},
        {"aaa", [](char **s) { return zarn_str_replace(s, "aa", "b"); }, 0, "ba"},
        {"ab", [](char **s) { return zarn_str_replace(s, "a", "aa"); }, 0, "aab"},
        {"abc", [](char **s) { return zarn_str_replace(s, "", "y"); }, -1, "abc"},
    };
    for (const auto &r : rows) {
        char *s = strdup(r.text);
        EXPECT_EQ(r.edit(&s), r.rc) << r.text;
        EXPECT_STREQ(s, r.want);
        std::free(s);
    }
    for (auto [start, end, want] : {std::tuple<int, int, const char *>{-5, 2, "ab"},
                                    {2, 99, "cdef"},
                                    {3, 3, ""},
                                    {6, 12, ""},
                                    {9, 12, nullptr},
                                    {4, 2, nullptr}})
        EXPECT_STREQ(own(zarn_str_slice("abcdef", start, end)).get(), want);
}

TEST(ZarnString, CaseConversionTouchesOnlyAsciiLetters) {
    const struct {
        int mode;
        const char *in, *want;
    } rows[] = {{ZARN_CASE_UPPER, "abZ9 \xc3\xa9", "ABZ9 \xc3\xa9"},
                {ZARN_CASE_NAME, "mcdonald o'neil", "McDonald O'Neil"},
                {ZARN_CASE_NAME, "o'neil mcdonald", "O'Neil Mcdonald"},
                {ZARN_CASE_NAME, "smcx", "SMcX"},
                {ZARN_CASE_NAME, "xmc", "Xmc"},
                {ZARN_CASE_NAME, "JOHN SMITH", "John Smith"},
                {3, "MiXed", "MiXed"}};
    for (const auto &r : rows) {
        std::string buf = r.in;
        EXPECT_EQ(zarn_str_convert(buf.data(), r.mode), 0);
        EXPECT_EQ(buf, r.want);
    }
}

TEST(ZarnString, PadIdKeepsTheLowestDigits) {
    for (auto [id, width, want] : {std::tuple{7, 4u, "0007"}, {12345, 4u, "2345"}, {0, 2u, "00"}})
        EXPECT_STREQ(own(ast_pad_id(id, width)).get(), want);
    EXPECT_EQ(ast_pad_id(5, 0), nullptr);
}

TEST(ZarnString, AppendGrowsAndAcceptsItsOwnText) {
    char *s = nullptr;
    std::string want;
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(zarn_str_append(&s, "/%d", i), s);
        want += "/" + std::to_string(i);
    }
    EXPECT_EQ(s, want);
    ASSERT_NE(zarn_str_append(&s, "%s", s), nullptr);  // long text from the string itself
    EXPECT_EQ(s, want + want);
    std::free(s);
    s = strdup("ab");
    ASSERT_NE(zarn_str_append(&s, "%.1s", s), nullptr);
    EXPECT_STREQ(s, "aba");
    std::free(s);
}

std::string base64_decode(const std::string &in) {
    static const std::string abc =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0, acc = 0;
    for (size_t i = 0; i < in.size() && in[i] != '='; ++i) {
        acc = (acc << 6) | static_cast<unsigned>(abc.find(in[i]));
        if ((bits += 6) >= 8) out += static_cast<char>((acc >> (bits -= 8)) & 0xff);
    }
    return out;
}

bool whole_utf8(const std::string &s) {
    size_t i = 0;
    while (i < s.size())
        i += zarn_utf8_get_char_length(static_cast<unsigned char>(s[i]));
    return i == s.size() && (s.empty() || (static_cast<unsigned char>(s[0]) & 0xc0) != 0x80);
}

TEST(ZarnString, MailHeaderFoldsIntoWordsThatDecodeBack) {
    std::string ascii, mixed;
    for (int i = 0; i < 200; ++i)
        ascii += static_cast<char>('a' + i % 26);
    for (int i = 0; i < 40; ++i)
        mixed += "x\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
    const std::string far(100, 'q');  // fits no line
    // The names give first lines whose room is not a multiple of four.
    const std::tuple<const char *, std::string, const char *> rows[] = {
        {"Subject", ascii, nullptr},     {"Subject", mixed, "ops@example.org"},
        {"Subject", ascii, far.c_str()}, {"Subject", "", far.c_str()},
        {"X-Tag", ascii, nullptr},       {"Subj", ascii, nullptr}};
    for (const auto &[name, text, address] : rows) {
        SCOPED_TRACE(name + (": " + text.substr(0, 8)) + (address ? address : ""));
        auto got = own(zarn_base64_encode_email_header(name, "UTF-8", text.c_str(), address));
        ASSERT_NE(got, nullptr);
        std::istringstream lines(got.get());
        std::string line, decoded, seen_address;
        for (int n = 0; std::getline(lines, line); ++n) {
            ASSERT_EQ(line.rfind(n ? std::string(" ") : name + std::string(": "), 0), 0u) << line;
            const size_t at = line.find("=?UTF-8?B?");
            if (at == std::string::npos) {
                seen_address = line.substr(line.find('<') + 1);
                seen_address.pop_back();
                continue;
            }
            ASSERT_EQ(line.substr(line.size() - 2), "?=");
            EXPECT_LE(line.size(), 78u);
            const std::string raw = base64_decode(line.substr(at + 10, line.size() - at - 12));
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
    EXPECT_STREQ(own(zarn_base64_encode_email_header("To", "UTF-8", "", "a@b.c")).get(),
                 "To:  <a@b.c>\n");
    EXPECT_STREQ(own(zarn_base64_encode_email_header("Subject", "UTF-8", "Hi", "a@b.c")).get(),
                 "Subject: =?UTF-8?B?SGk=?=\n <a@b.c>\n");
    // The room left for an address is measured on the whole buffer, the encoded line included.
    const std::string tight(48, 'a');
    EXPECT_EQ(own(zarn_base64_encode_email_header("Subject", "UTF-8", "Hi", tight.c_str())).get(),
              "Subject: =?UTF-8?B?SGk=?=\n  <" + tight + ">\n");
}

}  // namespace

TEST(ZarnString, NodeIdIsTheFirstLineWithoutTrailingBlanks) {
    const std::string file = QX_NODEID_FILE;
    struct Row {
        std::optional<std::string> content;  // nullopt: no file
        std::optional<std::string> id;
    } rows[] = {
        {"node7 \t\nsecond\n", "node7"},
        {" \t\n", ""},  // blank, but a node id file is there
        {std::nullopt, std::nullopt},
    };
    const std::string dir = file.substr(0, file.rfind('/'));
    ASSERT_EQ(std::system(("mkdir -p '" + dir + "'").c_str()), 0);
    // The node's own id goes back in place afterwards.
    char *saved = get_nodeid();
    for (const Row &r : rows) {
        std::remove(file.c_str());
        if (r.content) {
            FILE *fp = std::fopen(file.c_str(), "w");
            ASSERT_TRUE(fp);
            std::fputs(r.content->c_str(), fp);
            std::fclose(fp);
        }
        char *got = get_nodeid();
        EXPECT_EQ(got ? std::optional<std::string>(got) : std::nullopt, r.id);
        std::free(got);
    }
    std::remove(file.c_str());
    if (saved) {
        FILE *fp = std::fopen(file.c_str(), "w");
        ASSERT_TRUE(fp);
        std::fprintf(fp, "%s\n", saved);
        std::fclose(fp);
        std::free(saved);
    }
}
