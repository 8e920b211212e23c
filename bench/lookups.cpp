// Cached account lookups against a bare hiredis loop on the same server.
//
// With the cache warm, qx_account_get_level_sess + qx_account_get_parent_str_sess cost two
// HGET round trips; the bare loop makes the same two round trips without the platform layers.
// The lookups should reach at least 0.8 of the bare rate.
//
//   bench_lookups [iterations]        (default 20000; each iteration is two round trips)
#include <hiredis/hiredis.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_base.h"
#include "zarn_user.h"

namespace {

constexpr int kAccounts = 10;
constexpr int kRounds = 3;
constexpr double kTarget = 0.8;

using Clock = std::chrono::steady_clock;

struct RedisFree {
    void operator()(redisContext *c) const { redisFree(c); }
};
using Redis = std::unique_ptr<redisContext, RedisFree>;

bool command_ok(redisContext *c, const char *fmt, const char *arg) {
    auto *r = static_cast<redisReply *>(redisCommand(c, fmt, arg));
    const bool ok = r && r->type != REDIS_REPLY_ERROR;
    if (r) freeReplyObject(r);
    return ok;
}

Redis bare_connection() {
    const std::string sock = qxtest::path("/run/redis.sock");
    Redis c(redisConnectUnix(sock.c_str()));
    if (!c || c->err) return nullptr;
    if (!command_ok(c.get(), "AUTH %s", "sandbox") || !command_ok(c.get(), "SELECT %s", "1")) {
        return nullptr;
    }
    return c;
}

// Iterations per second of the platform lookups; failed lookups are counted in *errors.
double lookup_rate(const std::vector<int> &ids, long iterations, long *errors) {
    const auto start = Clock::now();
    for (long i = 0; i < iterations; ++i) {
        const int id = ids[static_cast<size_t>(i) % ids.size()];
        if (qx_account_get_level_sess(nullptr, id) < 0) ++*errors;
        char *parent = qx_account_get_parent_str_sess(nullptr, id);
        if (!parent) ++*errors;
        std::free(parent);
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    return static_cast<double>(iterations) / took.count();
}

// Iterations per second of the same two HGETs made directly.
double bare_rate(redisContext *c, const std::vector<std::string> &keys, long iterations,
                 long *errors) {
    const auto start = Clock::now();
    for (long i = 0; i < iterations; ++i) {
        const std::string &key = keys[static_cast<size_t>(i) % keys.size()];
        for (const char *field : {"lvl", "pid"}) {
            auto *r = static_cast<redisReply *>(
                redisCommand(c, "HGET %b %s", key.data(), key.size(), field));
            if (!r || r->type != REDIS_REPLY_STRING) ++*errors;
            if (r) freeReplyObject(r);
        }
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    return static_cast<double>(iterations) / took.count();
}

}  // namespace

int main(int argc, char **argv) {
    const long iterations = argc > 1 ? std::atol(argv[1]) : 20000;
    if (iterations <= 0) {
        std::fprintf(stderr, "usage: %s [iterations]\n", argv[0]);
        return 2;
    }
    qxtest::ensure_sandbox();
    // Debug lines of the cache layer must cost one comparison, as in production.
    fr_log_set_threshold(5);
    qx_sql_pool_init();

    Redis bare = bare_connection();
    if (!bare) {
        std::fprintf(stderr, "cannot reach the sandbox Redis\n");
        return 1;
    }

    const int base = qxtest::fresh_ids();
    std::vector<int> ids;
    std::vector<std::string> keys;
    qxtest::add_account(base, 0, 10);
    for (int i = 0; i < kAccounts; ++i) {
        const int id = base + i;
        if (i > 0) qxtest::add_account(id, base, 50);
        ids.push_back(id);
        keys.push_back("res:inf:mng:" + std::to_string(id));
        qxtest::redis({"DEL", keys.back()});
    }
    // Warm the cache: from here on every lookup is answered by Redis alone.
    long errors = 0;
    lookup_rate(ids, kAccounts, &errors);
    if (errors) {
        std::fprintf(stderr, "warming the cache failed (%ld lookups)\n", errors);
        return 1;
    }

    double best_lookup = 0;
    double best_bare = 0;
    for (int round = 0; round < kRounds; ++round) {
        best_bare = std::max(best_bare, bare_rate(bare.get(), keys, iterations, &errors));
        best_lookup = std::max(best_lookup, lookup_rate(ids, iterations, &errors));
    }
    const double ratio = best_lookup / best_bare;
    std::printf("iterations per round: %ld (2 round trips each), best of %d rounds\n", iterations,
                kRounds);
    std::printf("lookups (level + parent): %.0f /s\n", best_lookup);
    std::printf("bare hiredis (2 x HGET):  %.0f /s\n", best_bare);
    std::printf("ratio: %.3f (target >= %.1f)%s\n", ratio, kTarget,
                ratio >= kTarget ? "" : "  BELOW TARGET");
    if (errors) std::printf("errors: %ld\n", errors);
    return errors ? 1 : 0;
}
