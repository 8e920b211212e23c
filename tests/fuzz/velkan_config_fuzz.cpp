// Cache server configuration: disdbase.conf, pbx.conf and local.conf (under the fuzz build's
// root) from the input, then the set-up; servers are only registered, never connected to.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "fuzz_support.hpp"
#include "qx_paths.h"
#include "zarn_velkan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const std::string levels = in.str(64), host = in.str(80), disdbase = in.str(400);
    const std::string pbx = in.rest();
    fuzz::write_file(QX_LOCAL_CONF, "VELKAN_DEBUG_PBX " + levels + "\n");
    fuzz::write_file(QX_DISDBASE_CONF, disdbase);
    fuzz::write_file(QX_PBX_CONF, pbx);

    vk_client_t *client = nullptr;
    const int rc = ast_vk_init(&client);
    FUZZ_CHECK(client != nullptr && (rc == 0 || rc == -1));
    // Success needs a server and credentials of the "main" partition somewhere in the files.
    FUZZ_CHECK(rc != 0 || fuzz::contains(disdbase + pbx, "main:"));

    // A server is added only from five or more fields of the main partition with a numeric port.
    const std::string value = std::string(host.c_str());
    // Fields split like the platform's helper: one trailing separator adds no empty field.
    const std::string fields =
        value.empty() || value.back() != ':' ? value : value.substr(0, value.size() - 1);
    const size_t colons = std::count(fields.begin(), fields.end(), ':');
    const std::string port = fields.substr(fields.rfind(':') + 1);
    fuzz::errors_logged() = 0;
    const int added = add_vk_srv_(client, value.c_str());
    FUZZ_CHECK(added != 0 || (value.rfind("main:", 0) == 0 && colons >= 4 && !port.empty() &&
                              port.find_first_not_of("0123456789") == std::string::npos));
    // A malformed value of the main partition is reported at error priority.
    FUZZ_CHECK(added != 1 || value.rfind("main:", 0) != 0 || fuzz::errors_logged() == 1);
    add_vk_syslog_(client, levels.c_str());
    vk_client_destroy(client);
    return 0;
}
