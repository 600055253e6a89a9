/* Conversions between the agent's variables and the client's records. Under the context mutex. */
#ifndef BRIDGE_SNMP_CONVERT_H
#define BRIDGE_SNMP_CONVERT_H

#include "converter/control/bridge_snmp.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

/* Writes the variable into the record's target. Returns 0 or -1 after logging why. */
int bridge_snmp_convert_read(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop);

/* Adds the record to a SET. Returns 0 or -1 after logging why. */
int bridge_snmp_convert_write(netsnmp_pdu *pdu, const bridge_snmp_write_prop *prop);

/* The address in `size` bytes as text: 4 are IPv4, 16 are IPv6. Returns 0 or -1 after logging why. */
int bridge_snmp_format_address(const void *address, size_t size, char *buf, size_t buf_sz);

#endif
