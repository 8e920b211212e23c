// Readers of the node's directive files. Every call opens, scans and closes the file itself;
// nothing is cached, so an edited file is seen by the next call.
//
// Two families read lines differently on purpose, and files in the field depend on both:
// the keyword-at-start readers (single value, directive tables) use an 8192-byte line buffer,
// skip lines whose first non-blank character is '#', and match the keyword case-insensitively
// at the start of the line; the keyword-anywhere readers (credentials, hosts, worker) use a
// 256-byte buffer, cut every line at its first '#', and find the keyword case-sensitively
// anywhere in the line. The buffer sizes live on as line limits: a longer line is reported
// and skipped whole, never cut into pieces whose tail could pass for a line of its own.
#include "zarn_config_parser.h"

#include <errno.h>
#include <strings.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "zarn_base.h"

namespace {

constexpr const char *kSource = "../main/zarn_config_parser";
constexpr const char *kReadMode = "r";

constexpr const char *kDefaultCredKeyword = "DB_CREDENTIALS";
constexpr const char *kDefaultWorkerKeyword = "WORKER_EXCHANGE";
constexpr const char *kMasterKeyword = "DB_MASTER";
constexpr const char *kSlaveKeyword = "DB_SLAVE";

constexpr char kTraceConditionalReturn[] = "%s:%d:conditional return";
constexpr char kMsgInvalidCred[] = "Invalid DB credentials line [%d] in <%s>.\n\n";
constexpr char kMsgInvalidHost[] = "Invalid DB host line [%d] in <%s>.\n\n";
constexpr char kMsgOpenError[] = "Error opening configuration file <%s>: %s.\n\n";
constexpr char kMsgParseError[] = "Error parsing configuration file <%s>.\n\n";
constexpr char kMsgTooLong[] = "Line [%d] of <%s> is longer than %zu bytes; %s ignored.\n\n";
constexpr char kMsgNoValue[] = "Directive %s on line [%d] of <%s> has no value.\n\n";
constexpr char kMsgBadPort[] = "Invalid port [%s] of %s on line [%d] of <%s>.\n\n";
// handle_file is given a stream without its name.
constexpr char kStreamName[] = "(stream)";

constexpr int kChannelTrace = 2;
constexpr int kChannelMessage = 3;
constexpr int kPrioError = 3;
constexpr int kPrioDebug = 7;

constexpr size_t kStartLineBuffer = 8192;
constexpr size_t kAnywhereLineBuffer = 256;
constexpr size_t kCredFields = 4;
constexpr size_t kMinHostFields = 3;
constexpr char kFieldSeparator = ':';
constexpr char kComment = '#';
constexpr long kMaxPort = 65535;

// Early returns leave this trace with the line they return from.
#define QX_TRACE_RETURN() \
    FR_LOG(kSource, kChannelTrace, kPrioDebug, kTraceConditionalReturn, kSource, __LINE__)

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

const char *skip_blanks(const char *p) {
    while (is_blank(*p))
        ++p;
    return p;
}

// A malloc'd copy of text trimmed at both ends (the line's newline included).
char *trimmed_copy(std::string_view text) {
    char *copy = qx::c_copy(text);
    if (copy) fr_str_trim(copy, FR_TRIM_BOTH);
    return copy;
}

// Every separator splits, so empty fields are kept: "a::b" has three fields.
std::vector<std::string_view> split_fields(std::string_view text) {
    std::vector<std::string_view> fields;
    size_t from = 0;
    for (size_t at = text.find(kFieldSeparator); at != std::string_view::npos;
         at = text.find(kFieldSeparator, from)) {
        fields.push_back(text.substr(from, at - from));
        from = at + 1;
    }
    fields.push_back(text.substr(from));
    return fields;
}

// A port is decimal digits only, 1 to 65535; anything else is a malformed host line.
bool parse_port(std::string_view text, int &port) {
    if (text.empty() || text.size() > 5) return false;
    long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    if (v < 1 || v > kMaxPort) return false;
    port = static_cast<int>(v);
    return true;
}

bool is_empty_value(const char *text) {
    for (; *text; ++text)
        if (!std::isspace(static_cast<unsigned char>(*text))) return false;
    return true;
}

struct LineBuffer {
    char *data = nullptr;
    size_t capacity = 0;
    ~LineBuffer() { std::free(data); }
};

// Hands every line whole to on_line(text, line number, overlong) until it returns false. A line
// is overlong when more than N - 1 bytes precede its newline: that is what the family's fgets
// buffer of N bytes used to take in one piece.
template <size_t N, class OnLine>
void for_each_line(FILE *fp, OnLine &&on_line) {
    LineBuffer buf;
    int number = 0;
    for (ssize_t n; (n = getline(&buf.data, &buf.capacity, fp)) >= 0;) {
        size_t content = static_cast<size_t>(n);
        if (content > 0 && buf.data[content - 1] == '\n') --content;
        if (!on_line(buf.data, ++number, content > N - 1)) break;
    }
}

enum class Verdict { next_line, found, invalid };

// Runs on_match(line_number, text after the keyword) on every line holding the keyword,
// until it returns something other than next_line. 0 when a line was found, else -1.
template <class OnMatch>
int scan_anywhere(FILE *fp, const char *path, const char *keyword, OnMatch &&on_match) {
    const size_t keyword_len = std::strlen(keyword);
    Verdict verdict = Verdict::next_line;
    for_each_line<kAnywhereLineBuffer>(fp, [&](char *line, int line_number, bool overlong) {
        if (char *comment = std::strchr(line, kComment)) *comment = '\0';
        if (*line == '\0') return true;
        const char *hit = std::strstr(line, keyword);
        if (!hit) return true;
        if (overlong) {
            FR_LOG(kSource, kChannelMessage, kPrioError, kMsgTooLong, line_number, path,
                   kAnywhereLineBuffer - 1, keyword);
            return true;
        }
        verdict = on_match(line_number, hit + keyword_len);
        return verdict == Verdict::next_line;
    });
    return verdict == Verdict::found ? 0 : -1;
}

void append_value(qx_conf_directive &row, const char *text) {
    auto *grown = static_cast<char **>(
        std::realloc(row.values, (static_cast<size_t>(row.count) + 1) * sizeof(char *)));
    if (!grown) return;
    row.values = grown;
    row.values[row.count] = trimmed_copy(text);
    ++row.count;
}

int cred_internal(const char *keyword, const char *path, const char *id, char **field1,
                  char **field2, char **field3) {
    qx::File fp(std::fopen(path, kReadMode));
    if (!fp) {
        QX_TRACE_RETURN();
        return -1;
    }
    return scan_anywhere(fp.get(), path, keyword ? keyword : kDefaultCredKeyword,
                         [&](int line_number, const char *rest) {
                             qx::CStr value(trimmed_copy(rest));
                             if (!value) return Verdict::next_line;
                             const auto fields = split_fields(value.get());
                             if (fields.size() != kCredFields) {
                                 FR_LOG(kSource, kChannelMessage, kPrioError, kMsgInvalidCred,
                                        line_number, path);
                                 return Verdict::invalid;
                             }
                             if (fields[0] != id) return Verdict::next_line;
                             if (field1) *field1 = qx::c_copy(fields[1]);
                             if (field2) *field2 = qx::c_copy(fields[2]);
                             if (field3) *field3 = qx::c_copy(fields[3]);
                             return Verdict::found;
                         });
}

int host_internal(const char *path, const char *id, const char *keyword, char **host, int *port) {
    qx::File fp(std::fopen(path, kReadMode));
    if (!fp) {
        QX_TRACE_RETURN();
        return -1;
    }
    return scan_anywhere(fp.get(), path, keyword, [&](int line_number, const char *rest) {
        qx::CStr value(trimmed_copy(rest));
        if (!value) return Verdict::next_line;
        const std::string_view text(value.get());
        const auto fields = split_fields(text);
        if (fields.size() < kMinHostFields) {
            FR_LOG(kSource, kChannelMessage, kPrioError, kMsgInvalidHost, line_number, path);
            return Verdict::invalid;
        }
        int port_value = 0;
        if (!parse_port(fields.back(), port_value)) {
            const std::string port_text(fields.back());
            FR_LOG(kSource, kChannelMessage, kPrioError, kMsgBadPort, port_text.c_str(), keyword,
                   line_number, path);
            return Verdict::invalid;
        }
        if (fields[0] != id) return Verdict::next_line;
        // An IPv6 literal carries its own colons: the host is everything between the id and
        // the port.
        const size_t first = text.find(kFieldSeparator);
        const size_t last = text.rfind(kFieldSeparator);
        if (host) *host = qx::c_copy(text.substr(first + 1, last - first - 1));
        if (port) *port = port_value;
        return Verdict::found;
    });
}

int worker_internal(const char *keyword, const char *path, char **out) {
    qx::File fp(std::fopen(path, kReadMode));
    if (!fp) {
        QX_TRACE_RETURN();
        return -1;
    }
    const char *name = keyword ? keyword : kDefaultWorkerKeyword;
    return scan_anywhere(fp.get(), path, name, [&](int line_number, const char *rest) {
        // The keyword must end at a blank, a control character or the end of the line. The
        // byte is compared signed, so bytes of 0x80 and above also end it.
        if (static_cast<signed char>(*rest) > 0x20) return Verdict::next_line;
        *out = trimmed_copy(rest);
        if (*out && **out == '\0')
            FR_LOG(kSource, kChannelMessage, kPrioError, kMsgNoValue, name, line_number, path);
        return Verdict::found;
    });
}

int handle_file_internal(FILE *fp, qx_conf_directive *table, const char *path) {
    for_each_line<kStartLineBuffer>(fp, [&](char *line, int line_number, bool overlong) {
        const char *p = skip_blanks(line);
        if (*p == kComment) return true;
        // A name only has to be a prefix of the line: no blank is required after it, so
        // "DISDBASE_HOSTS x" feeds a DISDBASE_HOST row with "S x". Existing files rely on it.
        for (qx_conf_directive *row = table; row->name; ++row) {
            const size_t len = std::strlen(row->name);
            if (strncasecmp(p, row->name, len) != 0) continue;
            if (overlong) {
                FR_LOG(kSource, kChannelMessage, kPrioError, kMsgTooLong, line_number, path,
                       kStartLineBuffer - 1, row->name);
                break;
            }
            const char *value = skip_blanks(p + len);
            if (is_empty_value(value))
                FR_LOG(kSource, kChannelMessage, kPrioError, kMsgNoValue, row->name, line_number,
                       path);
            append_value(*row, value);
            break;
        }
        return true;
    });
    return 0;
}

int multi_files_internal(qx_conf_directive *table, const char *const *files) {
    qx_conf_parse_multi_directives_free_data(table);
    for (const char *const *path = files; *path; ++path) {
        qx::File fp(std::fopen(*path, kReadMode));
        if (!fp) {
            // A node need not have every file; the others still count.
            FR_LOG(kSource, kChannelMessage, kPrioError, kMsgOpenError, *path,
                   std::strerror(errno));
            continue;
        }
        if (handle_file_internal(fp.get(), table, *path) != 0) {
            FR_LOG(kSource, kChannelMessage, kPrioError, kMsgParseError, *path);
            return -1;
        }
    }
    return 0;
}

}  // namespace

extern "C" {

int qx_conf_parse_string_value(const char *keyword, const char *path, char **out) {
    if (!out) {
        QX_TRACE_RETURN();
        return -1;
    }
    if (*out) {
        std::free(*out);
        *out = nullptr;
    }
    if (!keyword || !path) {
        QX_TRACE_RETURN();
        return -1;
    }
    qx::File fp(std::fopen(path, kReadMode));
    if (!fp) {
        QX_TRACE_RETURN();
        return -1;
    }
    const size_t keyword_len = std::strlen(keyword);
    try {
        for_each_line<kStartLineBuffer>(fp.get(), [&](char *line, int line_number, bool overlong) {
            const char *p = skip_blanks(line);
            if (*p == kComment) return true;
            if (strncasecmp(p, keyword, keyword_len) != 0) return true;
            const char *rest = p + keyword_len;
            if (!is_blank(*rest)) {
                // The keyword alone was meant, but no value can be taken from it.
                if (is_empty_value(rest))
                    FR_LOG(kSource, kChannelMessage, kPrioError, kMsgNoValue, keyword, line_number,
                           path);
                return true;
            }
            if (overlong) {
                FR_LOG(kSource, kChannelMessage, kPrioError, kMsgTooLong, line_number, path,
                       kStartLineBuffer - 1, keyword);
                return true;
            }
            *out = trimmed_copy(skip_blanks(rest));
            if (*out && **out == '\0')
                FR_LOG(kSource, kChannelMessage, kPrioError, kMsgNoValue, keyword, line_number,
                       path);
            return false;
        });
    } catch (...) {
    }
    // A missing keyword is not an error: the caller sees *out still NULL.
    return 0;
}

int qx_conf_parse_db_cred(const char *keyword, const char *path, const char *id, char **field1,
                          char **field2, char **field3) {
    if (!path || !id) {
        QX_TRACE_RETURN();
        return -1;
    }
    try {
        return cred_internal(keyword, path, id, field1, field2, field3);
    } catch (...) {
        return -1;
    }
}

int qx_conf_parse_worker(const char *keyword, const char *path, char **out) {
    if (!path || !out) {
        QX_TRACE_RETURN();
        return -1;
    }
    try {
        return worker_internal(keyword, path, out);
    } catch (...) {
        return -1;
    }
}

int qx_conf_parse_db_host_custom(const char *path, const char *id, const char *keyword, char **host,
                                 int *port) {
    if (!path || !id || !keyword) {
        QX_TRACE_RETURN();
        return -1;
    }
    try {
        return host_internal(path, id, keyword, host, port);
    } catch (...) {
        return -1;
    }
}

int qx_conf_parse_db_host(const char *path, const char *id, int is_master, char **host, int *port) {
    return qx_conf_parse_db_host_custom(path, id, is_master ? kMasterKeyword : kSlaveKeyword, host,
                                        port);
}

int qx_conf_parse_multi_directives(qx_conf_directive *table, const char *path) {
    // A NULL path is an empty file list: the table is still cleared, as on every read.
    const char *const files[] = {path, nullptr};
    return qx_conf_parse_multi_directives_multi_files(table, files);
}

int qx_conf_parse_multi_directives_multi_files(qx_conf_directive *table, const char *const *files) {
    if (!table || !files) {
        errno = EINVAL;
        return -1;
    }
    try {
        return multi_files_internal(table, files);
    } catch (...) {
        return -1;
    }
}

int qx_conf_parse_multi_directives_handle_file(FILE *fp, qx_conf_directive *table) {
    if (!fp || !table) {
        errno = EINVAL;
        return -1;
    }
    try {
        return handle_file_internal(fp, table, kStreamName);
    } catch (...) {
        return -1;
    }
}

void qx_conf_parse_multi_directives_free_data(qx_conf_directive *table) {
    if (!table) return;
    for (qx_conf_directive *row = table; row->name; ++row) {
        for (int i = 0; i < row->count; ++i)
            std::free(row->values[i]);
        std::free(row->values);
        row->values = nullptr;
        row->count = 0;
    }
}

}  // extern "C"
