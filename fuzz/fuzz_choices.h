/* What the world around the daemon does in a run, taken byte after byte from the end of the input: answers of
 * the agent, of programs and of the system. When they run out, everything fails in the quickest way, so that
 * every wait and every walk of the daemon ends. */
#ifndef FUZZ_CHOICES_H
#define FUZZ_CHOICES_H

#include <cstddef>
#include <cstdint>
#include <string>

void fuzz_choices_set(const uint8_t *data, size_t size);
bool fuzz_choices_left();

/* A byte; 0 when none is left. */
uint8_t fuzz_choice();

/* `size` bytes in the machine's order, with zeros for what is missing. */
uint32_t fuzz_choice_number(size_t size);

/* At most `size` bytes, fewer when no more are left. */
std::string fuzz_choice_bytes(size_t size);

/* Bytes up to a zero, which is taken as well. */
std::string fuzz_choice_text();

/* One character over and over, about as long as some buffer that texts are read into. */
std::string fuzz_choice_filling();

#endif
