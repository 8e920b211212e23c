// Asterisk configuration files: both readers over the same bytes, and the line helpers.
#include <vector>

#include "fuzz_support.hpp"
#include "utils.h"

// Values are non-empty text of the file, trimmed, that never crosses a line.
static void check_values(safestr_t **values, const std::string &content, size_t max_len) {
    for (int i = 0; i < 3; ++i) {
        const std::string v =
            values[i] ? std::string(safestr_cstr(values[i]), safestr_length(values[i])) : "";
        FUZZ_CHECK(!values[i] ||
                   (!v.empty() && v.size() <= max_len && fuzz::from_file(v, content)));
        safestr_free(values[i]);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char *keys[] = {"astspooldir", "astlibdir", "a=b", nullptr};
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const uint8_t dst_len = in.byte();
    const std::string section = in.str(16), content = in.str();
    const std::string path = fuzz::scratch_file("asterisk.conf", content);
    for (const char *s : {section.c_str(), static_cast<const char *>(nullptr)}) {
        safestr_t *values[3] = {};
        FUZZ_CHECK(get_astconf_section_values(path.c_str(), s, keys, values) == 0);
        check_values(values, content, content.size());
    }
    safestr_t *values[3] = {};
    FUZZ_CHECK(get_astconf_values(path.c_str(), keys, values, 3) == 0);
    check_values(values, content, 1023);

    // The helpers on the text up to its first NUL; dst is exactly dst_len bytes so that ASan
    // sees any write past it.
    const char *line = content.c_str();
    FUZZ_CHECK(is_ignorable(line, '#', in.byte()) >> 1 == 0);
    std::vector<char> dst(dst_len ? dst_len : 1);
    const char *pad = get_start_padding(line, dst.data(), dst_len, nullptr);
    const size_t n = dst_len ? std::strlen(pad) : 0;
    FUZZ_CHECK(!dst_len ||
               (n < dst_len && std::strspn(line, " \t") >= n && !std::strncmp(pad, line, n)));
    const char *comment = get_inline_comment(line, nullptr, 0, ";");
    FUZZ_CHECK(!*comment || (comment >= line && std::strchr(comment, ';') &&
                             comment + std::strlen(comment) == line + std::strlen(line)));
    get_inline_comment(line, dst.data(), dst_len, ";");
    return 0;
}
