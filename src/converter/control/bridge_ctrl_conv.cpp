/* The gateway's operations side is not carried yet: each call succeeds, so the supervisor loop treats an
 * enabled operations server as served. */
#include "converter/control/bridge_ctrl_conv.h"

int bridge_ctrlplane_init(const char *, bridge_ctrl_handler_t, void *)
{
    return 0;
}

int bridge_ctrlplane_connect_agent(const char *, const char *, const char *, const char *, uint32_t)
{
    return 0;
}

int bridge_snmp_connect_oam()
{
    return 0;
}

int bridge_ctrlplane_disconnect_oam()
{
    return 0;
}

int bridge_ctrlplane_disconnect_agent()
{
    return 0;
}

int bridge_ctrlplane_deinit()
{
    return 0;
}
