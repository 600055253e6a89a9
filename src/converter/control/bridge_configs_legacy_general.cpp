/* Read and write by the file's name and content. */
#include "converter/control/bridge_configs_legacy_general.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_cmd_family.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>

static constexpr const char *CONFIG_FILE = "/etc/default/config.json";
static constexpr size_t SIZE_OF_A_FILE_ELSEWHERE = 65000;
static constexpr uint32_t READ_TIMEOUT_MS = 10000;

using text_owned = std::unique_ptr<char, bridge_release<free>>;

int bridge_configs_legacy_general_write(converter_ctx *ctx, const char *cfg, char **out)
{
    BRIDGE_ASSERT_TEXT(ctx != nullptr, "ctx != NULL");
    BRIDGE_ASSERT_TEXT(out != nullptr, "out != NULL");
    BRIDGE_ASSERT_TEXT(cfg != nullptr, "cfg != NULL");
    BRIDGE_DEBUG("writing legacy configuration");
    const int result = cmd_write(ctx, {cmd_text("utilConfigurationFileSelect.0", CONFIG_FILE),
                                       cmd_text("utilConfigurationFileContents.0", cfg)});
    if (result < 0)
        BRIDGE_ERROR("failed to write config for /etc/default/config.json");
    *out = strdup(cfg);
    if (*out == nullptr) {
        BRIDGE_ERROR("failed to allocate response string");
        return -ENOMEM;
    }
    return result;
}

int bridge_configs_legacy_general_read(converter_ctx *ctx, char **out)
{
    BRIDGE_DEBUG("reading legacy configuration");
    struct stat status = {};
    size_t size = SIZE_OF_A_FILE_ELSEWHERE;
    if (stat(CONFIG_FILE, &status) == 0)
        size = static_cast<size_t>(status.st_size) + 1;
    text_owned text(static_cast<char *>(calloc(size, 1)));
    if (!text) {
        BRIDGE_ERROR("cannot allocate memory for configuration buffer");
        return -ENOMEM;
    }
    BRIDGE_INFO("obtaining gateway-local configuration for /etc/default/config.json");
    int result = bridge_snmp_set_property(ctx, "utilConfigurationFileSelect.0", CONFIG_FILE, READ_TIMEOUT_MS);
    if (result < 0) {
        BRIDGE_ERROR("failed to set gateway configuration");
        return result;
    }
    result = bridge_snmp_get_property_str(ctx, "utilConfigurationFileContents.0", text.get(), &size,
                                          READ_TIMEOUT_MS);
    if (result < 0) {
        BRIDGE_ERROR("failed to get configuration file contents");
        return result;
    }
    BRIDGE_TRACE("received %zu bytes of configuration", size);
    *out = text.release();
    return 0;
}
