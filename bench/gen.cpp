// Generates a benchmark platform in the sandbox of this build's root: R resellers x C clients x U
// users, one extension per user with stored-file rows, and media files (sparse, so their apparent
// sizes cost no disk) under the Asterisk sounds and music directories of every account.
//
//   bench_gen [resellers clients-per-reseller users-per-client files-per-account]
//   defaults: 10 30 32 30  (9,911 accounts, about 300,000 files)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "qxtest.hpp"

namespace {

struct Batch {
    explicit Batch(std::string h) : head(std::move(h)) {}
    std::string head;
    std::string rows;
    size_t n = 0;
    void add(const std::string &row) {
        rows += (n++ ? "," : "") + row;
        if (n == 2000) flush();
    }
    void flush() {
        if (n) qxtest::sql(head + rows);
        rows.clear();
        n = 0;
    }
};

void make_files(const std::string &dir, int count, std::mt19937 &rng) {
    std::filesystem::create_directories(dir + "/custom");
    std::uniform_int_distribution<off_t> size(1, 1 << 20);
    for (int i = 0; i < count; ++i) {
        // A third of the files one level down, as custom prompts are kept.
        std::string file = dir + (i % 3 == 0 ? "/custom/" : "/") + "f" + std::to_string(i) + ".wav";
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
        if (fd < 0 || ::ftruncate(fd, size(rng)) != 0) {
            std::perror(file.c_str());
            std::exit(1);
        }
        ::close(fd);
    }
}

}  // namespace

int main(int argc, char **argv) {
    int resellers = argc > 1 ? std::atoi(argv[1]) : 10;
    int clients = argc > 2 ? std::atoi(argv[2]) : 30;
    int users = argc > 3 ? std::atoi(argv[3]) : 32;
    int files = argc > 4 ? std::atoi(argv[4]) : 30;
    if (resellers < 1 || clients < 0 || users < 0 || files < 0 || users > 899) {
        std::fprintf(stderr, "usage: bench_gen [resellers clients users files-per-account]\n");
        return 2;
    }
    qxtest::ensure_sandbox();
    for (const char *t : {"client", "hs_account", "extension", "client_prefs", "extension_recording",
                          "extension_voicemail", "extension_fax_center", "misc"})
        qxtest::sql(std::string("TRUNCATE TABLE ") + t);
    qxtest::set_misc("ext_length", "3");
    qxtest::set_misc("ext_separator", "*");
    qxtest::redis({"FLUSHDB"});
    std::string varlib = qxtest::path("/var/lib/asterisk");
    std::filesystem::remove_all(varlib + "/sounds");
    std::filesystem::remove_all(varlib + "/music");
    std::filesystem::remove_all(qxtest::path("/var/lib/quorvexquota"));

    Batch acc("INSERT INTO client (id, parent_client_id, level, name) VALUES ");
    Batch login("INSERT INTO hs_account (userID, username) VALUES ");
    Batch ext("INSERT INTO extension (id, client_id, number, extended_number) VALUES ");
    Batch rec("INSERT INTO extension_recording (extension_id, filesize) VALUES ");
    Batch vm("INSERT INTO extension_voicemail (extension_id, filesize) VALUES ");
    Batch fax("INSERT INTO extension_fax_center (extension_id, filesize) VALUES ");
    std::mt19937 rng(42);
    std::uniform_int_distribution<long> fsize(1000, 5'000'000);

    auto account = [&](int id, int parent, int level) {
        acc.add("(" + std::to_string(id) + "," + std::to_string(parent) + "," +
                std::to_string(level) + ",'Account " + std::to_string(id) + "')");
        login.add("(" + std::to_string(id) + ",'acc" + std::to_string(id) + "')");
        // Targets of a refresh are addressed by their id padded to four digits; everyone
        // below them by the id as stored.
        char own[16];
        std::snprintf(own, sizeof own, level == 10 ? "%04d" : "%d", id);
        make_files(varlib + "/sounds/." + own, files / 2, rng);
        make_files(varlib + "/music/" + own, files - files / 2, rng);
    };

    acc.add("(1,NULL,0,'Platform')");
    login.add("(1,'root')");
    int next = 2 + resellers;
    int next_ext = 1;
    long accounts = 1;
    for (int r = 0; r < resellers; ++r) {
        int rid = 2 + r;
        account(rid, 1, 10);
        ++accounts;
        for (int c = 0; c < clients; ++c) {
            int cid = next++;
            account(cid, rid, 50);
            ++accounts;
            for (int u = 0; u < users; ++u) {
                int uid = next++;
                account(uid, cid, 100);
                ++accounts;
                char full[32];
                std::snprintf(full, sizeof full, "%04d*%03d", cid, 100 + u);
                int eid = next_ext++;
                ext.add("(" + std::to_string(eid) + "," + std::to_string(uid) + ",'" +
                        std::to_string(100 + u) + "','" + full + "')");
                for (int k = 0; k < 3; ++k)
                    rec.add("(" + std::to_string(eid) + "," + std::to_string(fsize(rng)) + ")");
                for (int k = 0; k < 2; ++k)
                    vm.add("(" + std::to_string(eid) + "," + std::to_string(fsize(rng)) + ")");
                fax.add("(" + std::to_string(eid) + "," + std::to_string(fsize(rng)) + ")");
            }
        }
    }
    for (Batch *b : {&acc, &login, &ext, &rec, &vm, &fax}) b->flush();
    std::printf("generated %ld accounts (%d resellers), %d extensions, %ld media files\n", accounts,
                resellers, next_ext - 1, (accounts - 1) * files);
    return 0;
}
