/* The flat form of the configuration. Input: the text of the file. */
#include "common/bridge_config_processor_legacy.h"
#include "fuzz.h"
#include "fuzz_config.h"

static int load(const fuzz_memory_file &file, bridge_config_root *root)
{
    const bridge_args args = {.config_path = file.path()};
    const int free_before = fuzz_free_descriptor();
    const int result = bridge_config_build_proc_legacy(root, &args);
    FUZZ_REQUIRE(fuzz_free_descriptor() == free_before);
    fuzz_config_check(*root);
    return result;
}

/* A number that is no port leaves the old one. */
static void check_ports(const bridge_config_root &root)
{
    const uint32_t ports[] = {root.rev_ssh.local_port, root.rev_ssh.timeout, root.generic.status_http_port,
                              root.generic.semtech_udp_listen_port, root.generic.mqtt_disconnect_timeout};
    for (const uint32_t port : ports)
        FUZZ_REQUIRE(port <= UINT16_MAX);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_init_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const fuzz_memory_file file;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const auto once = fuzz_config_with_defaults();
    const auto twice = fuzz_config_with_defaults();
    file.replace(text);
    const int result = load(file, once.get());
    /* Later lines override earlier ones, so that a file behind itself says the same. */
    file.replace(text + "\n" + text);
    FUZZ_REQUIRE(load(file, twice.get()) == result);
    FUZZ_REQUIRE(fuzz_config_same(*once, *twice));
    FUZZ_REQUIRE(result == 0 || result == -1);
    check_ports(*once);
    return 0;
}
