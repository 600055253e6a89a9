/* Every wait of the daemon goes through here, so that a unit test can link a clock of its own. */
#ifndef BRIDGE_WAIT_H
#define BRIDGE_WAIT_H

#include <cstdint>

/* Each wait ends early when a signal is handled on the calling thread. */
void bridge_wait_s(uint32_t seconds);
void bridge_wait_ms(uint32_t milliseconds);
void bridge_wait_us(uint32_t microseconds);

#endif
