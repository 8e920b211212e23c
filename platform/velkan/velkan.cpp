// libvelkan on hiredis: a small synchronous client of the DisDB (Redis) servers.
//
// A client is the persistent handle and owns a secondary handle; both share one set of
// settings (servers, database keys, selected database, syslog mask) and each keeps its own
// connection behind its own mutex. Connections are made lazily on the first command and again
// on the first command after a failure, so a restarted server is picked up without any action
// of the caller, and the database key (AUTH) and number (SELECT) are applied to every new
// connection.
#include "velkan.h"

#include <hiredis/hiredis.h>
#include <pthread.h>
#include <signal.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A dead or stalled cache must cost the telephony side milliseconds per call.
constexpr timeval kConnectTimeout{0, 100 * 1000};
constexpr timeval kCommandTimeout{0, 200 * 1000};
// A server that timed out is left alone for this long: otherwise every lookup of a busy
// process would wait for the full timeout again. Refused connections cost nothing and are
// retried at once.
constexpr auto kTimeoutBackoff = std::chrono::milliseconds(1000);

constexpr char kNullValue[] = "_NL_";
constexpr char kValueHashSuffix[] = ":val";

constexpr char kMsgServerAdded[] = "libvelkan: server [%s] added: %s port %d";
constexpr char kMsgConnected[] = "libvelkan: connected to server [%s] (%s:%d)";
constexpr char kMsgFailover[] = "libvelkan: server [%s] unreachable, using server [%s]";
constexpr char kMsgConnectFailed[] = "libvelkan: cannot connect to server [%s] (%s:%d): %s";
constexpr char kMsgAuthFailed[] = "libvelkan: AUTH refused by server [%s]: %s";
constexpr char kMsgSelectFailed[] = "libvelkan: SELECT %d refused by server [%s]: %s";
constexpr char kMsgBackoff[] = "libvelkan: server [%s] timed out, not retried for %lld ms";
constexpr char kMsgIoError[] = "libvelkan: %s on server [%s] failed: %s";
constexpr char kMsgReplyError[] = "libvelkan: %s refused: %.*s";
constexpr char kMsgCommand[] = "libvelkan: %s %.*s";

struct Server {
    std::string host;
    int port = 0;
    std::string name;
    Clock::time_point down_until{};

    bool is_unix() const { return !host.empty() && host.front() == '/'; }
};

// Settings shared by a client and its secondary handle.
struct Settings {
    std::mutex mu;  // guards every member below except the atomics
    std::vector<Server> servers;
    std::map<int, std::string> keys;  // database number -> AUTH password
    int db = 0;
    // Bumped by every change that open connections must see (key, database); a handle whose
    // connection is older reconnects before its next command.
    std::atomic<unsigned> generation{0};
    std::atomic<unsigned> syslog_mask{0};
};

__attribute__((format(printf, 4, 5))) void vk_log(const Settings &s, unsigned bit, int priority,
                                                  const char *fmt, ...) {
    if ((s.syslog_mask.load(std::memory_order_relaxed) & bit) == 0) return;
    int saved = errno;
    va_list ap;
    va_start(ap, fmt);
    vsyslog(priority, fmt, ap);
    va_end(ap);
    errno = saved;
}

struct ReplyFree {
    void operator()(redisReply *r) const noexcept {
        if (r) freeReplyObject(r);
    }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

struct ContextFree {
    void operator()(redisContext *c) const noexcept {
        if (c) redisFree(c);
    }
};
using Context = std::unique_ptr<redisContext, ContextFree>;

// A write to a connection the server has closed raises SIGPIPE, whose default action would
// end the host process. The signal is blocked for the duration of one command and a SIGPIPE
// raised by that command is consumed before the caller's mask is restored.
class SigpipeBlock {
  public:
    SigpipeBlock() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    }
    SigpipeBlock(const SigpipeBlock &) = delete;
    SigpipeBlock &operator=(const SigpipeBlock &) = delete;
    ~SigpipeBlock() {
        // Only a failed write can have raised it, and a SIGPIPE the caller kept blocked
        // before we came is the caller's.
        if (failed_ && !sigismember(&old_, SIGPIPE)) {
            sigset_t pending;
            sigemptyset(&pending);
            if (sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE)) {
                timespec zero{};
                sigtimedwait(&pipe_, nullptr, &zero);
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    void failed() { failed_ = true; }

  private:
    sigset_t pipe_;
    sigset_t old_;
    bool failed_ = false;
};

bool is_timeout(int err) {
    return err == EAGAIN || err == EWOULDBLOCK || err == ETIMEDOUT;
}

char *copy_bytes(const char *p, size_t n) {
    char *out = static_cast<char *>(std::malloc(n + 1));
    if (!out) return nullptr;
    if (n) std::memcpy(out, p, n);
    out[n] = '\0';
    return out;
}

}  // namespace

struct vk_mm {
    void *(*malloc_fn)(size_t);
    void *(*calloc_fn)(size_t, size_t);
    void *(*realloc_fn)(void *, size_t);
    void (*free_fn)(void *);
};

struct vk_client {
    std::shared_ptr<Settings> settings;
    std::mutex mu;  // guards ctx, ctx_generation and current
    Context ctx;
    unsigned ctx_generation = 0;
    size_t current = 0;                    // index of the server in use, or the first one to try
    vk_client *parent = nullptr;           // set on the secondary handle only
    std::unique_ptr<vk_client> secondary;  // set on the persistent handle only
};

namespace {

Context connect_to(const Server &s) {
    redisContext *c = s.is_unix()
                          ? redisConnectUnixWithTimeout(s.host.c_str(), kConnectTimeout)
                          : redisConnectWithTimeout(s.host.c_str(), s.port, kConnectTimeout);
    return Context(c);
}

void mark_down(Settings &st, const std::string &host, int port) {
    std::lock_guard lk(st.mu);
    for (auto &s : st.servers)
        if (s.host == host && s.port == port) s.down_until = Clock::now() + kTimeoutBackoff;
    // Logged by the caller, which knows the server's name.
}

// Sends one command on a fresh connection during the handshake; non-zero on failure.
int handshake_step(Settings &st, Context &ctx, const Server &s, Reply reply, int &status) {
    if (!reply) {
        int err = errno;
        vk_log(st, VK_LOG_ERROR, LOG_ERR, kMsgConnectFailed, s.name.c_str(), s.host.c_str(), s.port,
               ctx->errstr);
        if (is_timeout(err)) {
            mark_down(st, s.host, s.port);
            vk_log(st, VK_LOG_WARNING, LOG_WARNING, kMsgBackoff, s.name.c_str(),
                   static_cast<long long>(kTimeoutBackoff.count()));
        }
        status = VK_EIO;
        return -1;
    }
    if (reply->type == REDIS_REPLY_ERROR) {
        status = VK_EREPLY;
        return -1;
    }
    return 0;
}

// Opens a connection when the handle has none or an outdated one. Called with c.mu held.
int ensure_connected(vk_client &c) {
    Settings &st = *c.settings;
    // Hot path: a connection made under the current settings needs no further look.
    if (c.ctx && c.ctx_generation == st.generation.load(std::memory_order_acquire)) return VK_OK;
    unsigned generation;
    std::vector<Server> servers;
    std::string key;
    int db;
    {
        std::lock_guard lk(st.mu);
        generation = st.generation.load();
        if (c.ctx && c.ctx_generation == generation) return VK_OK;
        servers = st.servers;
        db = st.db;
        if (auto it = st.keys.find(db); it != st.keys.end()) key = it->second;
    }
    c.ctx.reset();
    if (servers.empty()) return VK_ENOSERVER;

    int status = VK_ENOSERVER;
    const auto now = Clock::now();
    const size_t start = c.current < servers.size() ? c.current : 0;
    for (size_t i = 0; i < servers.size(); ++i) {
        const size_t idx = (start + i) % servers.size();
        const Server &s = servers[idx];
        if (s.down_until > now) continue;

        Context ctx = connect_to(s);
        if (!ctx || ctx->err) {
            int err = errno;
            vk_log(st, VK_LOG_ERROR, LOG_ERR, kMsgConnectFailed, s.name.c_str(), s.host.c_str(),
                   s.port, ctx ? ctx->errstr : "out of memory");
            if (ctx && is_timeout(err)) {
                mark_down(st, s.host, s.port);
                vk_log(st, VK_LOG_WARNING, LOG_WARNING, kMsgBackoff, s.name.c_str(),
                       static_cast<long long>(kTimeoutBackoff.count()));
            }
            if (status == VK_ENOSERVER && !ctx) status = VK_ENOMEM;
            continue;
        }
        redisSetTimeout(ctx.get(), kCommandTimeout);

        int step = VK_OK;
        if (!key.empty()) {
            Reply r(static_cast<redisReply *>(
                redisCommand(ctx.get(), "AUTH %b", key.data(), key.size())));
            if (handshake_step(st, ctx, s, std::move(r), step) != 0) {
                if (step == VK_EREPLY)
                    vk_log(st, VK_LOG_ERROR, LOG_ERR, kMsgAuthFailed, s.name.c_str(),
                           "invalid key");
                status = step;
                continue;
            }
        }
        if (db != 0) {
            Reply r(static_cast<redisReply *>(redisCommand(ctx.get(), "SELECT %d", db)));
            std::string why = r && r->type == REDIS_REPLY_ERROR ? std::string(r->str, r->len) : "";
            if (handshake_step(st, ctx, s, std::move(r), step) != 0) {
                if (step == VK_EREPLY)
                    vk_log(st, VK_LOG_ERROR, LOG_ERR, kMsgSelectFailed, db, s.name.c_str(),
                           why.c_str());
                status = step;
                continue;
            }
        }

        if (idx != c.current)
            vk_log(st, VK_LOG_WARNING, LOG_WARNING, kMsgFailover,
                   servers[c.current < servers.size() ? c.current : 0].name.c_str(),
                   s.name.c_str());
        vk_log(st, VK_LOG_EVENT, LOG_INFO, kMsgConnected, s.name.c_str(), s.host.c_str(), s.port);
        c.ctx = std::move(ctx);
        c.ctx_generation = generation;
        c.current = idx;
        return VK_OK;
    }
    return status;
}

// Runs one command: send(ctx) issues it and returns hiredis' reply. The connection is dropped
// on an I/O failure so that the next call reconnects (or fails over).
template <class Send>
int execute(vk_client *h, const char *command, std::string_view key, Send &&send, Reply &reply) {
    if (!h) return VK_EINVAL;
    Settings &st = *h->settings;
    std::lock_guard lk(h->mu);
    // The handshake of a new connection writes too.
    SigpipeBlock block;
    if (int rc = ensure_connected(*h); rc != VK_OK) {
        block.failed();
        return rc;
    }
    vk_log(st, VK_LOG_DEBUG, LOG_DEBUG, kMsgCommand, command, static_cast<int>(key.size()),
           key.data());

    reply.reset(static_cast<redisReply *>(send(h->ctx.get())));
    if (!reply) {
        int err = errno;
        block.failed();
        std::string server;
        int port = 0;
        {
            std::lock_guard slk(st.mu);
            if (h->current < st.servers.size()) {
                server = st.servers[h->current].name;
                if (is_timeout(err)) {
                    auto &s = st.servers[h->current];
                    s.down_until = Clock::now() + kTimeoutBackoff;
                    port = s.port;
                }
            }
        }
        vk_log(st, VK_LOG_ERROR, LOG_ERR, kMsgIoError, command, server.c_str(), h->ctx->errstr);
        if (port)
            vk_log(st, VK_LOG_WARNING, LOG_WARNING, kMsgBackoff, server.c_str(),
                   static_cast<long long>(kTimeoutBackoff.count()));
        h->ctx.reset();
        return VK_EIO;
    }
    if (reply->type == REDIS_REPLY_ERROR) {
        vk_log(st, VK_LOG_NOTICE, LOG_NOTICE, kMsgReplyError, command, static_cast<int>(reply->len),
               reply->str);
        return VK_EREPLY;
    }
    return VK_OK;
}

// Every entry point is extern "C": nothing may escape but a status.
template <class F>
int guarded(F &&f) noexcept {
    try {
        return f();
    } catch (const std::bad_alloc &) {
        return VK_ENOMEM;
    } catch (...) {
        return VK_EINVAL;
    }
}

void bump(Settings &st) {
    st.generation.fetch_add(1);
}

// Copies the string elements of an array reply into a malloc array of malloc strings (NULL
// for nil elements), taking every step-th element from first.
int copy_elements(const redisReply &r, size_t first, size_t step, size_t n, char ***out,
                  size_t *present) {
    *out = nullptr;
    if (present) *present = 0;
    if (n == 0) return VK_OK;
    auto **arr = static_cast<char **>(std::calloc(n, sizeof(char *)));
    if (!arr) return VK_ENOMEM;
    for (size_t i = 0; i < n; ++i) {
        const redisReply *e = r.element[first + i * step];
        if (e->type != REDIS_REPLY_STRING && e->type != REDIS_REPLY_STATUS) continue;
        arr[i] = copy_bytes(e->str, e->len);
        if (!arr[i]) {
            for (size_t j = 0; j < i; ++j)
                std::free(arr[j]);
            std::free(arr);
            return VK_ENOMEM;
        }
        if (present) ++*present;
    }
    *out = arr;
    return VK_OK;
}

}  // namespace

extern "C" {

vk_mm_t *vk_mm_create(void *(*malloc_fn)(size_t), void *(*calloc_fn)(size_t, size_t),
                      void *(*realloc_fn)(void *, size_t), void (*free_fn)(void *)) {
    if (!malloc_fn || !calloc_fn || !realloc_fn || !free_fn) return nullptr;
    try {
        return std::make_unique<vk_mm>(vk_mm{malloc_fn, calloc_fn, realloc_fn, free_fn}).release();
    } catch (...) {
        return nullptr;
    }
}

void vk_mm_destroy(vk_mm_t *mm) {
    std::unique_ptr<vk_mm> owned(mm);
}

vk_client_t *vk_client_create(int opt1, int opt2, const vk_mm_t *mm, void *reserved) {
    // The options and the reserved pointer are accepted for compatibility. The allocator set
    // is not needed after creation: everything handed to callers is released by them with
    // free(), so it must come from the C allocator anyway.
    (void)opt1;
    (void)opt2;
    (void)mm;
    (void)reserved;
    try {
        auto settings = std::make_shared<Settings>();
        auto client = std::make_unique<vk_client>();
        client->settings = settings;
        client->secondary = std::make_unique<vk_client>();
        client->secondary->settings = settings;
        client->secondary->parent = client.get();
        return client.release();
    } catch (...) {
        return nullptr;
    }
}

vk_client_t *vk_client_secondary(vk_client_t *client) {
    if (!client) return nullptr;
    return client->parent ? client : client->secondary.get();
}

void vk_client_destroy(vk_client_t *client) {
    // The secondary handle belongs to its client and goes with it.
    if (!client || client->parent) return;
    std::unique_ptr<vk_client> owned(client);
}

int vk_enable_syslog(vk_client_t *client, unsigned mask) {
    if (!client) return VK_EINVAL;
    client->settings->syslog_mask.store(mask);
    return VK_OK;
}

int vk_server_add(vk_client_t *client, const char *host, int port, const char *name) {
    if (!client || !host || !*host) return VK_EINVAL;
    const bool is_unix = host[0] == '/';
    if (!is_unix && (port <= 0 || port > 65535)) return VK_EINVAL;
    return guarded([&]() -> int {
        Settings &st = *client->settings;
        Server s;
        s.host = host;
        s.port = is_unix ? 0 : port;
        s.name = name ? name : host;
        vk_log(st, VK_LOG_EVENT, LOG_INFO, kMsgServerAdded, s.name.c_str(), s.host.c_str(), s.port);
        std::lock_guard lk(st.mu);
        st.servers.push_back(std::move(s));
        return VK_OK;
    });
}

int vk_set_database_key(vk_client_t *client, int db, const char *key, size_t key_len) {
    if (!client || db < 0 || (!key && key_len)) return VK_EINVAL;
    return guarded([&]() -> int {
        Settings &st = *client->settings;
        std::lock_guard lk(st.mu);
        st.keys[db].assign(key ? key : "", key_len);
        bump(st);
        return VK_OK;
    });
}

int vk_select(vk_client_t *client, int db, int flags) {
    (void)flags;  // reserved
    if (!client || db < 0) return VK_EINVAL;
    Settings &st = *client->settings;
    std::lock_guard lk(st.mu);
    st.db = db;
    bump(st);
    return VK_OK;
}

const char *vk_strerror(int status) {
    switch (status) {
        case VK_OK:
            return "success";
        case 1:
            // Not produced here: the cache layer reports a client it could not create so.
            return "no cache client";
        case VK_EINVAL:
            return "invalid argument";
        case VK_ENOSERVER:
            return "no cache server available";
        case VK_EIO:
            return "connection to the cache server lost or timed out";
        case VK_EREPLY:
            return "the cache server refused the command";
        case VK_ENOMEM:
            return "out of memory";
        default:
            return "unknown error";
    }
}

int vk_hget_whole(vk_client_t *h, const char *key, size_t key_len, const char *field,
                  size_t field_len, char **value, size_t *value_len, const char *prefix,
                  int flags) {
    // prefix and flags select nothing in this implementation.
    (void)prefix;
    (void)flags;
    if (value) *value = nullptr;
    if (value_len) *value_len = 0;
    if (!key || !field || !value) return VK_EINVAL;
    return guarded([&]() -> int {
        Reply r;
        int rc = execute(
            h, "HGET", {key, key_len},
            [&](redisContext *c) {
                return redisCommand(c, "HGET %b %b", key, key_len, field, field_len);
            },
            r);
        if (rc != VK_OK) return rc;
        if (r->type == REDIS_REPLY_NIL) return VK_OK;
        if (r->type != REDIS_REPLY_STRING) return VK_EREPLY;
        *value = copy_bytes(r->str, r->len);
        if (!*value) return VK_ENOMEM;
        if (value_len) *value_len = r->len;
        return VK_OK;
    });
}

int vk_hmget_whole(vk_client_t *h, const char *key, size_t key_len, const char **fields, size_t n,
                   const size_t *field_lens, char ***values, size_t *entries, void **buffer,
                   const char *prefix, int flags) {
    (void)prefix;
    (void)flags;
    if (values) *values = nullptr;
    if (entries) *entries = 0;
    if (buffer) *buffer = nullptr;  // every value is its own allocation: no scratch to free
    if (!key || !fields || !field_lens || !values || n == 0) return VK_EINVAL;
    for (size_t i = 0; i < n; ++i)
        if (!fields[i] && field_lens[i]) return VK_EINVAL;
    return guarded([&]() -> int {
        std::vector<const char *> argv{"HMGET", key};
        std::vector<size_t> lens{5, key_len};
        argv.reserve(n + 2);
        lens.reserve(n + 2);
        for (size_t i = 0; i < n; ++i) {
            argv.push_back(fields[i] ? fields[i] : "");
            lens.push_back(field_lens[i]);
        }
        Reply r;
        int rc = execute(
            h, "HMGET", {key, key_len},
            [&](redisContext *c) {
                return redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
            },
            r);
        if (rc != VK_OK) return rc;
        if (r->type != REDIS_REPLY_ARRAY || r->elements != n) return VK_EREPLY;
        return copy_elements(*r, 0, 1, n, values, entries);
    });
}

int vk_hgetall_whole(vk_client_t *h, const char *key, size_t key_len, size_t *count, char ***values,
                     void **buffer, int opt1, int opt2, const char *prefix, int flags) {
    (void)opt1;
    (void)opt2;
    (void)prefix;
    (void)flags;
    if (count) *count = 0;
    if (values) *values = nullptr;
    if (buffer) *buffer = nullptr;
    if (!key || !count || !values) return VK_EINVAL;
    return guarded([&]() -> int {
        Reply r;
        int rc = execute(
            h, "HVALS", {key, key_len},
            [&](redisContext *c) { return redisCommand(c, "HVALS %b", key, key_len); }, r);
        if (rc != VK_OK) return rc;
        if (r->type != REDIS_REPLY_ARRAY) return VK_EREPLY;
        rc = copy_elements(*r, 0, 1, r->elements, values, nullptr);
        if (rc == VK_OK) *count = r->elements;
        return rc;
    });
}

int vk_hgetall(vk_client_t *h, const char *key, size_t key_len, size_t *count, char ***fields,
               char ***values, int opt1, int opt2) {
    (void)opt1;
    (void)opt2;
    if (count) *count = 0;
    if (fields) *fields = nullptr;
    if (values) *values = nullptr;
    if (!key || !count || !fields || !values) return VK_EINVAL;
    return guarded([&]() -> int {
        Reply r;
        int rc = execute(
            h, "HGETALL", {key, key_len},
            [&](redisContext *c) { return redisCommand(c, "HGETALL %b", key, key_len); }, r);
        if (rc != VK_OK) return rc;
        if (r->type != REDIS_REPLY_ARRAY || r->elements % 2 != 0) return VK_EREPLY;
        const size_t n = r->elements / 2;
        if ((rc = copy_elements(*r, 0, 2, n, fields, nullptr)) != VK_OK) return rc;
        if ((rc = copy_elements(*r, 1, 2, n, values, nullptr)) != VK_OK) {
            for (size_t i = 0; i < n; ++i)
                std::free((*fields)[i]);
            std::free(*fields);
            *fields = nullptr;
            return rc;
        }
        *count = n;
        return VK_OK;
    });
}

int vk_hset(vk_client_t *h, const char *key, size_t key_len, const char *field, size_t field_len,
            const char *value, size_t value_len, int persistent) {
    // persistent selects nothing more here: the caller already chose the handle.
    (void)persistent;
    if (!key || !field || (!value && value_len)) return VK_EINVAL;
    return guarded([&]() -> int {
        Reply r;
        return execute(
            h, "HSET", {key, key_len},
            [&](redisContext *c) {
                return redisCommand(c, "HSET %b %b %b", key, key_len, field, field_len,
                                    value ? value : "", value_len);
            },
            r);
    });
}

int vk_hmset(vk_client_t *h, const char *key, size_t key_len, const char **fields, size_t n,
             const size_t *field_lens, const char **values, const size_t *value_lens,
             int persistent) {
    (void)persistent;  // as for vk_hset
    if (!key || !fields || !field_lens || !values || !value_lens || n == 0) return VK_EINVAL;
    for (size_t i = 0; i < n; ++i)
        if ((!fields[i] && field_lens[i]) || (!values[i] && value_lens[i])) return VK_EINVAL;
    return guarded([&]() -> int {
        std::vector<const char *> argv{"HMSET", key};
        std::vector<size_t> lens{5, key_len};
        argv.reserve(2 * n + 2);
        lens.reserve(2 * n + 2);
        for (size_t i = 0; i < n; ++i) {
            argv.push_back(fields[i] ? fields[i] : "");
            lens.push_back(field_lens[i]);
            argv.push_back(values[i] ? values[i] : "");
            lens.push_back(value_lens[i]);
        }
        Reply r;
        return execute(
            h, "HMSET", {key, key_len},
            [&](redisContext *c) {
                return redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
            },
            r);
    });
}

int vk_exists(vk_client_t *h, const char *key, size_t key_len) {
    if (!key) return VK_EINVAL;
    return guarded([&]() -> int {
        Reply r;
        int rc = execute(
            h, "EXISTS", {key, key_len},
            [&](redisContext *c) { return redisCommand(c, "EXISTS %b", key, key_len); }, r);
        if (rc != VK_OK) return rc;
        if (r->type != REDIS_REPLY_INTEGER) return static_cast<int>(VK_EREPLY);
        return r->integer > 0 ? 1 : 0;
    });
}

int vk_zaddval(vk_client_t *h, const char *key, size_t key_len, double score, const char *member,
               size_t member_len, const char *value, size_t value_len) {
    if (!key || !member || std::isnan(score) || (!value && value_len)) return VK_EINVAL;
    return guarded([&]() -> int {
        char score_text[32];
        std::snprintf(score_text, sizeof score_text, "%.17g", score);
        Reply r;
        int rc = execute(
            h, "ZADD", {key, key_len},
            [&](redisContext *c) {
                return redisCommand(c, "ZADD %b %s %b", key, key_len, score_text, member,
                                    member_len);
            },
            r);
        if (rc != VK_OK) return rc;
        const std::string_view v(value ? value : "", value_len);
        if (!value || v == kNullValue) return VK_OK;
        std::string val_key(key, key_len);
        val_key += kValueHashSuffix;
        return execute(
            h, "HSET", val_key,
            [&](redisContext *c) {
                return redisCommand(c, "HSET %b %b %b", val_key.data(), val_key.size(), member,
                                    member_len, v.data(), v.size());
            },
            r);
    });
}

}  // extern "C"
