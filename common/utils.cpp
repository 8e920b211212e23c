// Readers of Asterisk-style configuration files ("key => value" lines, optionally under
// bracketed section headers) and two helpers for the layout of such lines.
#include "utils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "cxx_util.hpp"
#include "zarn_base.h"

namespace {

constexpr const char *kReadMode = "r";
constexpr const char *kSectionHeader = "[%s]";
constexpr std::string_view kArrow = "=>";
constexpr std::string_view kEquals = "=";
constexpr const char *kDefaultPadding = " \t";
constexpr char kCommentChar = '#';
// Asterisk's own comment character: such lines are not read as comments here, but they are not
// malformed either.
constexpr char kAsteriskComment = ';';

constexpr char kSource[] = "../common/utils";
constexpr int kChannel = 3;
constexpr int kPrioError = 3;
constexpr char kMsgTooLong[] = "Line [%d] of <%s> is longer than %d bytes; ignored: %.40s\n";
constexpr char kMsgNoSeparator[] = "Line [%d] of <%s> is not a key => value line: %.40s\n";
constexpr char kMsgNoValue[] = "Key %s on line [%d] of <%s> has no value.\n";
// The plain reader used to take at most 1023 bytes per read; that stays its line limit.
constexpr size_t kPlainLineLimit = 1023;

// Asterisk's files are ASCII; a byte above 127 is never white space, as it is not for isspace()
// in the C locale when handed the byte as a signed char.
bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && is_space(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && is_space(s.back()))
        s.remove_suffix(1);
    return s;
}

struct KeyValue {
    std::string_view key;
    std::string_view value;
};

// Splits a trimmed line at its separator; false when it has none. The value is empty only when
// nothing follows the separator, and an empty value never replaces one found earlier.
bool split_line(std::string_view line, bool equals_allowed, KeyValue &out) {
    size_t at = line.find(kArrow);
    size_t sep_len = kArrow.size();
    if (at == std::string_view::npos && equals_allowed) {
        at = line.find(kEquals);
        sep_len = kEquals.size();
    }
    if (at == std::string_view::npos) return false;
    out.key = trim(line.substr(0, at));
    out.value = trim(line.substr(at + sep_len));
    return true;
}

// Index of the key among the first count entries of keys (count < 0: up to the NULL entry), or
// -1.
int find_key(std::string_view key, const char **keys, int count) {
    for (int i = 0; count < 0 ? keys[i] != nullptr : i < count; ++i)
        if (keys[i] && key == keys[i]) return i;
    return -1;
}

// A wanted key written without a value is a mistake in the file, not a way to unset it.
int wanted_key(const KeyValue &kv, const char **keys, int count, int line_number,
               const char *path) {
    const int i = find_key(kv.key, keys, count);
    if (i >= 0 && kv.value.empty())
        FR_LOG(kSource, kChannel, kPrioError, kMsgNoValue, keys[i], line_number, path);
    return kv.value.empty() ? -1 : i;
}

// The last line of a key wins: a value held before is released.
void store(safestr_t *&slot, std::string_view value) {
    safestr_t *fresh = safestr_create_len(value.data(), value.size());
    if (!fresh) return;
    safestr_free(slot);
    slot = fresh;
}

int read_sections(const char *path, const char *section, const char **keys, safestr_t **values) {
    qx::File fp(std::fopen(path, kReadMode));
    if (!fp) return -1;
    const std::string header = section ? qx::format(kSectionHeader, section) : std::string();
    bool inside = false;
    for (int line_number = 1;; ++line_number) {
        std::unique_ptr<safestr_t, decltype(&safestr_free)> raw(safestr_readline(fp.get()),
                                                                &safestr_free);
        if (!raw) break;
        const char *text = safestr_cstr(raw.get());
        if (is_ignorable(text, kCommentChar, 0)) continue;
        const std::string_view line(text, safestr_length(raw.get()));
        const bool is_header =
            line.find('[') != std::string_view::npos && line.find(']') != std::string_view::npos;
        if (section && is_header) {
            // Any line with both brackets switches sections; a decorated header such as
            // "[directories](!)" still opens the one it names.
            inside = line.find(header) != std::string_view::npos;
        }
        if (section && !inside) continue;
        const std::string_view trimmed = trim(line);
        KeyValue kv;
        if (!split_line(trimmed, true, kv)) {
            if (!is_header && trimmed.front() != kAsteriskComment) {
                const std::string shown(trimmed);
                FR_LOG(kSource, kChannel, kPrioError, kMsgNoSeparator, line_number, path,
                       shown.c_str());
            }
            continue;
        }
        if (const int i = wanted_key(kv, keys, -1, line_number, path); i >= 0)
            store(values[i], kv.value);
    }
    return 0;
}

int read_values(const char *path, const char **keys, safestr_t **values, int count) {
    qx::File fp(std::fopen(path, kReadMode));
    if (!fp) return -1;
    for (int i = 0; i < count; ++i)
        values[i] = nullptr;
    // A line longer than the old fgets buffer took in one read is skipped whole: its tail read
    // on its own could look like a line of its own.
    for (int line_number = 1;; ++line_number) {
        std::unique_ptr<safestr_t, decltype(&safestr_free)> raw(safestr_readline(fp.get()),
                                                                &safestr_free);
        if (!raw) break;
        const char *text = safestr_cstr(raw.get());
        size_t content = safestr_length(raw.get());
        if (content > 0 && text[content - 1] == '\n') --content;
        if (content > kPlainLineLimit) {
            const std::string shown(trim(text));
            FR_LOG(kSource, kChannel, kPrioError, kMsgTooLong, line_number, path,
                   static_cast<int>(kPlainLineLimit), shown.c_str());
            continue;
        }
        KeyValue kv;
        if (!split_line(trim(text), false, kv)) continue;
        if (const int i = wanted_key(kv, keys, count, line_number, path); i >= 0)
            store(values[i], kv.value);
    }
    return 0;
}

}  // namespace

extern "C" {

int get_astconf_section_values(const char *path, const char *section, const char **keys,
                               safestr_t **values) {
    if (!path || !keys || !values) return -1;
    try {
        return read_sections(path, section, keys, values);
    } catch (...) {
        return -1;
    }
}

int get_astconf_values(const char *path, const char **keys, safestr_t **values, int count) {
    if (!path || ((!keys || !values) && count > 0)) return -1;
    try {
        return read_values(path, keys, values, count);
    } catch (...) {
        return -1;
    }
}

int is_ignorable(const char *line, char c1, char c2) {
    if (!line) return 1;
    while (*line && is_space(*line))
        ++line;
    if (*line == '\0') return 1;
    if (*line != c1) return 0;
    if (c2 == '\0') return 1;
    return line[1] == c2 ? 1 : 0;
}

char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars) {
    if (!dst || dst_len == 0) return dst;
    size_t len = line ? std::strspn(line, chars ? chars : kDefaultPadding) : 0;
    if (len >= dst_len) len = dst_len - 1;
    if (len) std::memcpy(dst, line, len);
    dst[len] = '\0';
    return dst;
}

char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker) {
    static char empty[1] = "";
    const char *found = (line && marker) ? std::strstr(line, marker) : nullptr;
    if (!found) {
        if (!dst) return empty;
        if (dst_len) dst[0] = '\0';
        return dst;
    }
    const char *start = found;
    if (found != line) {
        // The padding before the marker belongs to the comment, so that writing the line back
        // keeps its layout. The walk stops at the first character of the line, which is
        // therefore never part of the comment.
        start = found - 1;
        while (start > line && is_space(*start))
            --start;
        ++start;
    }
    if (!dst) return const_cast<char *>(start);
    // Like strncpy: no terminator when the comment fills dst.
    std::strncpy(dst, start, dst_len);
    return dst;
}

}  // extern "C"
