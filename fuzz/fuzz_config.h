/* Configuration records and files in memory for the two targets that read configuration files. */
#ifndef FUZZ_CONFIG_H
#define FUZZ_CONFIG_H

#include "common/bridge_config.h"

#include <memory>
#include <string>
#include <string_view>

/* Records that are given the same values are the same byte for byte. */
std::unique_ptr<bridge_config_root> fuzz_config_with_defaults();
bool fuzz_config_same(const bridge_config_root &a, const bridge_config_root &b);

/* Every text ends within its field, and every flag is true or false. */
void fuzz_config_check(const bridge_config_root &root);

/* A file that lives in memory only. */
class fuzz_memory_file
{
  public:
    fuzz_memory_file();
    ~fuzz_memory_file();
    fuzz_memory_file(const fuzz_memory_file &) = delete;
    fuzz_memory_file &operator=(const fuzz_memory_file &) = delete;

    void replace(std::string_view content) const;
    const char *path() const
    {
        return path_.c_str();
    }

  private:
    int fd_;
    std::string path_;
};

#endif
