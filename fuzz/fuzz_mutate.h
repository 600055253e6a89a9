/* A mutation for targets whose input is JSON: bytes changed at random rarely reach the limit of a field. */
#ifndef FUZZ_MUTATE_H
#define FUZZ_MUTATE_H

#include <cstddef>
#include <cstdint>

/* Every other time the fuzzer's own mutation; otherwise one value of the JSON text behind `offset` gives way
 * to a value at some limit. Returns the new size. */
size_t fuzz_mutate_json(uint8_t *data, size_t size, size_t max_size, size_t offset, unsigned seed);

/* The same for lines of JSON up to a zero, with the choices of fuzz_choices.h behind it: one of the two parts
 * is changed at a time, mostly. */
size_t fuzz_mutate_parts(uint8_t *data, size_t size, size_t max_size, unsigned seed);

#endif
