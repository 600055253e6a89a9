/* Not carried yet: each call succeeds, so the services around it run. */
#include "converter/control/bridge_bsp_upgrade.h"

int bridge_bulk_upgrade_init(converter_ctx *)
{
    return 0;
}

int bridge_bulk_upgrade_start()
{
    return 0;
}

int bridge_bulk_upgrade_stop()
{
    return 0;
}

int bridge_bulk_upgrade_deinit()
{
    return 0;
}
