/* Descriptors of children, and what the daemon loads for them. */
#include "common/bridge_child.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <syslog.h>
#include <unistd.h>

static constexpr const char *NAME_SERVICES = "/etc/nsswitch.conf";

using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* ---- before the first child ---- */

/* One word of the line: a service, or a part of what to do after one. */
static void load_name_service(const char *word)
{
    static constexpr const char *SERVICE = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    static constexpr const char *IN_C_LIBRARY[] = {"files", "dns"};
    if (word[strspn(word, SERVICE)] != '\0')
        return;
    for (const char *known : IN_C_LIBRARY) {
        if (strcmp(word, known) == 0)
            return;
    }
    char name[64];
    if (snprintf(name, sizeof(name), "libnss_%s.so.2", word) >= static_cast<int>(sizeof(name)))
        return;
    const void *library = dlopen(name, RTLD_NOW);
    if (library == nullptr) /* look-ups pass it over, too */
        BRIDGE_DEBUG("no library of a name service: %s", dlerror());
}

static void load_name_services(char *line)
{
    static constexpr const char *BETWEEN = ": \t\n";
    char *rest = nullptr;
    const char *word = strtok_r(line, BETWEEN, &rest);
    if (word == nullptr || strcmp(word, "hosts") != 0)
        return;
    while ((word = strtok_r(nullptr, BETWEEN, &rest)) != nullptr && *word != '#')
        load_name_service(word);
}

/* A fork copies the dynamic loader as it is. The C library makes its main lock anew in the child, but not the
 * one of its list of libraries, and what another thread was loading stays half done: a child that loads would
 * hang, or take that for whole. So the daemon loads nothing once a job can be forked. Look-ups of names
 * would: the main thread connects servers while commands run, and the C library loads the services of
 * /etc/nsswitch.conf, each when it is first asked. Loaded here, they are only found then. OpenSSL loads what
 * its configuration names with the first MQTT client, before there are commands. */
void bridge_child_prepare()
{
    const file_owned file(fopen(NAME_SERVICES, "re"));
    if (!file)
        return; /* look-ups then use what the C library has itself */
    char *line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, file.get()) >= 0)
        load_name_services(line);
    const text_owned owned(line);
}

/* ---- in the child ---- */

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
