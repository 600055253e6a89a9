/* The TOML form of the configuration file, with includes. Main thread, at start-up. */
#ifndef BRIDGE_CONFIG_PROCESSOR_TOML_H
#define BRIDGE_CONFIG_PROCESSOR_TOML_H

struct bridge_args;
struct bridge_config_root;

/* Fills `config_root` from the file named in `args` and from its includes. Returns 0 or a negative number;
 * a field that was filled before a failure stays filled. */
int bridge_config_build_proc_toml(bridge_config_root *config_root, const bridge_args *args);

#endif
