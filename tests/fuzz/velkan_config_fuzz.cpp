// Cache server configuration: disdbase.conf, pbx.conf and local.conf (under the fuzz build's
// root) from the input, then the set-up; servers are only registered, never connected to.
#include <algorithm>

#include "fuzz_support.hpp"
#include "qx_paths.h"
#include "zarn_velkan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::quiet_log();
    fuzz::Input in(data, size);
    const std::string levels = in.str(64), value = in.str(80).c_str(), disdbase = in.str(400),
                      pbx = in.str();
    fuzz::scratch_file(QX_LOCAL_CONF, "VELKAN_DEBUG_PBX " + levels + "\n");
    fuzz::scratch_file(QX_DISDBASE_CONF, disdbase);
    fuzz::scratch_file(QX_PBX_CONF, pbx);

    // Success needs a server and credentials of the "main" partition somewhere in the files.
    vk_client_t *client = nullptr;
    const int rc = ast_vk_init(&client);
    FUZZ_CHECK(client && (rc == -1 || (rc == 0 && fuzz::contains(disdbase + pbx, "main:"))));

    // A server is added only from five or more fields of the main partition with a numeric
    // port; fields split like the platform's helper: one trailing separator adds no empty field.
    // A malformed value of the main partition is reported at error priority.
    const std::string fields = value.ends_with(':') ? value.substr(0, value.size() - 1) : value;
    const std::string port = fields.substr(fields.rfind(':') + 1);
    const bool main = value.starts_with("main:");
    fuzz::errors_logged = 0;
    const int added = add_vk_srv_(client, value.c_str());
    FUZZ_CHECK(added != 0 ||
               (main && std::count(fields.begin(), fields.end(), ':') >= 4 && !port.empty() &&
                port.find_first_not_of("0123456789") == std::string::npos));
    FUZZ_CHECK(added != 1 || !main || fuzz::errors_logged == 1);
    add_vk_syslog_(client, levels.c_str());
    vk_client_destroy(client);
    return 0;
}
