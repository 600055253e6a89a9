/* A transport of the SNMP library without a network: what it receives are datagrams from the choices of the
 * input, which the library takes apart by itself. */
#ifndef FUZZ_TRANSPORT_H
#define FUZZ_TRANSPORT_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/snmp_transport.h>

/* Of the gateway's end. With `answers`, each datagram comes in answer to the last request, by its number;
 * when the choices run out, a good error ends every exchange. Without, they come unasked, as long as choices
 * are left. */
netsnmp_transport *fuzz_transport_new(bool answers);

#endif
