// Fast update throughput and latency against its floor, measured in the same run.
//
// The engine: quota_update() on a warm cache, by one process and by eight processes updating
// users of the same reseller (so they contend for the client's and the reseller's files).
// The floor: what any fast update must do at least, done directly: the same Redis commands the
// engine's tree climb sends (captured from the server with MONITOR and counted with INFO
// commandstats), on a bare hiredis connection, then open/flock/read/pwrite/ftruncate/close of
// three quota files of the same layout.
//
//   bench_fast [updates-per-run]     default 1000; prints both and their ratio
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "quota.h"
#include "qxtest.hpp"
#include "sqlsession.h"
#include "zarn_base.h"

namespace {

constexpr int kKind = 2;  // recording
constexpr char kKindFile[] = "recording.quota";
constexpr int kAgents = 8;
constexpr int kRounds = 15;
constexpr int kCountTrials = 5;
constexpr int kCountUpdates = 200;
constexpr int kWarmUpdates = 50;
constexpr int kWaitMs = 30;
constexpr char kRedisSocket[] = "/run/redis.sock";
constexpr char kRedisKey[] = "sandbox";
constexpr int kRedisDb = 1;
constexpr double kTarget = 1.2;

int64_t now_ns() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void sleep_until(int64_t ns) {
    timespec ts{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

bool write_all(int fd, const void *data, size_t n) {
    const char *p = static_cast<const char *>(data);
    while (n > 0) {
        ssize_t k = ::write(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool read_all(int fd, void *data, size_t n) {
    char *p = static_cast<char *>(data);
    while (n > 0) {
        ssize_t k = ::read(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

using Argv = std::vector<std::string>;

redisContext *redis_connect() {
    const std::string sock = qxtest::path(kRedisSocket);
    redisContext *c = redisConnectUnix(sock.c_str());
    if (!c || c->err) {
        if (c) redisFree(c);
        return nullptr;
    }
    for (const Argv &argv : {Argv{"AUTH", kRedisKey}, Argv{"SELECT", std::to_string(kRedisDb)}}) {
        std::vector<const char *> args;
        std::vector<size_t> lens;
        for (const auto &a : argv) {
            args.push_back(a.data());
            lens.push_back(a.size());
        }
        auto *r = static_cast<redisReply *>(
            redisCommandArgv(c, static_cast<int>(args.size()), args.data(), lens.data()));
        if (r) freeReplyObject(r);
    }
    return c;
}

// ---- the floor's file work -------------------------------------------------------------------

// One quota file's read-modify-write with nothing around it. A lock held by another process is
// retried after 10 ms, as the engine does, so contention costs both the same.
bool floor_file_update(const char *path, long long delta) {
    int fd = ::open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        timespec ts{0, 10'000'000};
        ::nanosleep(&ts, nullptr);
    }
    char buf[32];
    ssize_t n = ::read(fd, buf, 31);
    bool ok = n > 0;
    if (ok) {
        buf[n] = '\0';
        const char *dot = std::strchr(buf, '.');
        long long value = std::atoll(buf) + delta;
        int revision = dot ? std::atoi(dot + 1) + 1 : 1;
        if (value < 0) value = 0;
        int len = std::snprintf(buf, sizeof buf, "%lld.%d", value, revision);
        ok = ::pwrite(fd, buf, static_cast<size_t>(len), 0) == len && ::ftruncate(fd, len) == 0;
    }
    ::flock(fd, LOCK_UN);
    ::close(fd);
    return ok;
}

// ---- agents: the measuring processes ---------------------------------------------------------

// Agents are forked before anything opens a pool connection or a cache socket, so that every
// process has its own, as every telephony process does.
enum Op : int32_t { kQuit = 0, kEngine = 1, kFloor = 2, kSetFloorCommands = 3 };

struct Command {
    int32_t op;
    int32_t n;  // updates, or bytes of the floor commands that follow
    int64_t start_ns;
};

struct Report {
    int64_t start_ns;
    int64_t end_ns;
    int32_t n;
    int32_t failures;
};

struct Agent {
    pid_t pid = -1;
    int to = -1;    // commands
    int from = -1;  // reports
};

struct AgentSetup {
    int user;
    std::vector<std::string> floor_files;  // user's, client's, reseller's
};

std::string encode(const std::vector<Argv> &commands) {
    std::string out;
    auto put = [&](uint32_t v) { out.append(reinterpret_cast<const char *>(&v), sizeof v); };
    put(static_cast<uint32_t>(commands.size()));
    for (const Argv &argv : commands) {
        put(static_cast<uint32_t>(argv.size()));
        for (const auto &a : argv) {
            put(static_cast<uint32_t>(a.size()));
            out += a;
        }
    }
    return out;
}

std::vector<Argv> decode(const std::string &blob) {
    size_t at = 0;
    auto get = [&]() {
        uint32_t v = 0;
        if (at + sizeof v <= blob.size()) std::memcpy(&v, blob.data() + at, sizeof v);
        at += sizeof v;
        return v;
    };
    std::vector<Argv> out(get());
    for (Argv &argv : out) {
        argv.resize(get());
        for (auto &a : argv) {
            uint32_t len = get();
            a = blob.substr(std::min(at, blob.size()), len);
            at += len;
        }
    }
    return out;
}

int agent_main(const AgentSetup &setup, int in, int out) {
    qx_sql_pool_init();
    redisContext *floor_redis = nullptr;
    std::vector<Argv> floor_commands;
    std::vector<std::vector<const char *>> floor_args;
    std::vector<std::vector<size_t>> floor_lens;
    for (;;) {
        Command cmd{};
        if (!read_all(in, &cmd, sizeof cmd) || cmd.op == kQuit) break;
        if (cmd.op == kSetFloorCommands) {
            std::string blob(static_cast<size_t>(cmd.n), '\0');
            if (!read_all(in, blob.data(), blob.size())) break;
            floor_commands = decode(blob);
            floor_args.clear();
            floor_lens.clear();
            for (const Argv &argv : floor_commands) {
                floor_args.emplace_back();
                floor_lens.emplace_back();
                for (const auto &a : argv) {
                    floor_args.back().push_back(a.data());
                    floor_lens.back().push_back(a.size());
                }
            }
            continue;
        }
        if (cmd.op == kFloor && !floor_redis) floor_redis = redis_connect();
        std::vector<uint32_t> latencies(static_cast<size_t>(cmd.n));
        Report rep{};
        rep.n = cmd.n;
        if (cmd.start_ns) sleep_until(cmd.start_ns);
        rep.start_ns = now_ns();
        for (int i = 0; i < cmd.n; ++i) {
            // Alternating signs keep the values where they are; a zero delta would skip the write.
            const long long delta = (i & 1) ? -1 : 1;
            const int64_t t0 = now_ns();
            if (cmd.op == kEngine) {
                if (quota_update(setup.user, kKind, delta, kWaitMs) != 0) ++rep.failures;
            } else {
                for (size_t c = 0; c < floor_args.size(); ++c) {
                    auto *r = static_cast<redisReply *>(
                        redisCommandArgv(floor_redis, static_cast<int>(floor_args[c].size()),
                                         floor_args[c].data(), floor_lens[c].data()));
                    if (!r || r->type == REDIS_REPLY_ERROR) ++rep.failures;
                    if (r) freeReplyObject(r);
                }
                for (const auto &f : setup.floor_files)
                    if (!floor_file_update(f.c_str(), delta)) ++rep.failures;
            }
            latencies[static_cast<size_t>(i)] = static_cast<uint32_t>(now_ns() - t0);
        }
        rep.end_ns = now_ns();
        if (!write_all(out, &rep, sizeof rep) ||
            !write_all(out, latencies.data(), latencies.size() * sizeof(uint32_t)))
            break;
    }
    if (floor_redis) redisFree(floor_redis);
    return 0;
}

struct Run {
    double ops_per_s = 0;
    long failures = 0;
    int dirty_marks = 0;  // left by the run: lock waits that ran out
    std::vector<uint32_t> latencies_ns;
};

class Agents {
  public:
    explicit Agents(const std::vector<AgentSetup> &setups) {
        for (const AgentSetup &setup : setups) {
            int down[2], up[2];
            if (::pipe(down) != 0 || ::pipe(up) != 0) return;
            Agent a;
            a.pid = ::fork();
            if (a.pid == 0) {
                for (const Agent &other : agents_) {
                    ::close(other.to);
                    ::close(other.from);
                }
                ::close(down[1]);
                ::close(up[0]);
                ::_exit(agent_main(setup, down[0], up[1]));
            }
            ::close(down[0]);
            ::close(up[1]);
            a.to = down[1];
            a.from = up[0];
            agents_.push_back(a);
        }
    }
    ~Agents() {
        for (Agent &a : agents_) {
            Command quit{kQuit, 0, 0};
            write_all(a.to, &quit, sizeof quit);
            ::close(a.to);
            ::close(a.from);
        }
        for (Agent &a : agents_)
            ::waitpid(a.pid, nullptr, 0);
    }
    Agents(const Agents &) = delete;
    Agents &operator=(const Agents &) = delete;

    size_t size() const { return agents_.size(); }

    void set_floor_commands(const std::vector<Argv> &commands) {
        const std::string blob = encode(commands);
        for (Agent &a : agents_) {
            Command cmd{kSetFloorCommands, static_cast<int32_t>(blob.size()), 0};
            write_all(a.to, &cmd, sizeof cmd);
            write_all(a.to, blob.data(), blob.size());
        }
    }

    // Runs n updates of op in the first `count` agents at once and gathers their timings.
    Run run(Op op, int n, size_t count) {
        // A common start a little ahead, so no agent runs alone while the others are told.
        const int64_t start = count > 1 ? now_ns() + 20'000'000 : 0;
        for (size_t i = 0; i < count; ++i) {
            Command cmd{op, n, start};
            write_all(agents_[i].to, &cmd, sizeof cmd);
        }
        Run result;
        int64_t first = INT64_MAX, last = 0;
        for (size_t i = 0; i < count; ++i) {
            Report rep{};
            std::vector<uint32_t> lat(static_cast<size_t>(n));
            if (!read_all(agents_[i].from, &rep, sizeof rep) ||
                !read_all(agents_[i].from, lat.data(), lat.size() * sizeof(uint32_t))) {
                result.failures += n;
                continue;
            }
            first = std::min(first, rep.start_ns);
            last = std::max(last, rep.end_ns);
            result.failures += rep.failures;
            result.latencies_ns.insert(result.latencies_ns.end(), lat.begin(), lat.end());
        }
        if (!result.latencies_ns.empty() && last > first) {
            result.ops_per_s = static_cast<double>(result.latencies_ns.size()) * 1e9 /
                               static_cast<double>(last - first);
        }
        return result;
    }

  private:
    std::vector<Agent> agents_;
};

// ---- what one update costs the servers -------------------------------------------------------

std::map<std::string, long long> command_calls() {
    std::map<std::string, long long> out;
    const std::string info = qxtest::redis({"INFO", "commandstats"});
    size_t at = 0;
    while ((at = info.find("cmdstat_", at)) != std::string::npos) {
        const size_t colon = info.find(':', at);
        const size_t calls = info.find("calls=", colon);
        if (colon == std::string::npos || calls == std::string::npos) break;
        out[info.substr(at + 8, colon - at - 8)] = std::atoll(info.c_str() + calls + 6);
        at = colon;
    }
    return out;
}

// Parses the arguments of one MONITOR line: 123.456 [1 unix:/path] "HGET" "key" "field"
Argv parse_monitor_line(const std::string &line) {
    Argv argv;
    size_t at = line.find("] ");
    if (at == std::string::npos) return argv;
    at += 2;
    while (at < line.size()) {
        if (line[at] != '"') {
            ++at;
            continue;
        }
        std::string arg;
        for (++at; at < line.size() && line[at] != '"'; ++at) {
            if (line[at] != '\\' || at + 1 >= line.size()) {
                arg += line[at];
                continue;
            }
            const char e = line[++at];
            if (e == 'n') {
                arg += '\n';
            } else if (e == 'r') {
                arg += '\r';
            } else if (e == 't') {
                arg += '\t';
            } else if (e == 'a') {
                arg += '\a';
            } else if (e == 'b') {
                arg += '\b';
            } else if (e == 'x' && at + 2 < line.size()) {
                arg += static_cast<char>(std::stoi(line.substr(at + 1, 2), nullptr, 16));
                at += 2;
            } else {
                arg += e;
            }
        }
        ++at;
        argv.push_back(std::move(arg));
    }
    return argv;
}

void put_record(const std::string &path, const char *record) {
    if (FILE *out = std::fopen(path.c_str(), "w")) {
        std::fputs(record, out);
        std::fclose(out);
    }
}

std::string show(const Argv &argv) {
    std::string out;
    for (const auto &a : argv)
        out += (out.empty() ? "" : " ") + a;
    return out;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Engine and floor runs of one configuration, taken in pairs one right after the other.
struct Pairs {
    std::vector<Run> engine, floor;
};

void print_row(const char *who, const std::vector<Run> &runs) {
    std::vector<double> rates;
    std::vector<uint32_t> all;
    long failures = 0;
    for (const Run &r : runs) {
        rates.push_back(r.ops_per_s);
        all.insert(all.end(), r.latencies_ns.begin(), r.latencies_ns.end());
        failures += r.failures;
    }
    std::sort(all.begin(), all.end());
    const double p50 = all.empty() ? 0 : all[all.size() / 2] / 1e3;
    const double p99 = all.empty() ? 0 : all[std::min(all.size() - 1, all.size() * 99 / 100)] / 1e3;
    std::printf("  %-7s %10.0f %9.1f %9.1f%s\n", who, median(rates), p50, p99,
                failures ? "   (failures!)" : "");
}

void print_pairs(const std::string &title, const Pairs &p) {
    std::printf("%s\n  %-7s %10s %9s %9s\n", title.c_str(), "", "updates/s", "p50 us", "p99 us");
    print_row("engine", p.engine);
    print_row("floor", p.floor);
    // The machine's load changes between runs; within a pair it hits both about alike. A run
    // whose lock waits ran out marked a file dirty, and its later updates skipped that file:
    // such runs are cheaper than the real work and are left out when enough others remain.
    std::vector<double> all, clean;
    for (size_t i = 0; i < p.engine.size() && i < p.floor.size(); ++i) {
        if (p.engine[i].ops_per_s <= 0) continue;
        const double r = p.floor[i].ops_per_s / p.engine[i].ops_per_s;
        all.push_back(r);
        if (p.engine[i].dirty_marks == 0) clean.push_back(r);
    }
    const bool use_clean = clean.size() >= 3;
    const double ratio = median(use_clean ? clean : all);
    std::printf(
        "  ratio %.2fx (engine time / floor time, median of %zu pairs; target <= %.1fx)%s\n", ratio,
        use_clean ? clean.size() : all.size(), kTarget, ratio <= kTarget ? "" : "   ABOVE TARGET");
    if (clean.size() != all.size()) {
        std::printf("  %zu engine runs ran out of lock waits and left dirty marks%s\n",
                    all.size() - clean.size(),
                    use_clean ? " (left out of the ratio)" : " (too many to leave out)");
    }
}

// Removes the dirty marks below dir; returns how many there were.
int clear_dirty_marks(const std::string &dir) {
    int found = 0;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->path().extension() != ".dirty") continue;
        ++found;
        std::filesystem::remove(it->path(), ec);
    }
    return found;
}

}  // namespace

int main(int argc, char **argv) {
    fr_log_set_threshold(5);
    const int n = argc > 1 ? std::atoi(argv[1]) : 1000;
    if (n < 100) {
        std::fprintf(stderr, "usage: bench_fast [updates-per-run >= 100]\n");
        return 2;
    }
    qxtest::ensure_sandbox();

    // One reseller, one client, eight users: ids base .. base+9.
    const int base = qxtest::fresh_ids();
    const int reseller = base, client = base + 1;
    for (int id = base; id < base + 2 + kAgents; ++id)
        qxtest::redis({"DEL", "res:inf:mng:" + std::to_string(id)});
    qxtest::add_account(reseller, 0, 10);
    qxtest::add_account(client, reseller, 50);
    const std::string quota_root = qxtest::path("/var/lib/quorvexquota");
    const std::string floor_root = quota_root + "/floor-" + std::to_string(reseller);
    const std::string engine_dir = quota_root + "/" + std::to_string(reseller);
    std::filesystem::remove_all(engine_dir);
    std::filesystem::remove_all(floor_root);
    const std::string floor_client = floor_root + "/" + std::to_string(client);
    std::vector<AgentSetup> setups;
    for (int i = 0; i < kAgents; ++i) {
        const int user = base + 2 + i;
        qxtest::add_account(user, client, 100);
        const std::string user_dir = floor_client + "/" + std::to_string(user);
        std::filesystem::create_directories(user_dir);
        setups.push_back({user,
                          {user_dir + "/" + kKindFile, floor_client + "/" + kKindFile,
                           floor_root + "/" + kKindFile}});
    }
    for (const AgentSetup &s : setups)
        put_record(s.floor_files[0], "1000000.0");
    put_record(setups[0].floor_files[1], "8000000.0");
    put_record(setups[0].floor_files[2], "8000000.0");

    Agents agents(setups);
    if (agents.size() != static_cast<size_t>(kAgents)) {
        std::fprintf(stderr, "bench_fast: cannot start the measuring processes\n");
        return 1;
    }
    // Warm: pools, cache clients, the cache entries of the climb and the engine's files.
    Run warm = agents.run(kEngine, kWarmUpdates, agents.size());
    if (warm.failures) {
        std::fprintf(stderr, "bench_fast: quota_update fails (%ld failures)\n", warm.failures);
        return 1;
    }

    // Redis commands and SQL statements of one update, server side. Other clients of the same
    // servers can only add to the counts, so the smallest of a few trials is the update's own.
    std::map<std::string, long long> per_update;
    long long fewest = -1;
    long long sql_per_update = -1;
    for (int t = 0; t < kCountTrials; ++t) {
        const long long q0 = qxtest::server_status("Questions");
        const auto before = command_calls();
        agents.run(kEngine, kCountUpdates, 1);
        const auto after = command_calls();
        const long long q1 = qxtest::server_status("Questions");
        std::map<std::string, long long> delta;
        long long total = 0;
        for (const auto &[name, calls] : after) {
            if (name == "info") continue;  // ours
            auto it = before.find(name);
            long long d = calls - (it == before.end() ? 0 : it->second);
            if (d <= 0) continue;
            delta[name] = d;
            total += d;
        }
        if (fewest < 0 || total < fewest) {
            fewest = total;
            per_update = delta;
        }
        // The second SHOW STATUS is one statement of ours.
        const long long sql = (q1 - q0 - 1 + kCountUpdates / 2) / kCountUpdates;
        if (sql_per_update < 0 || sql < sql_per_update) sql_per_update = sql;
    }

    const long long per_update_total = (fewest + kCountUpdates / 2) / kCountUpdates;

    // The commands themselves, as the server saw them for one update of the first agent.
    std::vector<Argv> floor_commands;
    if (redisContext *mon = redis_connect()) {
        timeval tv{2, 0};
        redisSetTimeout(mon, tv);
        auto *r = static_cast<redisReply *>(redisCommand(mon, "MONITOR"));
        if (r) freeReplyObject(r);
        agents.run(kEngine, 1, 1);
        const std::string sentinel = "bench-fast-" + std::to_string(::getpid());
        qxtest::redis({"ECHO", sentinel});
        const std::vector<std::string> ids = {std::to_string(reseller), std::to_string(client),
                                              std::to_string(setups[0].user)};
        void *reply = nullptr;
        while (redisGetReply(mon, &reply) == REDIS_OK && reply) {
            auto *rr = static_cast<redisReply *>(reply);
            const std::string line = rr->str ? std::string(rr->str, rr->len) : "";
            freeReplyObject(rr);
            reply = nullptr;
            if (line.find(sentinel) != std::string::npos) break;
            Argv argv = parse_monitor_line(line);
            // Keep the update's own commands: they name the accounts of the climb.
            bool ours = false;
            for (const auto &a : argv)
                for (const auto &id : ids)
                    ours = ours || (a.size() >= id.size() &&
                                    a.compare(a.size() - id.size(), id.size(), id) == 0);
            if (ours) floor_commands.push_back(std::move(argv));
        }
        redisFree(mon);
    }
    std::printf(
        "fast update of a user (reseller %d > client %d > users %d..%d), kind %d, wait %d ms\n",
        reseller, client, setups.front().user, setups.back().user, kKind, kWaitMs);
    std::printf("  per update: %lld Redis round trips (", per_update_total);
    bool first = true;
    for (const auto &[name, calls] : per_update) {
        std::printf("%s%s x%.2f", first ? "" : ", ", name.c_str(),
                    static_cast<double>(calls) / kCountUpdates);
        first = false;
    }
    std::printf("), %lld SQL statements\n", sql_per_update);
    if (static_cast<long long>(floor_commands.size()) != per_update_total) {
        std::printf("  MONITOR showed %zu commands for one update; the floor replays %lld\n",
                    floor_commands.size(), per_update_total);
        while (static_cast<long long>(floor_commands.size()) < per_update_total)
            floor_commands.push_back({"PING"});
        floor_commands.resize(static_cast<size_t>(std::max(0LL, per_update_total)));
    }
    for (const Argv &c : floor_commands)
        std::printf("  floor: %s\n", show(c).c_str());
    std::printf("  floor: open/flock/read/pwrite/ftruncate/close of 3 quota files\n");
    agents.set_floor_commands(floor_commands);
    agents.run(kFloor, kWarmUpdates, agents.size());

    // Short runs in pairs, engine then floor, so that a busy moment of the machine hits both;
    // the medians of many pairs are reported.
    Pairs one, eight;
    const int n8 = std::max(50, n / kAgents);
    auto engine_run = [&](int updates, size_t processes) {
        clear_dirty_marks(engine_dir);
        Run r = agents.run(kEngine, updates, processes);
        r.dirty_marks = clear_dirty_marks(engine_dir);
        return r;
    };
    for (int round = 0; round < kRounds; ++round) {
        one.engine.push_back(engine_run(n, 1));
        one.floor.push_back(agents.run(kFloor, n, 1));
        eight.engine.push_back(engine_run(n8, agents.size()));
        eight.floor.push_back(agents.run(kFloor, n8, agents.size()));
    }
    double load = 0;
    if (FILE *in = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(in, "%lf", &load) != 1) load = 0;
        std::fclose(in);
    }
    std::printf("\n(%d pairs of runs; load average %.2f on %ld cores)\n\n", kRounds, load,
                ::sysconf(_SC_NPROCESSORS_ONLN));
    print_pairs("1 process, runs of " + std::to_string(n) + " updates", one);
    std::printf("\n");
    print_pairs("8 processes on users of the same reseller, runs of 8 x " + std::to_string(n8) +
                    " updates (aggregate rate)",
                eight);

    std::filesystem::remove_all(floor_root);
    return 0;
}
