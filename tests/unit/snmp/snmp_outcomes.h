/* One read, its target and what became of it, as a text that a row of a table holds. */
#ifndef SNMP_OUTCOMES_H
#define SNMP_OUTCOMES_H

#include "common/bridge_json_helpers.h"
#include "config/captured_log.h"
#include "converter/control/bridge_snmp.h"

#include <memory>
#include <string>

/* The target of one record, of exactly the capacity told. Its text is `5`, `true`, `[text] 4`, `0a0b 2`,
 * `{"f":5}`, or `untouched`. */
class read_target
{
  public:
    explicit read_target(bridge_prop_type type, size_t capacity = 128, bridge_prop_type hint = {});

    /* Valid as long as the target; `root` may be null. */
    bridge_snmp_read_prop record(const char *name, const char *root = nullptr);
    std::string text() const;

  private:
    std::string buffer_text() const;

    bridge_prop_type type_;
    bridge_prop_type hint_;
    size_t capacity_;
    size_t size_;
    std::unique_ptr<char[]> buffer_;
    json_owned object_;
};

/* `text` for a result of 0, "-1" for a failure, each with what was logged behind it. */
std::string outcome(int result, const std::string &text, const log_view &log);

std::string hex_of(const char *bytes, size_t size);

#endif
