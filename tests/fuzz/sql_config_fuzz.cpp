// The SQL pool's configuration texts: shard descriptions, server values, and the pool set-up
// from pbx.conf and sqldbase.conf. Input: the pbx.conf text, a NUL byte, the sqldbase.conf text.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "sqlsession.h"
#include "zarn_base.h"
#include "zarn_sql_config.hpp"

namespace {

constexpr auto npos = std::string_view::npos;
bool g_connection_attempted = false;

void sink(const char *, int, const char *, int, int, const char *message, void *) {
    const std::string_view text(message);
    if (text.starts_with("Cannot connect to SQL") || text.starts_with("Connected to SQL")) {
        g_connection_attempted = true;
    }
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

void write_file(const std::string &path, std::string_view text) {
    if (std::FILE *fp = std::fopen(path.c_str(), "wb")) {
        std::fwrite(text.data(), 1, text.size(), fp);
        std::fclose(fp);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string dir = [] {
        char tmpl[] = "/tmp/qx-sqlfuzz-XXXXXX";
        fr_log_threshold = 7;  // format every line the parsers emit
        fr_log_set_sink(sink, nullptr);
        return std::string(mkdtemp(tmpl) ? tmpl : "/tmp");
    }();
    const std::string_view input(reinterpret_cast<const char *>(data), size);

    if (auto shard = qx::sql::parse_shard_info(input)) {
        check(!shard->name.empty() && !shard->user.empty());
        check(shard->name + ":" + shard->user + ":" + shard->password + ":" + shard->database ==
              input);
    }
    if (auto host = qx::sql::parse_host_value(input)) {
        check(!host->shard.empty() && host->shard.find(':') == npos && !host->host.empty());
        check(input.substr(0, host->shard.size() + 1) == host->shard + ":");
        check(host->port >= 0 && host->port <= 65535);
        check(host->unix_socket == (host->host.front() == '/'));
        check(!host->unix_socket || host->port == 0);
    }

    const size_t nul = input.find('\0');
    const std::string pbx = dir + "/pbx.conf", servers = dir + "/sqldbase.conf";
    write_file(pbx, input.substr(0, nul));
    write_file(servers, nul == npos ? std::string_view() : input.substr(nul + 1));
    g_connection_attempted = false;
    const int status = qx_sql_pool_init_from_config_files(pbx.c_str(), servers.c_str());
    check(status == 0 || status == -1);
    check(!g_connection_attempted);  // set-up only reads files
    check(fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_CONNECT) >= 1);
    check(fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_READ) >= 1);
    check(fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_WRITE) >= 1);
    check(fr_sqlpool_down_time_get() >= 0 && fr_sqlpool_master_down_time_get() >= 0);
    qx_sql_pool_destroy();
    return 0;
}
