// Stored-file names ("12.wav 15.gsm") handed to the list parser. No database is configured in
// the fuzz build, so every lookup fails: what is checked is that the list is always left in the
// state the result promises, with nothing leaked, whatever the names.
#include "fuzz_support.hpp"
#include "zarn_db_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const std::string table = in.str(32), names = in.str();
    const bool has_dot = fuzz::contains(names.c_str(), ".");
    qx_db_file_list *list = nullptr;
    for (int call = 0; call < 2; ++call) {  // the second call reuses the list
        const long long n = qx_parse_db_files(table.c_str(), names.c_str(), &list);
        FUZZ_CHECK(list && n == (has_dot ? -1 : 0) && list->count == 0 && !list->files);
    }
    FUZZ_CHECK(qx_parse_db_files(nullptr, names.c_str(), &list) == -1 &&
               qx_parse_db_files(table.c_str(), nullptr, &list) == -1);
    qx_release_db_files(&list);
    FUZZ_CHECK(list == nullptr);
    qx_release_db_files(&list);
    return 0;
}
