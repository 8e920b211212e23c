// Small string helpers: in-place trimming, splitting and joining, base64.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "zarn_base.h"

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kBase64Pad = '=';

bool is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Owns a NULL-terminated array of malloc strings while it is being built.
struct PiecesDeleter {
    void operator()(char **parts) const noexcept { fr_explode_free(parts); }
};
using Pieces = std::unique_ptr<char *, PiecesDeleter>;

}  // namespace

extern "C" char *fr_str_trim(char *str, int mode) {
    if (!str) return nullptr;
    size_t len = std::strlen(str);
    if (mode & FR_TRIM_RIGHT) {
        while (len > 0 && is_space(str[len - 1]))
            --len;
        str[len] = '\0';
    }
    if (mode & FR_TRIM_LEFT) {
        size_t start = 0;
        while (start < len && is_space(str[start]))
            ++start;
        // The caller's pointer stays the start of the text, so it can still be freed.
        if (start > 0) std::memmove(str, str + start, len - start + 1);
    }
    return str;
}

extern "C" char **fr_explode(const char *str, const char *sep, size_t *count) {
    if (count) *count = 0;
    if (!str || !sep || !*sep) return nullptr;
    std::string_view text(str);
    std::string_view separator(sep);

    std::vector<std::string_view> pieces;
    try {
        size_t start = 0;
        for (;;) {
            size_t at = text.find(separator, start);
            if (at == std::string_view::npos) {
                pieces.push_back(text.substr(start));
                break;
            }
            pieces.push_back(text.substr(start, at - start));
            start = at + separator.size();
        }
    } catch (...) {
        return nullptr;
    }

    Pieces parts(static_cast<char **>(std::calloc(pieces.size() + 1, sizeof(char *))));
    if (!parts) return nullptr;
    for (size_t i = 0; i < pieces.size(); ++i) {
        parts.get()[i] = qx::c_copy(pieces[i]);
        if (!parts.get()[i]) return nullptr;
    }
    if (count) *count = pieces.size();
    return parts.release();
}

extern "C" void fr_explode_free(char **parts) {
    if (!parts) return;
    for (char **p = parts; *p; ++p)
        std::free(*p);
    std::free(parts);
}

extern "C" char *fr_implode(char *const *parts, size_t count, const char *sep) {
    if ((!parts && count) || !sep) return nullptr;
    try {
        std::string out;
        for (size_t i = 0; i < count; ++i) {
            if (!parts[i]) return nullptr;
            if (i) out += sep;
            out += parts[i];
        }
        return qx::c_copy(out);
    } catch (...) {
        return nullptr;
    }
}

extern "C" char *base64_enc_str(const void *data, size_t len) {
    if (!data && len) return nullptr;
    if (len > (static_cast<size_t>(-1) / 4 - 1) * 3) return nullptr;
    const auto *in = static_cast<const unsigned char *>(data);
    size_t out_len = (len + 2) / 3 * 4;
    char *out = static_cast<char *>(std::malloc(out_len + 1));
    if (!out) return nullptr;
    char *o = out;
    size_t i = 0;
    for (; i + 3 <= len; i += 3) {
        unsigned v = (unsigned{in[i]} << 16) | (unsigned{in[i + 1]} << 8) | in[i + 2];
        *o++ = kBase64Alphabet[(v >> 18) & 63];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = kBase64Alphabet[(v >> 6) & 63];
        *o++ = kBase64Alphabet[v & 63];
    }
    if (size_t rest = len - i; rest > 0) {
        unsigned v = unsigned{in[i]} << 16;
        if (rest == 2) v |= unsigned{in[i + 1]} << 8;
        *o++ = kBase64Alphabet[(v >> 18) & 63];
        *o++ = kBase64Alphabet[(v >> 12) & 63];
        *o++ = rest == 2 ? kBase64Alphabet[(v >> 6) & 63] : kBase64Pad;
        *o++ = kBase64Pad;
    }
    *o = '\0';
    return out;
}
