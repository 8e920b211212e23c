// String helpers shared by the platform modules. Everything handed out is malloc memory so
// that C callers release it with free (lists with zarn_str_freelist).
#include "zarn_string.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "zarn_base.h"

namespace {

constexpr const char *kNodeIdFile = QX_NODEID_FILE;
constexpr const char *kHeaderStart = "%s: ";
constexpr const char *kEncodedWordStart = "=?%s?B?";
constexpr const char *kEncodedWordEnd = "?=\n";
constexpr const char *kAddressPart = " <%s>\n";
constexpr std::string_view kFoldPrefix = " ";

// Raw bytes of an encoded word are sized so that the line stays within 76 characters plus the
// closing "?=" (mail header lines must not exceed 78).
constexpr int kEncodedLineWidth = 76;
constexpr int kAddressLineWidth = 78;
// Short formatted texts go through the stack, so the common append costs one vsnprintf.
constexpr size_t kAppendStackSize = 256;

bool is_ascii_letter(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
char ascii_upper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}
char ascii_lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}
bool is_trim_blank(unsigned char c) {
    return c >= 1 && c <= 32;
}

// A malloc'd, NULL-terminated list of malloc'd copies; NULL when out of memory.
char **make_list(const std::vector<std::string_view> &parts) {
    auto *list = static_cast<char **>(std::calloc(parts.size() + 1, sizeof(char *)));
    if (!list) return nullptr;
    for (size_t i = 0; i < parts.size(); ++i) {
        list[i] = qx::c_copy(parts[i]);
        if (!list[i]) {
            zarn_str_freelist(list);
            return nullptr;
        }
    }
    return list;
}

// Both splitters share one rule: empty pieces between separators stay, a trailing empty piece
// does not.
char **split_view(std::string_view text, std::string_view sep) {
    std::vector<std::string_view> parts;
    size_t from = 0;
    for (size_t at = text.find(sep); at != std::string_view::npos; at = text.find(sep, from)) {
        parts.push_back(text.substr(from, at - from));
        from = at + sep.size();
    }
    if (from < text.size()) parts.push_back(text.substr(from));
    return make_list(parts);
}

void name_case(char *s) {
    const size_t n = std::strlen(s);
    size_t i = 0;
    while (i < n) {
        // "Mc" prefixes are recognised anywhere, even inside a word; callers rely on the
        // established output, so this stays.
        if (i + 2 < n && ascii_lower(s[i]) == 'm' && ascii_lower(s[i + 1]) == 'c') {
            s[i] = 'M';
            s[i + 1] = 'c';
            s[i + 2] = ascii_upper(s[i + 2]);
            i += 3;
        } else if (i == 0) {
            s[i] = ascii_upper(s[i]);
            ++i;
        } else if (i + 1 < n && !is_ascii_letter(static_cast<unsigned char>(s[i]))) {
            s[i + 1] = ascii_upper(s[i + 1]);
            i += 2;
        } else {
            s[i] = ascii_lower(s[i]);
            ++i;
        }
    }
}

char *converted_copy(const char *str, char (*conv)(char)) {
    if (!str) return nullptr;
    char *out = qx::c_copy(str);
    if (!out) return nullptr;
    for (char *p = out; *p; ++p)
        *p = conv(*p);
    return out;
}

// Bytes of the next whole character starting at text, never reaching past its terminator even
// when a truncated sequence announces more bytes than remain.
size_t next_char_size(const char *text) {
    const auto want =
        static_cast<size_t>(zarn_utf8_get_char_length(static_cast<unsigned char>(*text)));
    size_t have = 1;
    while (have < want && text[have] != '\0')
        ++have;
    return have;
}

// Appends the standard base64 of raw, cut at the first line break the encoder may produce.
void append_base64(std::string &line, std::string_view raw) {
    qx::CStr enc(base64_enc_str(raw.data(), raw.size()));
    if (!enc) return;
    std::string_view text(enc.get());
    line.append(text.substr(0, text.find_first_of("\n\r")));
}

}  // namespace

extern "C" {

char *zarn_str_slice(const char *str, int start, int end) {
    if (!str) return nullptr;
    const auto len = static_cast<long long>(std::strlen(str));
    long long from = start < 0 ? 0 : start;
    long long to = end > len ? len : end;
    // A start past the end (of the string or of the slice) names no bytes at all: rejected,
    // where an empty slice (start equal to end) is an empty string.
    if (from > to) return nullptr;
    if (from == to) return static_cast<char *>(std::calloc(1, 1));
    auto *out = static_cast<char *>(std::calloc(static_cast<size_t>(to - from) + 1, 1));
    if (!out) return nullptr;
    std::memcpy(out, str + from, static_cast<size_t>(to - from));
    return out;
}

char **zarn_str_split(const char *str, const char *sep) {
    if (!str || !sep || !*sep) return nullptr;
    try {
        return split_view(str, sep);
    } catch (...) {
        return nullptr;
    }
}

char **zarn_str_split_char(const char *str, char ch) {
    if (!str || ch == '\0') return nullptr;
    try {
        return split_view(str, std::string_view(&ch, 1));
    } catch (...) {
        return nullptr;
    }
}

int zarn_str_freelist(char **list) {
    if (!list) return -1;
    for (char **p = list; *p; ++p)
        std::free(*p);
    std::free(list);
    return 0;
}

char *zarn_str_append(char **dst, const char *fmt, ...) {
    if (!dst || !fmt) return nullptr;
    const size_t old_len = *dst ? std::strlen(*dst) : 0;

    va_list ap;
    va_start(ap, fmt);
    char small[kAppendStackSize];
    va_list first;
    va_copy(first, ap);
    const int n = std::vsnprintf(small, sizeof small, fmt, first);
    va_end(first);
    if (n < 0) {
        va_end(ap);
        return nullptr;
    }
    const auto add = static_cast<size_t>(n);

    char *grown = nullptr;
    if (add < sizeof small) {
        // The text is already formatted, so the arguments may even point into *dst.
        grown = static_cast<char *>(std::realloc(*dst, old_len + add + 1));
        if (grown) std::memcpy(grown + old_len, small, add + 1);
    } else {
        // Long text is formatted straight into the tail of a new block; the old block stays
        // alive until then because the arguments may point into it.
        grown = static_cast<char *>(std::malloc(old_len + add + 1));
        if (grown) {
            if (old_len) std::memcpy(grown, *dst, old_len);
            std::vsnprintf(grown + old_len, add + 1, fmt, ap);
            std::free(*dst);
        }
    }
    va_end(ap);
    if (!grown) return nullptr;
    *dst = grown;
    return grown;
}

int zarn_str_replace(char **str, const char *from, const char *to) {
    if (!str || !*str || !from || !to || !*from) return -1;
    const std::string_view text(*str);
    const std::string_view needle(from);
    char *copy = nullptr;
    try {
        std::string out;
        out.reserve(text.size());
        size_t pos = 0;
        for (size_t at = text.find(needle); at != std::string_view::npos;
             at = text.find(needle, pos)) {
            out.append(text.substr(pos, at - pos)).append(to);
            pos = at + needle.size();
        }
        out.append(text.substr(pos));
        copy = qx::c_copy(out);
    } catch (...) {
        return -1;
    }
    if (!copy) return -1;
    std::free(*str);
    *str = copy;
    return 0;
}

int zarn_str_trim(char **str, int mode) {
    if (!str || !*str) return -1;
    char *s = *str;
    size_t len = std::strlen(s);
    if (mode & ZARN_TRIM_END) {
        while (len > 0 && is_trim_blank(static_cast<unsigned char>(s[len - 1])))
            --len;
        s[len] = '\0';
    }
    if (mode & ZARN_TRIM_START) {
        size_t lead = 0;
        while (lead < len && is_trim_blank(static_cast<unsigned char>(s[lead])))
            ++lead;
        std::memmove(s, s + lead, len - lead + 1);
    }
    return 0;
}

int zarn_str_delete(char **str, int pos, int count) {
    if (!str || !*str || pos < 0 || count <= 0) return -1;
    char *s = *str;
    const size_t len = std::strlen(s);
    const auto at = static_cast<size_t>(pos);
    if (at > len) return -1;
    const size_t gone = std::min(static_cast<size_t>(count), len - at);
    std::memmove(s + at, s + at + gone, len - at - gone + 1);
    // Always -1, also after deleting: existing callers were written against that result.
    return -1;
}

int zarn_str_insert(char **str, int pos, const char *text) {
    if (!str || !*str || !text || pos < 0) return -1;
    const size_t len = std::strlen(*str);
    const auto at = static_cast<size_t>(pos);
    if (at > len) return -1;
    const size_t add = std::strlen(text);
    auto *grown = static_cast<char *>(std::realloc(*str, len + add + 1));
    if (!grown) return -1;
    std::memmove(grown + at + add, grown + at, len - at + 1);
    std::memcpy(grown + at, text, add);
    *str = grown;
    return 0;
}

char *zarn_str_join(char **list, const char *sep) {
    if (!list || !list[0]) return nullptr;
    const std::string_view between = sep ? sep : "";
    try {
        std::string out;
        for (char **p = list; *p; ++p) {
            if (p != list) out.append(between);
            out.append(*p);
        }
        return qx::c_copy(out);
    } catch (...) {
        return nullptr;
    }
}

char *zarn_str_toupper(const char *str) {
    return converted_copy(str, ascii_upper);
}

char *zarn_str_tolower(const char *str) {
    return converted_copy(str, ascii_lower);
}

int zarn_str_convert(char *str, int mode) {
    if (!str) return -1;
    switch (mode) {
        case ZARN_CASE_UPPER:
            for (char *p = str; *p; ++p)
                *p = ascii_upper(*p);
            break;
        case ZARN_CASE_LOWER:
            for (char *p = str; *p; ++p)
                *p = ascii_lower(*p);
            break;
        case ZARN_CASE_NAME:
            name_case(str);
            break;
        default:
            break;
    }
    return 0;
}

char *ast_pad_id(int id, unsigned width) {
    if (width == 0) return nullptr;
    auto *out = static_cast<char *>(std::malloc(static_cast<size_t>(width) + 1));
    if (!out) return nullptr;
    std::memset(out, '0', width);
    out[width] = '\0';
    // Only the lowest digits survive when the id is wider than the field: directory names have
    // a fixed width. Negative ids have no digits to write and stay all zeros.
    for (size_t pos = width; id > 0 && pos > 0; id /= 10)
        out[--pos] = static_cast<char>('0' + id % 10);
    return out;
}

int zarn_utf8_get_char_length(unsigned char byte) {
    if (byte < 0x80) return 1;
    if ((byte & 0xE0) == 0xC0) return 2;
    if ((byte & 0xF0) == 0xE0) return 3;
    if ((byte & 0xF8) == 0xF0) return 4;
    return 1;
}

char *zarn_base64_encode_email_header(const char *name, const char *charset, const char *text,
                                      const char *address) {
    if (!name || !charset) return nullptr;
    try {
        const char *rest = text ? text : "";
        bool address_pending = address != nullptr;
        std::string result;
        std::string line = qx::format(kHeaderStart, name);
        for (;;) {
            // A continuation line holding only its fold blank can never get more room.
            const bool fresh_line = line == kFoldPrefix;
            if (*rest) {
                line += qx::format(kEncodedWordStart, charset);
                const int room = kEncodedLineWidth - static_cast<int>(line.size());
                const size_t budget = room > 0 ? static_cast<size_t>(room / 4) * 3 : 0;
                size_t taken = 0;
                while (rest[taken] != '\0') {
                    const size_t size = next_char_size(rest + taken);
                    // One character is forced onto a fresh line so that an oversized charset
                    // cannot stall the loop.
                    if (taken + size > budget && !(fresh_line && taken == 0)) break;
                    taken += size;
                }
                append_base64(line, std::string_view(rest, taken));
                line += kEncodedWordEnd;
                rest += taken;
            }
            if (!*rest && address_pending) {
                const auto room =
                    static_cast<long long>(kAddressLineWidth) - static_cast<long long>(line.size());
                const auto need = static_cast<long long>(std::strlen(address)) + 4;
                // An address too long for any line gets a continuation line of its own instead
                // of waiting forever for one it fits.
                if (room > need || line == kFoldPrefix) {
                    line += qx::format(kAddressPart, address);
                    address_pending = false;
                }
            }
            result += line;
            if (!*rest && !address_pending) break;
            line.clear();
            line += kFoldPrefix;
        }
        return qx::c_copy(result);
    } catch (...) {
        return nullptr;
    }
}

char *get_nodeid(void) {
    qx::File fp(std::fopen(kNodeIdFile, "r"));
    if (!fp) return nullptr;
    char buf[1024] = {};
    if (!std::fgets(buf, sizeof buf, fp.get())) return nullptr;
    size_t len = std::strlen(buf);
    while (len > 0 && static_cast<unsigned char>(buf[len - 1]) <= 32)
        --len;
    // A first line of blanks is an empty node id, which is not the same as no file at all.
    return qx::c_copy(std::string_view(buf, len));
}

int zarn_sleep(float seconds) {
    if (!(seconds >= 0.0f)) {
        errno = EINVAL;
        return -1;
    }
    // Longer than any sleep anyone waits for, and safely inside time_t.
    constexpr float kMaxSeconds = 1e15f;
    if (seconds > kMaxSeconds) seconds = kMaxSeconds;
    timespec want{};
    want.tv_sec = static_cast<time_t>(seconds);
    auto nanos = static_cast<long>((seconds - static_cast<float>(want.tv_sec)) * 1000000000.0f);
    want.tv_nsec = std::min(std::max(nanos, 0L), 999999999L);
    timespec left{};
    while (nanosleep(&want, &left) != 0) {
        if (errno != EINTR) return -1;
        want = left;
    }
    return 0;
}

double qx_get_tstamp(void) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1000000.0;
}

}  // extern "C"
