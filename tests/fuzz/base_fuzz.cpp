// Base library: parseconfig over arbitrary files and a quoted-value round trip, explode/implode
// and base64 round trips.
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const std::string sep = in.str(4).c_str();
    std::string value = in.str(255);
    const std::string content = in.rest();

    // Rejected lines name a directive, so there are never more of them than lines.
    char *str = nullptr;
    int num = -7;
    safestr_t *ss = nullptr;
    const fr_conf_entry table[] = {
        {"STR", FR_CONF_STRING, &str}, {"NUM", FR_CONF_INT, &num}, {"SS", FR_CONF_SAFESTR, &ss}};
    const std::string path = fuzz::scratch_file("base.conf", content);
    const int rejected = parseconfig(path.c_str(), table, 3);
    size_t lines = 0;
    for (char c : content)
        lines += c == '\n';
    FUZZ_CHECK(rejected >= 0 && static_cast<size_t>(rejected) <= lines + 1);
    FUZZ_CHECK(rejected == fuzz::errors_logged());
    FUZZ_CHECK(!str || fuzz::contains(content, str));
    std::free(str);
    safestr_free(ss);

    // A quoted value comes back byte for byte, inner blanks and quotes included.
    for (char &c : value)
        if (c == '\n' || c == '\0') c = ' ';
    str = nullptr;
    fuzz::scratch_file("quoted.conf", "STR \"" + value + "\"\n");
    FUZZ_CHECK(parseconfig((fuzz::scratch() + "/quoted.conf").c_str(), table, 1) == 0);
    FUZZ_CHECK(str && value == str);
    std::free(str);

    size_t count = 0;
    if (char **parts = fr_explode(content.c_str(), sep.c_str(), &count)) {
        char *back = fr_implode(parts, count, sep.c_str());
        FUZZ_CHECK(back && std::strcmp(back, content.c_str()) == 0);
        std::free(back);
        fr_explode_free(parts);
    } else {
        FUZZ_CHECK(sep.empty());
    }

    char *enc = base64_enc_str(content.data(), content.size());
    std::string decoded;
    FUZZ_CHECK(enc && std::strlen(enc) == (content.size() + 2) / 3 * 4);
    FUZZ_CHECK(fuzz::base64_decode(enc, decoded) && decoded == content);
    std::free(enc);
    return 0;
}
