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
        host_spec.port = std::atoi(std::string(rest.substr(last + 1)).c_str());
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

void for_each_config_line(std::FILE *fp,
                          const std::function<void(int, std::string_view)> &on_line) {
    char buf[kLineBuffer];
    int line_no = 0;
    while (std::fgets(buf, sizeof buf, fp)) {
        ++line_no;
        if (char *hash = std::strchr(buf, '#')) *hash = '\0';
        on_line(line_no, std::string_view(buf));
    }
}

}  // namespace qx::sql
