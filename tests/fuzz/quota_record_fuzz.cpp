// Quota records: the reader and the fast update's arithmetic on a file whose content is the fuzz
// input (round trips of the writer are the unit tests' rows).
#include <fcntl.h>

#include <cerrno>
#include <climits>

#include "fuzz_support.hpp"
#include "quota.h"

static std::string record(long long v, int r) {
    return std::to_string(v) + "." + std::to_string(r);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const long long delta = in.i64();
    const std::string content = in.str();

    // The engine reads at most 31 bytes, up to the first NUL.
    const std::string text = std::string(content.substr(0, 31)).c_str();
    const size_t dot = text.find('.');
    errno = 0;
    const long long old_v = std::strtoll(text.substr(0, dot).c_str(), nullptr, 10);
    const bool value_fits = errno != ERANGE;
    errno = 0;
    const long old_r = dot == std::string::npos ? 0 : std::strtol(&text[dot + 1], nullptr, 10);
    const bool plain = value_fits && errno != ERANGE && old_r > INT_MIN && old_r < INT_MAX;

    const std::string path = fuzz::scratch_file("x.quota", content);
    std::remove((path + ".dirty").c_str());
    const int fd2 = ::open(path.c_str(), O_RDONLY);
    long long v = 0;
    const int read_rc = quota_read_internal(fd2, &v, nullptr);
    ::close(fd2);
    FUZZ_CHECK((read_rc == 0) == (dot != std::string::npos && value_fits));
    FUZZ_CHECK(read_rc != 0 || v == old_v);

    quota_upd_fast_internal(path.c_str(), delta, 0);
    if (!plain || read_rc != 0 || old_v == -1 || old_r == -1) return 0;
    // Clamped at 0, saturated at the 64-bit maximum: never wrapped.
    long long want = old_v;
    if (delta != 0 && __builtin_add_overflow(old_v, delta, &want)) want = delta > 0 ? LLONG_MAX : 0;
    const std::string after = record(want < 0 ? 0 : want, static_cast<int>(old_r) + 1);
    FUZZ_CHECK(fuzz::read_file(path) == (delta ? after : content));
    return 0;
}
