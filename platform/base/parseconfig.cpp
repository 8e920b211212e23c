// Table-driven reader of NAME value configuration files.
//
// Accepted lines, after blanks at both ends are dropped:
//   NAME value            NAME = value            NAME=value            NAME "quoted value"
// A line whose first non-blank byte is '#' is a comment. The value runs to the end of the line;
// when it both starts and ends with a double quote, the quotes are removed and the text between
// them is kept byte for byte. Names are matched exactly, case included.
//
// This reader runs underneath the logger's own start-up, so it must never log.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "cxx_util.hpp"
#include "zarn_base.h"

namespace {

constexpr char kComment = '#';
constexpr char kAssign = '=';
constexpr char kQuote = '"';

bool is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && is_space(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && is_space(s.back()))
        s.remove_suffix(1);
    return s;
}

struct Assignment {
    std::string_view name;
    std::string_view value;
};

// Splits one line into name and value; nothing for comments, blank and malformed lines.
std::optional<Assignment> split_line(std::string_view line) {
    line = trim(line);
    if (line.empty() || line.front() == kComment) return std::nullopt;

    size_t name_end = 0;
    while (name_end < line.size() && !is_space(line[name_end]) && line[name_end] != kAssign)
        ++name_end;
    if (name_end == 0) return std::nullopt;
    Assignment a{line.substr(0, name_end), trim(line.substr(name_end))};

    if (!a.value.empty() && a.value.front() == kAssign) a.value = trim(a.value.substr(1));
    // A name alone assigns nothing; an explicitly empty value is written "".
    if (a.value.empty()) return std::nullopt;
    if (a.value.front() == kQuote) {
        if (a.value.size() < 2 || a.value.back() != kQuote) return std::nullopt;
        a.value = a.value.substr(1, a.value.size() - 2);
    }
    return a;
}

std::optional<int> to_int(std::string_view text) {
    std::string s(text);
    if (s.empty()) return std::nullopt;
    errno = 0;
    char *end = nullptr;
    long v = std::strtol(s.c_str(), &end, 10);
    if (errno != 0 || end == s.c_str() || *end != '\0' || v < INT_MIN || v > INT_MAX)
        return std::nullopt;
    return static_cast<int>(v);
}

// Stores value into the entry's variable; a malformed number leaves the variable untouched.
void assign(const fr_conf_entry &entry, std::string_view value) {
    switch (entry.type) {
        case FR_CONF_STRING: {
            char *copy = qx::c_copy(value);
            if (!copy) return;
            auto **var = static_cast<char **>(entry.var);
            std::free(*var);
            *var = copy;
            return;
        }
        case FR_CONF_SAFESTR: {
            safestr_t *copy = safestr_create_len(value.data(), value.size());
            if (!copy) return;
            auto **var = static_cast<safestr_t **>(entry.var);
            safestr_free(*var);
            *var = copy;
            return;
        }
        case FR_CONF_INT:
            if (auto n = to_int(value)) *static_cast<int *>(entry.var) = *n;
            return;
        default:
            return;
    }
}

}  // namespace

extern "C" int parseconfig(const char *path, const fr_conf_entry *table, size_t count) {
    if (!path) return -1;
    qx::File fp(std::fopen(path, "re"));
    if (!fp) return -1;
    if (!table) return 0;
    try {
        char *raw = nullptr;
        size_t cap = 0;
        ssize_t n;
        while ((n = getline(&raw, &cap, fp.get())) >= 0) {
            qx::CStr line_owner(raw);
            raw = nullptr;
            cap = 0;
            auto a = split_line(std::string_view(line_owner.get(), static_cast<size_t>(n)));
            if (!a) continue;
            // Every line is applied in file order, which is what makes the last one win.
            for (size_t i = 0; i < count; ++i) {
                const fr_conf_entry &e = table[i];
                if (e.name && e.var && a->name == e.name) assign(e, a->value);
            }
        }
        std::free(raw);
    } catch (...) {
        // Out of memory part-way: what was read so far stays assigned.
    }
    return 0;
}
