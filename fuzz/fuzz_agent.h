/* The agent at the other end of the SNMP client: what it answers comes from the choices of the input, in the
 * library's own records, and the daemon takes it from there. */
#ifndef FUZZ_AGENT_H
#define FUZZ_AGENT_H

/* Once, in the confined process: the library with the gateway's MIB, and nothing of the host's set-up.
 */
void fuzz_agent_init();

#endif
