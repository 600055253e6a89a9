/* The real library, which nothing links here; and libraries that lack something. */
#include "common/bridge_curl_lazy.h"

#include "config/captured_log.h"

#include <cstring>
#include <dlfcn.h>
#include <sys/wait.h>

using testing::ElementsAre;
using testing::IsEmpty;

static const char *missing_library;  /* asked for in place of the library; or null */
static const char *missing_function; /* not found; or null */
static std::vector<std::string> asked_for;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" void *__real_dlopen(const char *name, int flags);
extern "C" void *__wrap_dlopen(const char *name, int flags)
{
    return __real_dlopen(missing_library != nullptr ? missing_library : name, flags);
}

extern "C" void *__real_dlsym(void *library, const char *name);
extern "C" void *__wrap_dlsym(void *library, const char *name)
{
    asked_for.emplace_back(name);
    const bool is_missing = missing_function != nullptr && strcmp(name, missing_function) == 0;
    return __real_dlsym(library, is_missing ? "curl_no_such_function" : name);
}
// NOLINTEND(bugprone-reserved-identifier)

class CurlLazy : public testing::Test
{
  protected:
    CurlLazy()
    {
        missing_library = nullptr;
        missing_function = nullptr;
        asked_for.clear();
    }

    /* A process of its own loads, as a job does. */
    static bool in_child(bool (*check)())
    {
        const pid_t pid = fork();
        if (pid == 0)
            _Exit(check() ? 0 : 1);
        int status = -1;
        waitpid(pid, &status, 0);
        return status == 0;
    }

    captured_log log;
};

static bool is_mapped()
{
    return dlopen("libcurl.so.4", RTLD_NOW | RTLD_NOLOAD) != nullptr;
}

TEST_F(CurlLazy, EveryFunctionIsFound)
{
    EXPECT_TRUE(in_child([] {
        const bridge_curl *curl = bridge_curl_load();
        if (curl == nullptr)
            return false;
        void *functions[sizeof(bridge_curl) / sizeof(void *)];
        memcpy(functions, curl, sizeof(functions));
        for (size_t i = 0; i < std::size(functions); ++i) {
            Dl_info info = {};
            if (dladdr(functions[i], &info) == 0 || asked_for[i] != info.dli_sname)
                return false;
        }
        return asked_for.size() == std::size(functions);
    }));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(CurlLazy, AMemberIsTheFunctionOfItsName)
{
    EXPECT_TRUE(in_child([] {
        const bridge_curl *curl = bridge_curl_load();
        if (curl == nullptr || curl->global_init(CURL_GLOBAL_ALL) != CURLE_OK)
            return false;
        CURL *handle = curl->easy_init();
        CURLU *url = curl->url();
        char *text = nullptr;
        return handle != nullptr && url != nullptr &&
               curl->url_set(url, CURLUPART_URL, "ftp.example", CURLU_GUESS_SCHEME) == CURLUE_OK &&
               curl->url_get(url, CURLUPART_SCHEME, &text, 0) == CURLUE_OK && strcmp(text, "ftp") == 0 &&
               strcmp(curl->easy_strerror(CURLE_COULDNT_CONNECT), "Couldn't connect to server") == 0;
    }));
}

TEST_F(CurlLazy, TheLibraryIsThereOnlyWhereItWasLoaded)
{
    EXPECT_FALSE(is_mapped());
    EXPECT_TRUE(in_child([] { return bridge_curl_load() != nullptr && is_mapped(); }));
    EXPECT_FALSE(is_mapped());
}

TEST_F(CurlLazy, AMissingLibraryIsTold)
{
    missing_library = "libno-such.so.4";
    EXPECT_EQ(bridge_curl_load(), nullptr);
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR curl: failed to load library: libno-such.so.4: cannot open shared object "
                            "file: No such file or directory"));
}

TEST_F(CurlLazy, ALibraryThatLacksAFunctionIsTold)
{
    missing_function = "curl_url_cleanup";
    EXPECT_TRUE(in_child([] { return bridge_curl_load() == nullptr; }));
    const std::vector<std::string> lines = log.complaints();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], testing::StartsWith("ERROR curl: failed to load library: "));
    EXPECT_THAT(lines[0], testing::EndsWith("undefined symbol: curl_no_such_function"));
}
