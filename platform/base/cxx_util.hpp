// Small RAII owners and string helpers shared by the C++ implementation files.
// Not part of any public (C) header.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace qx {

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
// A malloc'd C string owned by C++ code.
using CStr = std::unique_ptr<char, FreeDeleter>;

struct FileCloser {
    void operator()(FILE *f) const noexcept {
        if (f) std::fclose(f);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR *d) const noexcept {
        if (d) closedir(d);
    }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
    UniqueFd &operator=(UniqueFd &&o) noexcept {
        reset(o.release());
        return *this;
    }
    ~UniqueFd() { reset(); }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Copies into malloc memory for handing across the C boundary; NULL only when out of memory.
inline char *c_copy(std::string_view s) {
    char *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (!p) return nullptr;
    if (!s.empty()) std::memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

inline std::string vformat(const char *fmt, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    char small[256];
    int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n), '\0');
    std::vsnprintf(out.data(), out.size() + 1, fmt, ap);
    return out;
}

__attribute__((format(printf, 1, 2))) inline std::string format(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    return s;
}

}  // namespace qx
