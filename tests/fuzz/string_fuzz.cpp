// String helpers: split/join round trip, case and trim bounds, padded ids, and the mail-header
// encoder decoded back to its text.
#include "fuzz_support.hpp"
#include "zarn_string.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    const std::string sep = in.str(3).c_str(), text = in.str(400).c_str();
    std::string address = in.str(100);
    // Line breaks and '?' in an address are the caller's to avoid; they would fake the folding.
    for (char &c : address)
        if (c == '\n' || c == '\r' || c == '?' || c == '\0') c = '_';
    const int pos = in.byte();
    const std::string s = in.str().c_str();

    // A trailing separator gives no empty last piece; everything else comes back.
    if (char **parts = zarn_str_split(s.c_str(), sep.c_str())) {
        const std::string joined = parts[0] ? fuzz::take(zarn_str_join(parts, sep.c_str())) : "";
        FUZZ_CHECK(joined == s || joined + sep == s);
        zarn_str_freelist(parts);
    }
    char *str = strdup(s.c_str());
    const std::string upper = fuzz::take(zarn_str_toupper(str)),
                      lower = fuzz::take(zarn_str_tolower(str));
    for (size_t i = 0; i <= s.size(); ++i) {
        const unsigned char c = s[i];
        const bool letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
        FUZZ_CHECK(static_cast<unsigned char>(upper[i]) == (letter ? (c & ~0x20) : c));
        FUZZ_CHECK(static_cast<unsigned char>(lower[i]) == (letter ? (c | 0x20) : c));
    }
    FUZZ_CHECK(zarn_str_convert(str, pos % 8) == 0 && std::strlen(str) == s.size());
    zarn_str_trim(&str, 3);
    const size_t trimmed = std::strlen(str);
    FUZZ_CHECK(!trimmed || (static_cast<unsigned char>(str[0]) > 32 &&
                            static_cast<unsigned char>(str[trimmed - 1]) > 32));
    std::free(str);

    // The lowest digits of the id, padded to the width; no width, no id.
    const std::string padded = fuzz::take(ast_pad_id(pos * 1000 + int(s.size()), pos % 12));
    FUZZ_CHECK(padded.size() == size_t(pos % 12) &&
               std::strspn(padded.c_str(), "0123456789") == padded.size());

    // Every encoded word decodes; each but the last holds whole characters. Only a header with
    // nothing to carry stays unterminated.
    const std::string header = fuzz::take(zarn_base64_encode_email_header(
        "Subject", "UTF-8", text.c_str(), address.empty() ? nullptr : address.c_str()));
    FUZZ_CHECK(header.starts_with("Subject: ") &&
               (header.back() == '\n' || (text.empty() && address.empty())));
    std::string decoded, raw;
    size_t whole_until = 0;
    for (size_t at = 0; (at = header.find("=?UTF-8?B?", at)) != std::string::npos;) {
        const size_t end = header.find("?=\n", at);
        FUZZ_CHECK(end != std::string::npos && whole_until == decoded.size());
        FUZZ_CHECK(fuzz::base64_decode(header.substr(at + 10, end - at - 10), raw));
        decoded += raw;
        for (size_t i = whole_until; i < decoded.size();)
            whole_until = i += zarn_utf8_get_char_length(static_cast<unsigned char>(decoded[i]));
        at = end;
    }
    FUZZ_CHECK(decoded == text);
    for (size_t at = 0; (at = header.find('\n', at)) != std::string::npos && ++at < header.size();)
        FUZZ_CHECK(header[at] == ' ');
    FUZZ_CHECK(address.empty() || fuzz::contains(header, "<" + address + ">\n"));
    return 0;
}
