/* The library's functions by their names. bridge_child_prepare makes it safe to load in a child. */
#include "common/bridge_curl_lazy.h"

#include "common/bridge_log.h"

#include <cstring>
#include <dlfcn.h>
#include <iterator>

static constexpr const char *LIBRARY = "libcurl.so.4";

template <auto Member> static bool find(bridge_curl *curl, void *library, const char *name)
{
    void *address = dlsym(library, name);
    memcpy(&(curl->*Member), &address, sizeof(address));
    return address != nullptr;
}

struct function_row {
    const char *name;
    bool (*find)(bridge_curl *curl, void *library, const char *name);
};

// clang-format off
static constexpr function_row functions[] = {
    /* name                 member */
    {"curl_global_init",    find<&bridge_curl::global_init>},
    {"curl_free",           find<&bridge_curl::free>},
    {"curl_easy_init",      find<&bridge_curl::easy_init>},
    {"curl_easy_setopt",    find<&bridge_curl::easy_setopt>},
    {"curl_easy_perform",   find<&bridge_curl::easy_perform>},
    {"curl_easy_strerror",  find<&bridge_curl::easy_strerror>},
    {"curl_easy_cleanup",   find<&bridge_curl::easy_cleanup>},
    {"curl_mime_init",      find<&bridge_curl::mime_init>},
    {"curl_mime_addpart",   find<&bridge_curl::mime_addpart>},
    {"curl_mime_name",      find<&bridge_curl::mime_name>},
    {"curl_mime_filename",  find<&bridge_curl::mime_filename>},
    {"curl_mime_data",      find<&bridge_curl::mime_data>},
    {"curl_mime_data_cb",   find<&bridge_curl::mime_data_cb>},
    {"curl_mime_free",      find<&bridge_curl::mime_free>},
    {"curl_slist_append",   find<&bridge_curl::slist_append>},
    {"curl_slist_free_all", find<&bridge_curl::slist_free_all>},
    {"curl_url",            find<&bridge_curl::url>},
    {"curl_url_set",        find<&bridge_curl::url_set>},
    {"curl_url_get",        find<&bridge_curl::url_get>},
    {"curl_url_cleanup",    find<&bridge_curl::url_cleanup>},
};
// clang-format on
static_assert(std::size(functions) * sizeof(void *) == sizeof(bridge_curl), "one row a member");

static bridge_curl loaded_curl;

static bool find_all(bridge_curl *curl, void *library)
{
    for (const function_row &row : functions) {
        if (!row.find(curl, library, row.name))
            return false;
    }
    return true;
}

const bridge_curl *bridge_curl_load()
{
    void *library = dlopen(LIBRARY, RTLD_NOW);
    if (library == nullptr || !find_all(&loaded_curl, library)) {
        BRIDGE_ERROR("curl: failed to load library: %s", dlerror());
        return nullptr;
    }
    return &loaded_curl;
}
