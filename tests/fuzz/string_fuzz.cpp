// String helpers: split/join round trip, insert/delete round trip, case and trim bounds, and the
// mail-header encoder decoded back to its text.
#include "fuzz_support.hpp"
#include "zarn_string.h"

namespace {

// Decodes every encoded word of a header; each word but the last holds whole characters.
std::string decode_header(const std::string &header, const std::string &charset) {
    const std::string open = "=?" + charset + "?B?";
    std::string text, raw;
    size_t whole_until = 0;
    for (size_t at = 0; (at = header.find(open, at)) != std::string::npos;) {
        const size_t begin = at + open.size(), end = header.find("?=\n", begin);
        FUZZ_CHECK(end != std::string::npos);
        FUZZ_CHECK(fuzz::base64_decode(header.substr(begin, end - begin), raw));
        FUZZ_CHECK(whole_until == text.size());
        text += raw;
        for (size_t i = whole_until; i < text.size();)
            whole_until = i += zarn_utf8_get_char_length(static_cast<unsigned char>(text[i]));
        at = end;
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    const std::string sep = in.str(3).c_str(), text = in.str(400).c_str();
    std::string address = in.str(100);
    // Line breaks and '?' in an address are the caller's to avoid; they would fake the folding.
    for (char &c : address)
        if (c == '\n' || c == '\r' || c == '?' || c == '\0') c = '_';
    const int pos = in.byte();
    const std::string s = in.rest();

    if (char **parts = zarn_str_split(s.c_str(), sep.c_str())) {
        // A trailing separator gives no empty last piece; everything else comes back.
        const std::string joined = parts[0] ? fuzz::take(zarn_str_join(parts, sep.c_str())) : "";
        const std::string c(s.c_str());
        FUZZ_CHECK(joined == c || joined + sep == c);
        zarn_str_freelist(parts);
    }

    char *str = strdup(s.c_str());
    const size_t len = std::strlen(str);
    if (zarn_str_insert(&str, pos, sep.c_str()) == 0) {
        FUZZ_CHECK(static_cast<size_t>(pos) <= len);
        zarn_str_delete(&str, pos, static_cast<int>(sep.size()));
        FUZZ_CHECK(std::strcmp(str, s.c_str()) == 0);
    }
    const std::string upper = fuzz::take(zarn_str_toupper(str)),
                      lower = fuzz::take(zarn_str_tolower(str));
    FUZZ_CHECK(upper.size() == len && lower.size() == len);
    for (size_t i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(str[i]);
        const bool letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
        FUZZ_CHECK(static_cast<unsigned char>(upper[i]) == (letter ? (c & ~0x20) : c));
        FUZZ_CHECK(static_cast<unsigned char>(lower[i]) == (letter ? (c | 0x20) : c));
    }
    FUZZ_CHECK(zarn_str_convert(str, pos % 8) == 0 && std::strlen(str) == len);
    zarn_str_trim(&str, 3);
    const size_t trimmed = std::strlen(str);
    FUZZ_CHECK(!trimmed || (static_cast<unsigned char>(str[0]) > 32 &&
                            static_cast<unsigned char>(str[trimmed - 1]) > 32));
    std::free(str);
    std::free(zarn_str_slice(s.c_str(), pos - 128, static_cast<int>(in.byte()) * 3));

    char *padded = ast_pad_id(pos * 1000 + static_cast<int>(len), pos % 12);
    FUZZ_CHECK(pos % 12 == 0 ? !padded : std::strspn(padded, "0123456789") == std::strlen(padded));
    FUZZ_CHECK(!padded || std::strlen(padded) == static_cast<size_t>(pos % 12));
    std::free(padded);

    const std::string header = fuzz::take(zarn_base64_encode_email_header(
        "Subject", "UTF-8", text.c_str(), address.empty() ? nullptr : address.c_str()));
    // Only a header with nothing to carry stays unterminated.
    FUZZ_CHECK(header.rfind("Subject: ", 0) == 0);
    FUZZ_CHECK(header.back() == '\n' || (text.empty() && address.empty()));
    FUZZ_CHECK(decode_header(header, "UTF-8") == text);
    for (size_t at = 0; (at = header.find('\n', at)) != std::string::npos && ++at < header.size();)
        FUZZ_CHECK(header[at] == ' ');
    FUZZ_CHECK(address.empty() || fuzz::contains(header, "<" + address + ">\n"));
    return 0;
}
