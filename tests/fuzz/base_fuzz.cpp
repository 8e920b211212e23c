// Base library: parseconfig over arbitrary files, a quoted-value round trip and a base64 round
// trip (explode and implode are the unit tests' rows).
#include <algorithm>

#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    std::string value = in.str(255);
    const std::string content = in.str();

    // Rejected lines name a directive, so there are never more of them than lines.
    char *str = nullptr;
    int num = -7;
    safestr_t *ss = nullptr;
    const fr_conf_entry table[] = {
        {"STR", FR_CONF_STRING, &str}, {"NUM", FR_CONF_INT, &num}, {"SS", FR_CONF_SAFESTR, &ss}};
    const int rejected = parseconfig(fuzz::scratch_file("base.conf", content).c_str(), table, 3);
    const size_t lines = std::count(content.begin(), content.end(), '\n');
    FUZZ_CHECK(rejected >= 0 && static_cast<size_t>(rejected) <= lines + 1);
    FUZZ_CHECK(rejected == fuzz::errors_logged && (!str || fuzz::contains(content, str)));
    std::free(str);
    safestr_free(ss);

    // A quoted value comes back byte for byte, inner blanks and quotes included.
    for (char &c : value)
        if (c == '\n' || c == '\0') c = ' ';
    str = nullptr;
    const std::string quoted = fuzz::scratch_file("quoted.conf", "STR \"" + value + "\"\n");
    FUZZ_CHECK(parseconfig(quoted.c_str(), table, 1) == 0 && str && value == str);
    std::free(str);

    const std::string enc = fuzz::take(base64_enc_str(content.data(), content.size()));
    std::string decoded;
    FUZZ_CHECK(enc.size() == (content.size() + 2) / 3 * 4);
    FUZZ_CHECK(fuzz::base64_decode(enc, decoded) && decoded == content);
    return 0;
}
