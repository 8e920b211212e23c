// Text formats the SQL pool reads: shard descriptions and the server lines of sqldbase.conf.
// Internal to libzarn_sql, the pool set-up in main/sqlsession and tests; C callers go through
// zarn_sql.h.
#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qx::sql {

// "<shard>:<user>:<password>:<database>". The password is everything between the second and
// the last colon, so a password may itself contain colons.
struct ShardInfo {
    std::string name;
    std::string user;
    std::string password;
    std::string database;
};
std::optional<ShardInfo> parse_shard_info(std::string_view text);

// "<shard>:<host>:<port>": the host is everything between the first and the last colon (IPv6
// literals keep their colons; "[...]" brackets are dropped). A host starting with '/' is a unix
// socket path; its port is ignored and may then be left out ("<shard>:/path"). A network
// host needs a decimal port of at most 65535.
struct HostSpec {
    std::string shard;
    std::string host;
    int port = 0;
    bool unix_socket = false;
};
std::optional<HostSpec> parse_host_value(std::string_view value);

// One line of a configuration file as the platform's keyword-anywhere readers see it.
struct ConfigLine {
    int number = 0;
    // At most the first 255 bytes (with the newline when it fits), cut at the first '#'.
    std::string_view text;
    // The whole line without its newline, cut at the first '#': where a directive that did
    // not fit is searched, so that it can be reported.
    std::string_view whole;
    // Directive text was lost beyond the 255 bytes; it is never read as a line of its own.
    bool overlong = false;
};
void for_each_config_line(std::FILE *fp, const std::function<void(const ConfigLine &)> &on_line);

// The decimal integer that is the whole of text once trimmed, when it lies in [min, max].
std::optional<int> parse_int(std::string_view text, int min, int max);

// Strips isspace() bytes at both ends.
std::string_view trim(std::string_view s);

}  // namespace qx::sql
