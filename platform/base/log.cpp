// The platform logger: syslog by default, a node-wide log file when local.conf names one, or a
// test sink. The threshold lives in a plain global so that FR_LOG can reject a line with one
// comparison before any argument is evaluated.
#include <fcntl.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "cxx_util.hpp"
#include "qx_paths.h"
#include "zarn_base.h"

// Debug until the node's setting is loaded, so that the very first FR_LOG reaches fr_log_impl,
// which is where the lazy load happens.
int fr_log_threshold = LOG_DEBUG;

namespace {

constexpr const char *kLevelKey = "LOG_LEVEL";
constexpr const char *kFileKey = "LOG_FILE";
constexpr int kDefaultLevel = LOG_NOTICE;
constexpr mode_t kLogFileMode = 0640;

struct LevelName {
    const char *name;
    int level;
};
constexpr LevelName kLevelNames[] = {
    {"emerg", LOG_EMERG},   {"alert", LOG_ALERT}, {"crit", LOG_CRIT},
    {"err", LOG_ERR},       {"error", LOG_ERR},   {"warning", LOG_WARNING},
    {"notice", LOG_NOTICE}, {"info", LOG_INFO},   {"debug", LOG_DEBUG},
};

// Guards the output side (sink, its context, the log file) so that lines from several threads
// never interleave. Recursive because a sink may itself log or change the sink.
std::recursive_mutex g_out_mutex;
fr_log_sink_fn g_sink = nullptr;
void *g_sink_ctx = nullptr;
int g_log_fd = -1;

std::once_flag g_settings_once;
std::once_flag g_syslog_once;
// Set once a caller chose the threshold itself; the lazy load must then leave it alone.
std::atomic<bool> g_threshold_pinned{false};

constexpr char kSource[] = "../platform/base/log";
constexpr int kChannel = 3;
constexpr char kMsgUnknownLevel[] = "Unknown LOG_LEVEL [%s] in <%s>; notice is used.\n";

// Lines logged while the settings load (parseconfig reporting local.conf's own bad lines) cannot
// go out yet: the logger does not know its threshold or its file, and logging normally would
// re-enter the load. They wait here until the load is done. Only the loading thread, inside the
// once-call, ever touches them.
struct HeldLine {
    std::string file;
    int line;
    std::string func;
    int channel;
    int priority;
    std::string message;
};
thread_local bool t_loading = false;
std::vector<HeldLine> g_held;

void store_threshold(int level) {
    __atomic_store_n(&fr_log_threshold, level, __ATOMIC_RELAXED);
}

// A number 0-7 or a level word (any case); -1 for anything else.
int parse_level(const char *text) {
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(text, &end, 10);
    if (*end == '\0' && errno == 0 && end != text)
        return n >= LOG_EMERG && n <= LOG_DEBUG ? int(n) : -1;
    for (const auto &ln : kLevelNames) {
        if (strcasecmp(text, ln.name) == 0) return ln.level;
    }
    return -1;
}

void emit(const char *file, int line, const char *func, int channel, int priority,
          std::string &message);

// Runs once per process, under the once-flag that every fr_log_impl call passes first.
void load_settings() {
    char *level = nullptr;
    char *file = nullptr;
    const fr_conf_entry table[] = {
        {kLevelKey, FR_CONF_STRING, &level},
        {kFileKey, FR_CONF_STRING, &file},
    };
    t_loading = true;
    parseconfig(QX_LOCAL_CONF, table, sizeof table / sizeof table[0]);
    t_loading = false;
    qx::CStr level_owner(level);
    qx::CStr file_owner(file);

    const int parsed = level && *level ? parse_level(level) : kDefaultLevel;
    if (parsed < 0) {
        g_held.push_back({kSource, __LINE__, __func__, kChannel, LOG_ERR,
                          qx::format(kMsgUnknownLevel, level, QX_LOCAL_CONF)});
    }
    {
        std::lock_guard<std::recursive_mutex> lock(g_out_mutex);
        if (!g_threshold_pinned.load()) store_threshold(parsed < 0 ? kDefaultLevel : parsed);
        if (file && *file) {
            int fd = ::open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kLogFileMode);
            if (fd >= 0) g_log_fd = fd;
        }
    }
    std::vector<HeldLine> held;
    held.swap(g_held);
    for (auto &h : held) {
        if (h.priority <= __atomic_load_n(&fr_log_threshold, __ATOMIC_RELAXED))
            emit(h.file.c_str(), h.line, h.func.c_str(), h.channel, h.priority, h.message);
    }
}

// Whole line in one write so that lines of concurrent processes sharing the file stay whole.
void write_line(int fd, const std::string &line) {
    const char *p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (n == 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void emit(const char *file, int line, const char *func, int channel, int priority,
          std::string &message) {
    std::lock_guard<std::recursive_mutex> lock(g_out_mutex);
    if (g_sink) {
        g_sink(file, line, func, channel, priority, message.c_str(), g_sink_ctx);
        return;
    }
    if (g_log_fd >= 0) {
        if (message.empty() || message.back() != '\n') message.push_back('\n');
        write_line(g_log_fd, message);
        return;
    }
    std::call_once(g_syslog_once, [] { openlog(nullptr, LOG_PID, LOG_DAEMON); });
    int pri = priority < LOG_EMERG ? LOG_EMERG : (priority > LOG_DEBUG ? LOG_DEBUG : priority);
    syslog(pri, "%s", message.c_str());
}

}  // namespace

extern "C" void fr_log_impl(const char *file, int line, const char *func, int channel, int priority,
                            const char *fmt, ...) {
    if (!fmt) return;
    va_list ap;
    va_start(ap, fmt);
    try {
        if (t_loading) {
            g_held.push_back({file ? file : "", line, func ? func : "", channel, priority,
                              qx::vformat(fmt, ap)});
            va_end(ap);
            return;
        }
        std::call_once(g_settings_once, load_settings);
        // The lazy load may just have raised the bar that FR_LOG checked against debug.
        if (priority <= __atomic_load_n(&fr_log_threshold, __ATOMIC_RELAXED)) {
            std::string message = qx::vformat(fmt, ap);
            emit(file, line, func, channel, priority, message);
        }
    } catch (...) {
        // Logging must never take its caller down; an unloggable line is dropped.
    }
    va_end(ap);
}

extern "C" void fr_log_set_sink(fr_log_sink_fn sink, void *ctx) {
    std::lock_guard<std::recursive_mutex> lock(g_out_mutex);
    g_sink = sink;
    g_sink_ctx = sink ? ctx : nullptr;
}

extern "C" void fr_log_set_threshold(int priority) {
    std::lock_guard<std::recursive_mutex> lock(g_out_mutex);
    g_threshold_pinned.store(true);
    store_threshold(priority);
}
