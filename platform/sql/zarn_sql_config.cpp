// Parsing of shard descriptions and server lines for the SQL pool.
#include "zarn_sql_config.hpp"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace qx::sql {

namespace {

// Matches the line buffer of the platform's other keyword-anywhere readers, so a file means
// the same thing to every reader of it.
constexpr size_t kLineBuffer = 256;
constexpr int kMaxPort = 65535;

}  // namespace

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front())))
        s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
        s.remove_suffix(1);
    return s;
}

std::optional<ShardInfo> parse_shard_info(std::string_view text) {
    const size_t first = text.find(':');
    if (first == std::string_view::npos) return std::nullopt;
    const size_t second = text.find(':', first + 1);
    if (second == std::string_view::npos) return std::nullopt;
    const size_t last = text.rfind(':');
    if (last == second) return std::nullopt;  // only three fields

    ShardInfo info;
    info.name = std::string(text.substr(0, first));
    info.user = std::string(text.substr(first + 1, second - first - 1));
    info.password = std::string(text.substr(second + 1, last - second - 1));
    info.database = std::string(text.substr(last + 1));
    // A shard nobody can name or log in to is a typo, not a configuration.
    if (info.name.empty() || info.user.empty()) return std::nullopt;
    return info;
}

std::optional<HostSpec> parse_host_value(std::string_view value) {
    const size_t first = value.find(':');
    if (first == std::string_view::npos || first == 0) return std::nullopt;

    HostSpec host_spec;
    host_spec.shard = std::string(value.substr(0, first));
    std::string_view rest = value.substr(first + 1);
    const size_t last = rest.rfind(':');

    std::string_view host;
    if (last == std::string_view::npos) {
        // "<shard>:/path": a socket needs no port.
        if (rest.empty() || rest.front() != '/') return std::nullopt;
        host = rest;
    } else {
        host = rest.substr(0, last);
        // A typo in the port would otherwise send the pool to the library's default port.
        const std::optional<int> port = parse_int(rest.substr(last + 1), 0, kMaxPort);
        if (!port && (host.empty() || host.front() != '/')) return std::nullopt;
        host_spec.port = port.value_or(0);
    }
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty()) return std::nullopt;
    host_spec.host = std::string(host);
    host_spec.unix_socket = host.front() == '/';
    if (host_spec.unix_socket) host_spec.port = 0;
    return host_spec;
}

std::optional<int> parse_int(std::string_view text, int min, int max) {
    text = trim(text);
    const bool negative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
    if (text.empty()) return std::nullopt;
    long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
        if (value > 1LL << 32) return std::nullopt;
    }
    if (negative) value = -value;
    if (value < min || value > max) return std::nullopt;
    return static_cast<int>(value);
}

void for_each_config_line(std::FILE *fp, const std::function<void(const ConfigLine &)> &on_line) {
    struct Buffer {
        char *data = nullptr;
        size_t capacity = 0;
        ~Buffer() { std::free(data); }
    } buf;
    ssize_t got;
    int line_no = 0;
    while ((got = getline(&buf.data, &buf.capacity, fp)) > 0) {
        std::string_view line(buf.data, static_cast<size_t>(got));
        ConfigLine out;
        out.number = ++line_no;
        out.text = line.substr(0, kLineBuffer - 1);
        out.text = out.text.substr(0, out.text.find('#'));
        if (line.back() == '\n') line.remove_suffix(1);
        out.whole = line.substr(0, line.find('#'));
        out.overlong = out.whole.size() > kLineBuffer - 1;
        on_line(out);
    }
}

}  // namespace qx::sql
