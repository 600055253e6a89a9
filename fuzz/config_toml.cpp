/* The TOML form of the configuration, with includes. Input: the text of "top.toml", and behind separators
 * those of "one.toml" and "two.toml"; any other name leads nowhere. */
#include "common/bridge_config_processor_toml.h"
#include "fuzz.h"
#include "fuzz_config.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

static constexpr char SEPARATOR = '\x1e'; /* no character of TOML */

struct named_file {
    const char *name;
    fuzz_memory_file file;
};

static constexpr size_t INPUT_FILES = 3;

/* The last one reads the first one twice, which must change nothing. */
static std::array<named_file, INPUT_FILES + 1> &files()
{
    static std::array<named_file, INPUT_FILES + 1> all = {
        {{"top.toml", {}}, {"one.toml", {}}, {"two.toml", {}}, {"twice.toml", {}}}};
    return all;
}

/* The fuzzer's own files are none of this target's business, nor is the one that it writes after a crash
 * here. */
static bool reading;

extern "C" FILE *__real_fopen64(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen64(const char *path, const char *mode);

extern "C" FILE *__wrap_fopen64(const char *path, const char *mode)
{
    if (!reading || mode[0] != 'r')
        return __real_fopen64(path, mode);
    for (const named_file &known : files()) {
        if (strcmp(known.name, path) == 0)
            return __real_fopen64(known.file.path(), mode);
    }
    errno = ENOENT;
    return nullptr;
}

static void write_files(std::string_view input)
{
    for (size_t i = 0; i < INPUT_FILES; i++) {
        const size_t end = i + 1 < INPUT_FILES ? input.find(SEPARATOR) : input.npos;
        files()[i].file.replace(input.substr(0, end));
        input = end != input.npos ? input.substr(end + 1) : "";
    }
}

static int load(const char *path, bridge_config_root *root)
{
    const bridge_args args = {.config_path = path};
    const int free_before = fuzz_free_descriptor();
    reading = true;
    const int result = bridge_config_build_proc_toml(root, &args);
    reading = false;
    FUZZ_REQUIRE(fuzz_free_descriptor() == free_before);
    fuzz_config_check(*root);
    return result;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_init_log();
    files().back().file.replace("[aux]\nincludes = ['top.toml', 'top.toml']\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    write_files({reinterpret_cast<const char *>(data), size});
    const auto once = fuzz_config_with_defaults();
    const auto twice = fuzz_config_with_defaults();
    const int result = load("top.toml", once.get());
    const int result_twice = load("twice.toml", twice.get());
    FUZZ_REQUIRE((result < 0) == (result_twice < 0));
    FUZZ_REQUIRE(result < 0 || fuzz_config_same(*once, *twice));
    return 0;
}
