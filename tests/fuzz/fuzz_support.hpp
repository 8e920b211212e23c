// Shared by the fuzz targets; a failed property aborts, so that libFuzzer keeps the input.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "zarn_base.h"

#define FUZZ_CHECK(cond)                                                                         \
    ((cond) ? void()                                                                             \
            : (std::fprintf(stderr, "property failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__), \
               std::abort()))

namespace fuzz {

// Takes the input front to back; running out yields zeros and empty strings.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : p_(reinterpret_cast<const char *>(data)), n_(size) {}
    uint8_t byte() { return n_ ? (--n_, static_cast<uint8_t>(*p_++)) : 0; }
    int64_t i64() {
        uint64_t v = 0;
        for (int i = 0; i < 8; ++i)
            v = (v << 8) | byte();
        return static_cast<int64_t>(v);
    }
    // A string of up to max bytes, its length taken from the next byte; max 0: all the rest.
    std::string str(size_t max = 0) {
        size_t len = max ? byte() % (max + 1) : n_;
        len = len < n_ ? len : n_;
        std::string s(p_, len);
        p_ += len, n_ -= len;
        return s;
    }

  private:
    const char *p_;
    size_t n_;
};

// A file of this process's own directory, overwritten on every run; returns its path.
inline std::string scratch_file(const std::string &name, std::string_view content) {
    static const std::string dir = [] {
        char tmpl[] = "/tmp/qxfuzz.XXXXXX";
        return std::string(mkdtemp(tmpl) ? tmpl : "/tmp");
    }();
    const std::string path = name.front() == '/' ? name : dir + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(content.data(), content.size());
    return path;
}

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A malloc'd string's text ("" for NULL), freed.
inline std::string take(char *s) {
    std::string text = s ? s : "";
    std::free(s);
    return text;
}

// Keeps the logger off syslog and counts its error lines (priority 3 or more severe) instead.
inline int errors_logged = 0;
inline void quiet_log() {
    errors_logged = 0;
    fr_log_set_threshold(3);
    fr_log_set_sink([](const char *, int, const char *, int, int prio, const char *,
                       void *) { errors_logged += prio <= 3; },
                    nullptr);
}

inline bool contains(std::string_view hay, std::string_view needle) {
    return hay.find(needle) != std::string_view::npos;
}

// What a reader hands out: text of the file, trimmed, that never crosses a line.
inline bool from_file(std::string_view v, std::string_view a, std::string_view b = "") {
    const auto space = [](char c) { return contains(" \t\n\v\f\r", std::string_view(&c, 1)); };
    if (contains(v, "\n") || (!v.empty() && (space(v.front()) || space(v.back())))) return false;
    return contains(a, v) || contains(b, v);
}

// Standard base64 without line breaks, padded to a multiple of four; false on anything else.
inline bool base64_decode(std::string_view in, std::string &out) {
    static const std::string_view abc =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t end = in.find_last_not_of('=') + 1;
    if (in.size() % 4 || in.size() - end > 2) return false;
    out.clear();
    unsigned bits = 0, acc = 0;
    for (size_t i = 0; i < end; ++i) {
        const size_t at = abc.find(in[i]);
        if (at == std::string_view::npos) return false;
        acc = (acc << 6) | static_cast<unsigned>(at);
        if ((bits += 6) >= 8) out += static_cast<char>((acc >> (bits -= 8)) & 0xff);
    }
    return true;
}

}  // namespace fuzz
