// Shared by the unit test programs: headers, a scratch directory, owners of what the C API gives.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "qx_paths.h"
#include "qxtest.hpp"
#include "zarn_base.h"

namespace fs = std::filesystem;
using std::string;
using Opt = std::optional<string>;
constexpr auto no = std::nullopt;

// A private directory, removed with everything in it.
struct TempDir {
    fs::path dir;
    TempDir() {
        string tmpl = (fs::temp_directory_path() / "qxunit-XXXXXX").string();
        dir = ::mkdtemp(tmpl.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    string operator/(const string &name) const { return (dir / name).string(); }
    string write(const string &name, const string &content) const {
        fs::create_directories((dir / name).parent_path());
        std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << content;
        return *this / name;
    }
};

inline Opt read(const string &path) {
    return qxtest::read_file(path);
}
// Takes a malloc'd string or a SafeStr, frees it and returns its text (nullopt for NULL).
inline Opt take(char *p) {
    Opt s = p ? Opt(p) : no;
    std::free(p);
    return s;
}
inline Opt take(safestr_t *p) {
    Opt s = p ? Opt(string(safestr_cstr(p), safestr_length(p))) : no;
    safestr_free(p);
    return s;
}
