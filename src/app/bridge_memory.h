/* Keeps the daemon's heap small: the C library's allocator trades memory for speed among many threads, and a
 * gateway has little of the one, the daemon little use for the other. */
#ifndef BRIDGE_MEMORY_H
#define BRIDGE_MEMORY_H

/* First of all: what other threads have got stays. */
void bridge_memory_keep_small();

/* Gives what is free in the heap back to the system. Takes some hundred microseconds, which other threads
 * wait for when they need the heap. Any thread. */
void bridge_memory_give_back();

#endif
