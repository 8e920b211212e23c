// Directive files: every reader over the same bytes, and the directive tables over two files.
#include "fuzz_support.hpp"
#include "zarn_config_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const std::string keyword = in.str(20), a = in.str(1000), b = in.str();
    const std::string pa = fuzz::scratch_file("a.conf", a), pb = fuzz::scratch_file("b.conf", b);
    const char *kw = keyword.empty() ? "KEY" : keyword.c_str();

    char *out = nullptr;
    FUZZ_CHECK(qx_conf_parse_string_value(kw, pa.c_str(), &out) == 0);
    const std::string value = fuzz::take(out);
    FUZZ_CHECK(fuzz::from_file(value, a) && value.size() < 8192);

    // Fields are cut out of the trimmed value and keep their own blanks.
    char *f[3] = {};
    const int cred = qx_conf_parse_db_cred(nullptr, pa.c_str(), "a", &f[0], &f[1], &f[2]);
    for (char *field : f) {
        FUZZ_CHECK((cred == 0) == (field != nullptr));
        FUZZ_CHECK(!field || (fuzz::contains(a, field) && !std::strchr(field, ':')));
        std::free(field);
    }

    char *host = nullptr;
    int port = -1;
    const int hrc = qx_conf_parse_db_host_custom(pa.c_str(), "a", kw, &host, &port);
    FUZZ_CHECK((hrc == 0) == (host != nullptr));
    FUZZ_CHECK(hrc != 0 || (port >= 1 && port <= 65535 && fuzz::contains(a, host)));
    std::free(host);

    out = nullptr;
    const int wrc = qx_conf_parse_worker(kw, pa.c_str(), &out);
    FUZZ_CHECK((wrc == 0) == (out != nullptr) && fuzz::from_file(fuzz::take(out), a));

    // Reading twice gives the same table: every call starts from an empty one.
    qx_conf_directive table[] = {{kw, 0, nullptr}, {"DB", 0, nullptr}, {nullptr, 0, nullptr}};
    const std::string missing = pa + ".missing";
    const char *files[] = {pa.c_str(), missing.c_str(), pb.c_str(), nullptr};
    int counts[2] = {};
    for (int call = 0; call < 2; ++call) {
        FUZZ_CHECK(qx_conf_parse_multi_directives_multi_files(table, files) == 0);
        for (int r = 0; r < 2; ++r) {
            FUZZ_CHECK(call == 0 || counts[r] == table[r].count);
            counts[r] = table[r].count;
            for (int i = 0; i < table[r].count; ++i)
                FUZZ_CHECK(fuzz::from_file(table[r].values[i], a, b));
        }
    }
    qx_conf_parse_multi_directives_free_data(table);
    FUZZ_CHECK(table[0].count == 0 && table[0].values == nullptr);
    return 0;
}
