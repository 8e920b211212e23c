// Sets the process-wide SQL pool up from the node's configuration files, and hands out sessions.
#include "sqlsession.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "zarn_base.h"

namespace {

constexpr const char *kSrc = "../main/sqlsession";
constexpr int kChannel = 3;
constexpr int kPrioError = 3;
constexpr int kPrioDebug = 7;

constexpr const char *kCredentialsKeyword = "DB_CREDENTIALS";
constexpr const char *kDownTimeKeyword = "SLAVE_DOWN_TIME";
// The value starts one separator character after the keyword.
constexpr size_t kCredentialsValueOffset = 15;
constexpr size_t kDownTimeValueOffset = 16;

constexpr double kPoolIdleTimeout = 60.0;
constexpr int kPoolVerbosity = 100;

constexpr const char *kMsgConditionFailed = "%s:%d:condition failed\n";
constexpr const char *kMsgNoMaster =
    "Failed to find at least one master SQL server in <%s>. Invalid configuration, cannot "
    "start.\n\n";

// Same line rules as the platform's other keyword-anywhere readers.
constexpr int kLineBuffer = 256;

// Reads fp line by line (in pieces of at most 255 bytes), cuts each at its first '#', and
// calls on_value with the trimmed text found value_offset bytes after keyword. A keyword too
// close to the end of its line gives an empty value rather than a read past it. Stops as soon
// as on_value returns false; returns false then.
template <typename OnValue>
bool for_each_keyword_value(FILE *fp, const char *keyword, size_t value_offset,
                            OnValue &&on_value) {
    char line[kLineBuffer];
    while (std::fgets(line, sizeof line, fp)) {
        if (char *hash = std::strchr(line, '#')) *hash = '\0';
        if (line[0] == '\0') continue;
        const char *at = std::strstr(line, keyword);
        if (!at) continue;
        const size_t available = std::strlen(at);
        std::string value(available > value_offset ? at + value_offset : "");
        fr_str_trim(value.data(), FR_TRIM_BOTH);
        value.resize(std::strlen(value.c_str()));
        if (!on_value(value)) return false;
    }
    return true;
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
        // A description the library rejects aborts the set-up; the library has said why.
        const bool all_parsed = for_each_keyword_value(
            creds.get(), kCredentialsKeyword, kCredentialsValueOffset,
            [](const std::string &value) {
                fr_sql_shard_t *shard = fr_sql_shard_parse_info(value.c_str());
                if (!shard) return false;
                fr_sqlpool_shard_add(shard);
                return true;
            });
        if (!all_parsed) return -1;
    }

    {
        qx::File servers(servers_file ? std::fopen(servers_file, "r") : nullptr);
        if (!servers) return -1;
        for_each_keyword_value(servers.get(), kDownTimeKeyword, kDownTimeValueOffset,
                               [](const std::string &value) {
                                   fr_sqlpool_down_time_set(std::atoi(value.c_str()));
                                   return true;
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
