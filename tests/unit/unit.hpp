// Helpers of the unit tests: a scratch directory, and owners of what the C API hands out.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "qxtest.hpp"
#include "zarn_base.h"

namespace unit {

namespace fs = std::filesystem;
using Opt = std::optional<std::string>;
constexpr auto no = std::nullopt;

// A private directory, removed with everything in it.
struct TempDir {
    fs::path dir;
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "qxunit-XXXXXX").string();
        dir = ::mkdtemp(tmpl.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    std::string operator/(const std::string &name) const { return (dir / name).string(); }
    // Writes the file (and its directories); returns its path.
    std::string write(const std::string &name, const std::string &content) const {
        fs::create_directories((dir / name).parent_path());
        std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << content;
        return *this / name;
    }
};

inline Opt read(const std::string &path) {
    return qxtest::read_file(path);
}
// Takes a malloc'd string or a SafeStr, frees it and returns its text (nullopt for NULL).
inline Opt take(char *p) {
    Opt s = p ? Opt(p) : no;
    std::free(p);
    return s;
}
inline Opt take(safestr_t *p) {
    Opt s = p ? Opt(std::string(safestr_cstr(p), safestr_length(p))) : no;
    safestr_free(p);
    return s;
}

}  // namespace unit
