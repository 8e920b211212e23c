// The file part of the refresh floors: rewrites every quota file below a directory with its own
// record, the way the engine writes one (open, exclusive lock, write at 0, truncate to length,
// unlock, close), or with --read only reads each one (open, read, close). --marks adds to --read
// what an unforced refresh cannot skip either: one listing of each quota directory (open, read
// the entries to the end, close), where the dirty marks of its files would show. --cold drops the
// page, dentry and inode caches (needs root) after the untimed pass that finds the files, so that
// the timed pass starts as cold as a refresh measured against it.
//   bench_qwrite [--read [--marks]] [--cold] DIR   prints the number of files and the seconds taken
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct QuotaDir {
    std::string path;
    std::vector<std::pair<std::string, std::string>> files;  // path and record
};

void list_to_end(const std::string &dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        std::perror(dir.c_str());
        return;
    }
    alignas(struct dirent64) char buf[16384];
    while (::getdents64(fd, buf, sizeof buf) > 0) {
    }
    ::close(fd);
}

}  // namespace

int main(int argc, char **argv) {
    bool read_only = false;
    bool marks = false;
    bool cold = false;
    int arg = 1;
    for (; arg < argc - 1; ++arg) {
        const std::string opt = argv[arg];
        if (opt == "--read") {
            read_only = true;
        } else if (opt == "--marks") {
            marks = true;
        } else if (opt == "--cold") {
            cold = true;
        } else {
            break;
        }
    }
    if (arg != argc - 1 || (marks && !read_only)) {
        std::fprintf(stderr, "usage: bench_qwrite [--read [--marks]] [--cold] DIR\n");
        return 2;
    }
    const char *top = argv[arg];
    std::vector<QuotaDir> dirs;
    std::unordered_map<std::string, size_t> dir_index;
    size_t count = 0;
    for (const auto &e : std::filesystem::recursive_directory_iterator(top)) {
        if (!e.is_regular_file() || e.path().extension() != ".quota") continue;
        char buf[32] = {};
        int fd = ::open(e.path().c_str(), O_RDONLY | O_CLOEXEC);
        ssize_t n = fd >= 0 ? ::read(fd, buf, 31) : -1;
        if (fd >= 0) ::close(fd);
        const std::string parent = e.path().parent_path().string();
        auto [it, added] = dir_index.try_emplace(parent, dirs.size());
        if (added) dirs.push_back({parent, {}});
        dirs[it->second].files.emplace_back(e.path().string(),
                                            std::string(buf, n > 0 ? size_t(n) : 0));
        ++count;
    }
    if (cold) {
        ::sync();
        FILE *drop = std::fopen("/proc/sys/vm/drop_caches", "w");
        if (!drop || std::fputs("3\n", drop) < 0 || std::fclose(drop) != 0) {
            std::perror("/proc/sys/vm/drop_caches");
            return 1;
        }
    }
    auto start = std::chrono::steady_clock::now();
    for (const QuotaDir &dir : dirs) {
        if (marks) list_to_end(dir.path);
        for (const auto &[path, record] : dir.files) {
            if (read_only) {
                char buf[32];
                int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
                if (fd < 0 || ::read(fd, buf, sizeof buf) < 0) std::perror(path.c_str());
                if (fd >= 0) ::close(fd);
                continue;
            }
            int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
            if (fd < 0) continue;
            ::flock(fd, LOCK_EX);
            if (::pwrite(fd, record.data(), record.size(), 0) < 0 ||
                ::ftruncate(fd, off_t(record.size())) != 0)
                std::perror(path.c_str());
            ::flock(fd, LOCK_UN);
            ::close(fd);
        }
    }
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf("%zu %.6f\n", count, took.count());
    return 0;
}
