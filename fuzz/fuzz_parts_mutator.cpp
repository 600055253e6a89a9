/* The mutator of targets whose input is lines and choices, and nothing else of its own. */
#include "fuzz_mutate.h"

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    return fuzz_mutate_parts(data, size, max_size, seed);
}
