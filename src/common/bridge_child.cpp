/* Descriptors of children. */
#include "common/bridge_child.h"

#include <syslog.h>
#include <unistd.h>

#ifdef __SANITIZE_ADDRESS__
/* What the daemon's other threads held is out of reach in a child, and no leak. */
static bool is_child;

extern "C" int __lsan_is_turned_off()
{
    return is_child ? 1 : 0;
}
#endif

int bridge_child_drop_descriptors(int kept)
{
    static constexpr int FIRST = STDERR_FILENO + 1;
    closelog(); /* by its own number, so before another descriptor can have that */
    if (kept >= 0 && kept != FIRST)
        dup2(kept, FIRST);
    closefrom(kept >= 0 ? FIRST + 1 : FIRST);
#ifdef __SANITIZE_ADDRESS__
    is_child = true;
#endif
    return kept >= 0 ? FIRST : -1;
}
