// The SQL pool's configuration texts: shard descriptions, server values, and the pool set-up
// from pbx.conf and sqldbase.conf. Input: the pbx.conf text, a NUL byte, the sqldbase.conf text.
#include "fuzz_support.hpp"
#include "sqlsession.h"
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fr_log_threshold = 7;  // format every line the parsers emit
    fr_log_set_sink(sink, nullptr);
    const std::string_view input(reinterpret_cast<const char *>(data), size);

    if (auto shard = qx::sql::parse_shard_info(input)) {
        FUZZ_CHECK(!shard->name.empty() && !shard->user.empty());
        FUZZ_CHECK(shard->name + ":" + shard->user + ":" + shard->password + ":" +
                       shard->database ==
                   input);
    }
    if (auto host = qx::sql::parse_host_value(input)) {
        FUZZ_CHECK(!host->shard.empty() && host->shard.find(':') == npos && !host->host.empty());
        FUZZ_CHECK(input.substr(0, host->shard.size() + 1) == host->shard + ":");
        FUZZ_CHECK(host->port >= 0 && host->port <= 65535);
        FUZZ_CHECK(host->unix_socket == (host->host.front() == '/'));
        FUZZ_CHECK(!host->unix_socket || host->port == 0);
    }

    const size_t nul = input.find('\0');
    const std::string pbx = fuzz::scratch_file("pbx.conf", input.substr(0, nul));
    const std::string servers =
        fuzz::scratch_file("sqldbase.conf", nul == npos ? "" : input.substr(nul + 1));
    g_connection_attempted = false;
    const int status = qx_sql_pool_init_from_config_files(pbx.c_str(), servers.c_str());
    FUZZ_CHECK(status == 0 || status == -1);
    FUZZ_CHECK(!g_connection_attempted);  // set-up only reads files
    FUZZ_CHECK(fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_CONNECT) >= 1);
    FUZZ_CHECK(fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_READ) >= 1);
    FUZZ_CHECK(fr_sqlpool_timeout_get(FR_SQL_TIMEOUT_WRITE) >= 1);
    FUZZ_CHECK(fr_sqlpool_down_time_get() >= 0 && fr_sqlpool_master_down_time_get() >= 0);
    qx_sql_pool_destroy();
    return 0;
}
