// Set-up of the process's DisDB cache client: syslog levels from local.conf, servers and the
// database of the "main" partition from disdbase.conf and pbx.conf.
#include "zarn_velkan.h"

#include <syslog.h>

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "zarn_base.h"
#include "zarn_config_parser.h"

namespace {

constexpr char kSource[] = "../main/zarn_velkan";
constexpr int kChannel = 3;
constexpr int kError = 3;
constexpr int kDebug = 7;

constexpr char kPartition[] = "main";
constexpr char kDebugKeyword[] = "VELKAN_DEBUG_PBX";
constexpr char kHostKeyword[] = "DISDBASE_HOST";
constexpr char kCredentialsKeyword[] = "DISDBASE_CREDENTIALS";
constexpr char kNullText[] = "(null)";

constexpr char kMsgNoLocalConf[] =
    "Failed to open disdbase options configuration file (" QX_LOCAL_CONF ").\n";
constexpr char kMsgParseFailed[] =
    "Failed to parse configuration files needed for Velkan connection.\n";
constexpr char kMsgServerAdded[] = "Adding vk server [%s] was successfull.\n";
constexpr char kMsgServerFailed[] = "Failed to add vk server [%s] from " QX_DISDBASE_CONF ".\n";
constexpr char kMsgCredFields[] =
    "Failed to parse velkan credentials from " QX_PBX_CONF ". Entry nr: %zu.\n";
constexpr char kMsgCredDb[] =
    "Failed to parse velkan credentials from " QX_PBX_CONF ". Invalid db number. Entry nr: %zu.\n";
constexpr char kMsgCredSkipped[] = "Skipping velkan credentials for partition %s.\n";
constexpr char kMsgKeyFailed[] = "vk_set_database_key(%d,..) failed with error: %s";
constexpr char kMsgSelectFailed[] = "vk_select(%d) failed with error: %s";
// The directive reader merges both files, so which one held the value is not known here.
constexpr char kMsgHostInvalid[] =
    "Invalid DISDBASE_HOST value [%s] in " QX_DISDBASE_CONF " or " QX_PBX_CONF ".\n";
constexpr char kMsgLevelUnknown[] = "Unknown VELKAN_DEBUG_PBX level [%s] in " QX_LOCAL_CONF ".\n";
constexpr int kMaxPort = 65535;

constexpr char kSysHostInvalid[] = "Failed to parse disdb host. Entry: %s.\n";
constexpr char kSysServerSkipped[] = "Skiping velkan server %s from partition %s";
constexpr char kSysLevels[] = "Parsing syslog loglevel for libvelkan: %s";
constexpr char kSysEnabled[] = "Enabling syslog for libvelkan. Loglevel: 0x%X";

struct LevelWord {
    std::string_view word;
    unsigned bit;
};
constexpr LevelWord kLevelWords[] = {
    {"ERROR", VK_LOG_ERROR},   {"DEBUG", VK_LOG_DEBUG},     {"EVENT", VK_LOG_EVENT},
    {"NOTICE", VK_LOG_NOTICE}, {"WARNING", VK_LOG_WARNING},
};

// Splits the way the platform's string helper does: empty pieces between two separators are
// kept (an empty database key must stay a field), a trailing separator adds no empty piece.
std::vector<std::string> split(std::string_view text, char sep) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t pos; (pos = text.find(sep, start)) != std::string_view::npos; start = pos + 1)
        out.emplace_back(text.substr(start, pos - start));
    if (start < text.size()) out.emplace_back(text.substr(start));
    return out;
}

// Decimal digits only; atoi would take "80x" for 80 and "x" for 0. -1 when not a number.
long parse_number(const std::string &text, long max) {
    if (text.empty() || text.size() > 9) return -1;
    long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return -1;
        v = v * 10 + (c - '0');
    }
    return v <= max ? v : -1;
}

std::string join(const std::vector<std::string> &parts, size_t first, size_t last, char sep) {
    std::string out;
    for (size_t i = first; i < last; ++i) {
        if (i > first) out += sep;
        out += parts[i];
    }
    return out;
}

// The directive table owns its values through the parser, which frees them.
class Directives {
  public:
    Directives() = default;
    Directives(const Directives &) = delete;
    Directives &operator=(const Directives &) = delete;
    ~Directives() { qx_conf_parse_multi_directives_free_data(rows_); }
    qx_conf_directive *table() { return rows_; }
    const qx_conf_directive &hosts() const { return rows_[0]; }
    const qx_conf_directive &credentials() const { return rows_[1]; }

  private:
    qx_conf_directive rows_[3] = {
        {kHostKeyword, 0, nullptr}, {kCredentialsKeyword, 0, nullptr}, {nullptr, 0, nullptr}};
};

bool add_servers(vk_client_t *client, const qx_conf_directive &hosts) {
    bool added = false;
    for (int i = 0; i < hosts.count; ++i) {
        const char *value = hosts.values[i] ? hosts.values[i] : kNullText;
        if (add_vk_srv_(client, hosts.values[i]) == 0) {
            FR_LOG(kSource, kChannel, kDebug, kMsgServerAdded, value);
            added = true;
        } else {
            FR_LOG(kSource, kChannel, kError, kMsgServerFailed, value);
        }
    }
    return added;
}

// Applies the first valid credentials entry of the "main" partition; false when there is none.
bool apply_credentials(vk_client_t *client, const qx_conf_directive &creds) {
    for (size_t n = 0; n < static_cast<size_t>(creds.count); ++n) {
        const auto fields = split(creds.values[n] ? creds.values[n] : "", ':');
        if (fields.size() < 4) {
            FR_LOG(kSource, kChannel, kError, kMsgCredFields, n);
            continue;
        }
        const int db = static_cast<int>(parse_number(fields[3], INT_MAX));
        if (db <= 0) {
            FR_LOG(kSource, kChannel, kError, kMsgCredDb, n);
            continue;
        }
        if (fields[0] != kPartition) {
            FR_LOG(kSource, kChannel, kError, kMsgCredSkipped, fields[0].c_str());
            continue;
        }
        // A failure of either call leaves the result alone: the servers may accept the client
        // later, and lookups fall back to the database meanwhile.
        const std::string &key = fields[2];
        if (!key.empty()) {
            if (int rc = vk_set_database_key(client, db, key.data(), key.size()); rc != 0)
                FR_LOG(kSource, kChannel, kError, kMsgKeyFailed, db, vk_strerror(rc));
        }
        if (int rc = vk_select(client, db, 0); rc != 0)
            FR_LOG(kSource, kChannel, kError, kMsgSelectFailed, db, vk_strerror(rc));
        return true;
    }
    return false;
}

int init(vk_client_t **client) {
    if (!client) return -1;
    vk_mm_t *mm = vk_mm_create(std::malloc, std::calloc, std::realloc, std::free);
    *client = vk_client_create(1, 2, mm, nullptr);
    vk_mm_destroy(mm);
    if (!*client) return -1;

    char *levels = nullptr;
    if (qx_conf_parse_string_value(kDebugKeyword, QX_LOCAL_CONF, &levels) != 0) {
        FR_LOG(kSource, kChannel, kError, kMsgNoLocalConf);
        return -1;
    }
    if (levels) {
        add_vk_syslog_(*client, levels);
        std::free(levels);
    }

    Directives directives;
    const char *const files[] = {QX_DISDBASE_CONF, QX_PBX_CONF, nullptr};
    if (qx_conf_parse_multi_directives_multi_files(directives.table(), files) != 0) {
        FR_LOG(kSource, kChannel, kError, kMsgParseFailed);
        return -1;
    }
    const bool added = add_servers(*client, directives.hosts());
    const bool credentials = apply_credentials(*client, directives.credentials());
    return added && credentials ? 0 : -1;
}

int add_server(vk_client_t *client, const char *value) {
    const auto fields = split(value ? value : "", ':');
    const long port = fields.size() > 4 ? parse_number(fields.back(), kMaxPort) : -1;
    if (port < 0) {
        syslog(LOG_ERR, kSysHostInvalid, value ? value : kNullText);
        FR_LOG(kSource, kChannel, kError, kMsgHostInvalid, value ? value : kNullText);
        return 1;
    }
    if (fields[0] != kPartition) {
        // The server's name is not known yet at this point; the line has always shown it as
        // a null string, and tools that read the log expect that text.
        syslog(LOG_NOTICE, kSysServerSkipped, kNullText, fields[0].c_str());
        return 1;
    }
    const std::string name = fields[1] + ':' + fields[2];
    const std::string host = join(fields, 3, fields.size() - 1, ':');
    return vk_server_add(client, host.c_str(), static_cast<int>(port), name.c_str());
}

int add_syslog(vk_client_t *client, const char *levels) {
    syslog(LOG_NOTICE, kSysLevels, levels ? levels : kNullText);
    if (!levels) return 0;
    unsigned mask = 0;
    for (const auto &piece : split(levels, '|')) {
        unsigned bit = 0;
        for (const auto &w : kLevelWords)
            if (piece == w.word) bit = w.bit;
        if (!bit) FR_LOG(kSource, kChannel, kError, kMsgLevelUnknown, piece.c_str());
        mask |= bit;
    }
    if (mask == 0) return 0;
    syslog(LOG_NOTICE, kSysEnabled, mask);
    return vk_enable_syslog(client, mask);
}

}  // namespace

extern "C" {

int ast_vk_init(vk_client_t **client) {
    try {
        return init(client);
    } catch (...) {
        return -1;
    }
}

int add_vk_srv_(vk_client_t *client, const char *value) {
    try {
        return add_server(client, value);
    } catch (...) {
        return VK_ENOMEM;
    }
}

int add_vk_syslog_(vk_client_t *client, const char *levels) {
    try {
        return add_syslog(client, levels);
    } catch (...) {
        return VK_ENOMEM;
    }
}

void log_wrap(int priority, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsyslog(priority, fmt, ap);
    va_end(ap);
}

}  // extern "C"
