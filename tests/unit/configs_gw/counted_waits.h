/* Waits that return at once and are written down, as "5 s", "1 ms", "10 us". */
#ifndef COUNTED_WAITS_H
#define COUNTED_WAITS_H

#include <functional>
#include <string>
#include <vector>

struct counted_waits {
    std::vector<std::string> taken;
    std::function<void()> within; /* runs in each wait */
};

extern counted_waits waits;

#endif
