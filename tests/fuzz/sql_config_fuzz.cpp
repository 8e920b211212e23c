// The SQL pool's configuration texts: shard descriptions, server values, and the pool set-up
// from pbx.conf and sqldbase.conf. Input: the pbx.conf text, a NUL byte, the sqldbase.conf text.
#include "fuzz_support.hpp"
#include "sqlsession.h"
#include "zarn_sql_config.hpp"

static bool g_connection_attempted = false;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fr_log_threshold = 7;  // format every line the parsers emit
    fr_log_set_sink(
        [](const char *, int, const char *, int, int, const char *message, void *) {
            const std::string_view text(message);
            g_connection_attempted |=
                text.starts_with("Cannot connect to SQL") || text.starts_with("Connected to SQL");
        },
        nullptr);
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    if (auto s = qx::sql::parse_shard_info(input)) {
        FUZZ_CHECK(!s->name.empty() && !s->user.empty());
        FUZZ_CHECK(s->name + ":" + s->user + ":" + s->password + ":" + s->database == input);
    }
    if (auto h = qx::sql::parse_host_value(input)) {
        FUZZ_CHECK(!h->shard.empty() && !fuzz::contains(h->shard, ":") && !h->host.empty());
        FUZZ_CHECK(input.substr(0, h->shard.size() + 1) == h->shard + ":");
        FUZZ_CHECK(h->port >= 0 && h->port <= 65535 && h->unix_socket == (h->host[0] == '/') &&
                   (!h->unix_socket || h->port == 0));
    }

    const size_t nul = input.find('\0');
    const std::string pbx = fuzz::scratch_file("pbx.conf", input.substr(0, nul));
    const std::string servers = fuzz::scratch_file(
        "sqldbase.conf", nul == std::string_view::npos ? "" : input.substr(nul + 1));
    g_connection_attempted = false;
    const int status = qx_sql_pool_init_from_config_files(pbx.c_str(), servers.c_str());
    FUZZ_CHECK((status == 0 || status == -1) && !g_connection_attempted);  // only reads files
    for (auto t : {FR_SQL_TIMEOUT_CONNECT, FR_SQL_TIMEOUT_READ, FR_SQL_TIMEOUT_WRITE})
        FUZZ_CHECK(fr_sqlpool_timeout_get(t) >= 1);
    FUZZ_CHECK(fr_sqlpool_down_time_get() >= 0 && fr_sqlpool_master_down_time_get() >= 0);
    qx_sql_pool_destroy();
    return 0;
}
