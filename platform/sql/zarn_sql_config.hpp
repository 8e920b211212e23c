// Text formats the SQL pool reads: shard descriptions and the server lines of sqldbase.conf.
// Internal to libzarn_sql (and its tests); C callers go through zarn_sql.h.
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
// socket path; its port is ignored and may then be left out ("<shard>:/path").
struct HostSpec {
    std::string shard;
    std::string host;
    int port = 0;
    bool unix_socket = false;
};
std::optional<HostSpec> parse_host_value(std::string_view value);

// Reads fp in pieces of at most 255 bytes (a longer line yields several pieces, each counted as
// a line), cuts each piece at its first '#', and calls on_line(line_number, text) for the rest.
void for_each_config_line(std::FILE *fp, const std::function<void(int, std::string_view)> &on_line);

// Strips isspace() bytes at both ends.
std::string_view trim(std::string_view s);

}  // namespace qx::sql
