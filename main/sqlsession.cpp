// Sets the process-wide SQL pool up from the node's configuration files, and hands out sessions.
#include "sqlsession.h"

#include <climits>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "zarn_base.h"
#include "zarn_sql_config.hpp"

namespace {

constexpr const char *kSrc = "../main/sqlsession";
constexpr int kChannel = 3;
constexpr int kPrioError = 3;
constexpr int kPrioDebug = 7;

constexpr std::string_view kCredentialsKeyword = "DB_CREDENTIALS";

constexpr double kPoolIdleTimeout = 60.0;
constexpr int kPoolVerbosity = 100;
constexpr int kLineBytes = 255;
constexpr int kMaxTimeout = 24 * 3600;

constexpr const char *kMsgConditionFailed = "%s:%d:condition failed\n";
constexpr const char *kMsgNoMaster =
    "Failed to find at least one master SQL server in <%s>. Invalid configuration, cannot "
    "start.\n\n";
constexpr const char *kMsgInvalidLine = "Invalid %.*s line [%d] in <%s>.\n\n";
constexpr const char *kMsgOverlong =
    "%.*s line [%d] in <%s> is longer than %d bytes; the rest of it is ignored.\n\n";

// The numeric directives of the servers file. SLAVE_DOWN_TIME has always taken atoi of
// whatever it was given, so a malformed value still applies (as 0); a malformed new directive
// keeps the value in force.
struct NumericDirective {
    std::string_view keyword;
    void (*apply)(int);
    int min;
    int max;
    bool apply_malformed;
};
const NumericDirective kServerDirectives[] = {
    {"SLAVE_DOWN_TIME", fr_sqlpool_down_time_set, INT_MIN, INT_MAX, true},
    {"MASTER_DOWN_TIME", fr_sqlpool_master_down_time_set, 0, INT_MAX, false},
    {"DB_CONNECT_TIMEOUT", [](int s) { fr_sqlpool_timeout_set(FR_SQL_TIMEOUT_CONNECT, s); }, 1,
     kMaxTimeout, false},
    {"DB_READ_TIMEOUT", [](int s) { fr_sqlpool_timeout_set(FR_SQL_TIMEOUT_READ, s); }, 1,
     kMaxTimeout, false},
    {"DB_WRITE_TIMEOUT", [](int s) { fr_sqlpool_timeout_set(FR_SQL_TIMEOUT_WRITE, s); }, 1,
     kMaxTimeout, false},
};

// The value of keyword on line: the text one separator character after the keyword, trimmed;
// nullopt when the line does not hold the keyword within its first 255 bytes. A line too long
// for the buffer is reported when the keyword is on it, wherever.
std::optional<std::string> keyword_value(const qx::sql::ConfigLine &line, std::string_view keyword,
                                         const char *file) {
    const int keyword_len = static_cast<int>(keyword.size());
    if (line.overlong && line.whole.find(keyword) != std::string_view::npos) {
        FR_LOG(kSrc, kChannel, kPrioError, kMsgOverlong, keyword_len, keyword.data(), line.number,
               file, kLineBytes);
    }
    const size_t at = line.text.find(keyword);
    if (at == std::string_view::npos) return std::nullopt;
    const size_t value_at = at + keyword.size() + 1;
    // A keyword at the very end of its line has an empty value, not the bytes that follow.
    if (value_at >= line.text.size()) return std::string();
    return std::string(qx::sql::trim(line.text.substr(value_at)));
}

void log_invalid(std::string_view keyword, int line_no, const char *file) {
    FR_LOG(kSrc, kChannel, kPrioError, kMsgInvalidLine, static_cast<int>(keyword.size()),
           keyword.data(), line_no, file);
}

int init_from_config_files(const char *cred_file, const char *servers_file) {
    fr_sqlpool_init_api(nullptr, nullptr, kPoolIdleTimeout);
    fr_sqlpool_verbosity_set(kPoolVerbosity);

    {
        qx::File creds(cred_file ? std::fopen(cred_file, "r") : nullptr);
        if (!creds) {
            FR_LOG(kSrc, kChannel, kPrioDebug, kMsgConditionFailed, kSrc, __LINE__);
            return -1;
        }
        // A description the library rejects aborts the set-up.
        bool all_parsed = true;
        qx::sql::for_each_config_line(creds.get(), [&](const qx::sql::ConfigLine &line) {
            if (!all_parsed) return;
            const std::optional<std::string> value =
                keyword_value(line, kCredentialsKeyword, cred_file);
            if (!value) return;
            fr_sql_shard_t *shard = fr_sql_shard_parse_info(value->c_str());
            if (!shard) {
                log_invalid(kCredentialsKeyword, line.number, cred_file);
                all_parsed = false;
                return;
            }
            fr_sqlpool_shard_add(shard);
        });
        if (!all_parsed) return -1;
    }

    {
        qx::File servers(servers_file ? std::fopen(servers_file, "r") : nullptr);
        if (!servers) return -1;
        qx::sql::for_each_config_line(servers.get(), [&](const qx::sql::ConfigLine &line) {
            for (const NumericDirective &directive : kServerDirectives) {
                const std::optional<std::string> value =
                    keyword_value(line, directive.keyword, servers_file);
                if (!value) continue;
                const std::optional<int> seconds =
                    qx::sql::parse_int(*value, directive.min, directive.max);
                if (!seconds) log_invalid(directive.keyword, line.number, servers_file);
                if (seconds) {
                    directive.apply(*seconds);
                } else if (directive.apply_malformed) {
                    directive.apply(std::atoi(value->c_str()));
                }
            }
        });
    }

    if (fr_sql_shard_parse_connection_info(servers_file, nullptr, 1) != 0) {
        FR_LOG(kSrc, kChannel, kPrioError, kMsgNoMaster, servers_file);
        return -1;
    }
    return 0;
}

}  // namespace

extern "C" {

void qx_sql_pool_init(void) {
    qx_sql_pool_init_from_config_files(QX_PBX_CONF, QX_SQLDBASE_CONF);
}

int qx_sql_pool_init_from_config_files(const char *cred_file, const char *servers_file) {
    try {
        return init_from_config_files(cred_file, servers_file);
    } catch (...) {
        return -1;
    }
}

int qx_sql_pool_destroy(void) {
    return fr_sqlpool_destroy();
}

SessionHandle *sess_init(void) {
    return fr_sqlpool_conn_get(0);
}

void sess_destroy(SessionHandle *sess) {
    fr_sqlpool_conn_free(sess);
}

}  // extern "C"
