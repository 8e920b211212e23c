// Table-driven reader of NAME value configuration files.
//
// Accepted lines, after blanks at both ends are dropped:
//   NAME value            NAME = value            NAME=value            NAME "quoted value"
// A line whose first non-blank byte is '#' is a comment. The value runs to the end of the line;
// when it both starts and ends with a double quote, the quotes are removed and the text between
// them is kept byte for byte. Names are matched exactly, case included.
//
// A line that names a directive of the table but cannot be applied (longer than PATH_MAX bytes,
// no value, an unterminated quote, a number that is not one) is logged and counted. It also runs
// underneath the logger's own start-up: the logger holds back what is logged while it loads and
// writes it out once it knows where to.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/limits.h>
#include <optional>
#include <string>
#include <string_view>

#include "cxx_util.hpp"
#include "zarn_base.h"

namespace {

constexpr char kComment = '#';
constexpr char kAssign = '=';
constexpr char kQuote = '"';
constexpr size_t kMaxLine = PATH_MAX;

constexpr char kSource[] = "../platform/base/parseconfig";
constexpr int kChannel = 3;
constexpr int kPrioError = 3;
constexpr char kMsgRejected[] = "Line [%d] of <%s> sets %s %s; ignored.\n";
constexpr char kWhyTooLong[] = "on a line longer than 4096 bytes";
constexpr char kWhyNoValue[] = "without a value";
constexpr char kWhyOpenQuote[] = "with an unterminated quote";
constexpr char kWhyNotNumber[] = "to a value that is not a number";

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
    const char *error = nullptr;  // why the line cannot be applied
};

// Splits one line into name and value; nothing for comments, blank lines and lines without a
// name. A line with a name but no usable value comes back with its error set.
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
    if (a.value.empty()) {
        a.error = kWhyNoValue;
    } else if (a.value.front() == kQuote) {
        if (a.value.size() < 2 || a.value.back() != kQuote)
            a.error = kWhyOpenQuote;
        else
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

// Stores value into the entry's variable; false for a malformed number, which leaves the
// variable untouched.
bool assign(const fr_conf_entry &entry, std::string_view value) {
    switch (entry.type) {
        case FR_CONF_STRING: {
            char *copy = qx::c_copy(value);
            if (!copy) return true;
            auto **var = static_cast<char **>(entry.var);
            std::free(*var);
            *var = copy;
            return true;
        }
        case FR_CONF_SAFESTR: {
            safestr_t *copy = safestr_create_len(value.data(), value.size());
            if (!copy) return true;
            auto **var = static_cast<safestr_t **>(entry.var);
            safestr_free(*var);
            *var = copy;
            return true;
        }
        case FR_CONF_INT: {
            const auto n = to_int(value);
            if (n) *static_cast<int *>(entry.var) = *n;
            return n.has_value();
        }
        default:
            return true;
    }
}

}  // namespace

extern "C" int parseconfig(const char *path, const fr_conf_entry *table, size_t count) {
    if (!path) return -1;
    qx::File fp(std::fopen(path, "re"));
    if (!fp) return -1;
    if (!table) return 0;
    int rejected = 0;
    try {
        char *raw = nullptr;
        size_t cap = 0;
        ssize_t n;
        for (int number = 1; (n = getline(&raw, &cap, fp.get())) >= 0; ++number) {
            qx::CStr line_owner(raw);
            raw = nullptr;
            cap = 0;
            std::string_view line(line_owner.get(), static_cast<size_t>(n));
            if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
            auto a = split_line(line);
            if (!a) continue;
            if (line.size() > kMaxLine) a->error = kWhyTooLong;
            // Every line is applied in file order, which is what makes the last one win.
            bool named = false, failed = a->error != nullptr;
            for (size_t i = 0; i < count; ++i) {
                const fr_conf_entry &e = table[i];
                if (!e.name || !e.var || a->name != e.name) continue;
                named = true;
                if (a->error) continue;
                if (!assign(e, a->value)) {
                    failed = true;
                    a->error = kWhyNotNumber;
                }
            }
            if (!named || !failed) continue;
            ++rejected;
            const std::string name(a->name);
            FR_LOG(kSource, kChannel, kPrioError, kMsgRejected, number, path, name.c_str(),
                   a->error);
        }
        std::free(raw);
    } catch (...) {
        // Out of memory part-way: what was read so far stays assigned.
    }
    return rejected;
}
