// Quota records: write then read round trips, and the fast update's arithmetic on a file whose
// content is the fuzz input.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "fuzz_support.hpp"
#include "quota.h"

namespace {

std::string record(long long v, int r) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%lld.%d", v, r);
    return buf;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const long long value = in.i64(), delta = in.i64();
    const int revision = static_cast<int>(in.i64());
    const std::string content = in.rest();

    // Round trip through an open descriptor.
    const std::string rt = fuzz::scratch_file("rt.quota", "");
    const int fd = ::open(rt.c_str(), O_RDWR);
    FUZZ_CHECK(fd >= 0);
    // A record never exceeds 31 bytes; the longest pairs of numbers do not fit.
    const bool fits = record(value, revision).size() <= 31;
    FUZZ_CHECK((quota_write_internal(fd, value, revision) == 0) == fits);
    if (fits) {
        FUZZ_CHECK(fuzz::read_file(rt) == record(value, revision));
        long long v = 0;
        int r = 0;
        FUZZ_CHECK(::lseek(fd, 0, SEEK_SET) == 0 && quota_read_internal(fd, &v, &r) == 0);
        FUZZ_CHECK(v == value && r == revision);
    }
    ::close(fd);

    // The engine reads at most 31 bytes, up to the first NUL.
    const std::string text = std::string(content.substr(0, 31)).c_str();
    const size_t dot = text.find('.');
    errno = 0;
    const long long old_v = std::strtoll(text.substr(0, dot).c_str(), nullptr, 10);
    const bool value_fits = errno != ERANGE;
    errno = 0;
    const long old_r =
        dot == std::string::npos ? 0 : std::strtol(text.c_str() + dot + 1, nullptr, 10);
    const bool plain = value_fits && errno != ERANGE && old_r > INT_MIN && old_r < INT_MAX;

    ::mkdir((fuzz::scratch() + "/fast").c_str(), 0700);
    const std::string path = fuzz::scratch_file("fast/x.quota", content);
    std::remove((path + ".dirty").c_str());
    const int fd2 = ::open(path.c_str(), O_RDONLY);
    long long read_v = 0;
    const int read_rc = quota_read_internal(fd2, &read_v, nullptr);
    ::close(fd2);
    FUZZ_CHECK((read_rc == 0) == (dot != std::string::npos && value_fits));
    FUZZ_CHECK(read_rc != 0 || read_v == old_v);

    quota_upd_fast_internal(path.c_str(), delta, 0);
    if (!plain || read_rc != 0 || old_v == -1 || old_r == -1) return 0;
    long long want = old_v;
    if (delta != 0) {
        // Clamped at 0, saturated at the 64-bit maximum: never wrapped.
        if (__builtin_add_overflow(old_v, delta, &want)) want = delta > 0 ? LLONG_MAX : 0;
        if (want < 0) want = 0;
        FUZZ_CHECK(fuzz::read_file(path) == record(want, static_cast<int>(old_r) + 1));
    } else {
        FUZZ_CHECK(fuzz::read_file(path) == content);
    }
    return 0;
}
