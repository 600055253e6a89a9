/* Not carried yet: each call succeeds, so the services around it run. */
#include "converter/control/bridge_configs.h"

int bridge_bulk_configs_init(converter_ctx *)
{
    return 0;
}

int bridge_bulk_configs_start()
{
    return 0;
}

int bridge_bulk_configs_stop()
{
    return 0;
}

int bridge_bulk_configs_deinit()
{
    return 0;
}
