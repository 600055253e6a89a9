/* The deprecated flat form of the configuration file: one key and one value on a line. A bad line costs a
 * warning, not the start. Main thread, at start-up. */
#ifndef BRIDGE_CONFIG_PROCESSOR_LEGACY_H
#define BRIDGE_CONFIG_PROCESSOR_LEGACY_H

struct bridge_args;
struct bridge_config_root;

/* Fills `config_root` from the file named in `args`. Returns 0, or -1 when the file cannot be opened or a
 * required key is missing. */
int bridge_config_build_proc_legacy(bridge_config_root *config_root, const bridge_args *args);

#endif
