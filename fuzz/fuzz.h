/* What the fuzz targets share. A target is given bytes, hands them to the daemon's own code, and requires of
 * the outcome what holds for every input; the sanitizers watch the way. */
#ifndef FUZZ_H
#define FUZZ_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/* Ends the run, which keeps the input, when the condition does not hold. */
#define FUZZ_REQUIRE(expr) fuzz_require(static_cast<bool>(expr), __FILE__, __LINE__, #expr)
void fuzz_require(bool holds, const char *file, int line, const char *text);

/* Once, before the first input: every message is formatted, and none is seen but with FUZZ_LOG in the
 * environment. */
void fuzz_init_log();

/* A copy of exactly this size on the heap, so that a step past its end is seen. */
std::unique_ptr<uint8_t[]> fuzz_exact_copy(const void *data, size_t size);

/* Bytes up to their first zero as a text in a buffer without a spare byte. */
std::unique_ptr<char[]> fuzz_exact_text(const uint8_t *data, size_t size);

/* True for one JSON object and nothing else, as the library reads it when strict. What is not finite counts
 * as a number: "nan" and "inf" are what a forwarder's own such number looks like when it is passed on. */
bool fuzz_is_json_object(const std::string &text);

/* The lowest descriptor that is free: the same before and after, unless one has leaked. */
int fuzz_free_descriptor();

#endif
