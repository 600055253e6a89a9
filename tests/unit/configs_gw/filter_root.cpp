#include "configs_gw/filter_root.h"

#include "configs_gw/counted_waits.h"

#include <cstdlib>
#include <fstream>
#include <json-c/json.h>
#include <sstream>

static constexpr std::string_view FIXED = "/var/lib/sarnivel-lora-hal/uplink-filter-list";
static std::filesystem::path the_folder;
static std::string refused_name;
static int refused_error;
static int opens_to_pass;
static std::vector<std::string> file_steps;

FilterTest::FilterTest()
{
    char name[] = "/tmp/filter_root.XXXXXX";
    the_folder = mkdtemp(name);
    refused_error = 0;
    waits = {};
    file_steps.clear();
    let_all_pass();
    put("", "{}");
    put("-lock", "");
}

FilterTest::~FilterTest()
{
    let_all_pass();
    std::filesystem::remove_all(the_folder);
}

std::filesystem::path FilterTest::place(const std::string &name)
{
    return the_folder / ("list" + name);
}

void FilterTest::put(const std::string &name, const std::string &text)
{
    std::ofstream(place(name), std::ios::trunc) << text;
}

std::optional<std::string> FilterTest::content(const std::string &name)
{
    const std::ifstream file(place(name));
    if (!file)
        return {};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void FilterTest::refuse(const std::string &name, int error, int after)
{
    opens_to_pass = after;
    refused_name = name;
    refused_error = error;
}

void FilterTest::let_pass_after_waits(size_t count)
{
    waits.within = [count] {
        if (waits.taken.size() == count)
            let_all_pass();
    };
}

std::vector<std::string> FilterTest::locking()
{
    std::vector<std::string> calls = file_steps;
    std::erase_if(calls, [](const std::string &step) { return step.starts_with("open "); });
    return calls;
}

std::vector<std::string> FilterTest::steps()
{
    return file_steps;
}

static std::string below(const char *path)
{
    const std::string_view text(path);
    if (!text.starts_with(FIXED))
        return path;
    return the_folder / ("list" + std::string(text.substr(FIXED.size())));
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
FILE *__real_fopen64(const char *path, const char *mode);
FILE *__wrap_fopen64(const char *path, const char *mode)
{
    if (refused_error != 0 && path == std::string(FIXED) + refused_name && opens_to_pass-- <= 0) {
        errno = refused_error;
        return nullptr;
    }
    if (std::string_view(path).starts_with(FIXED))
        file_steps.push_back(std::string("open ").append(path + FIXED.size()));
    return __real_fopen64(below(path).c_str(), mode);
}

int __real_remove(const char *path);
int __wrap_remove(const char *path)
{
    return __real_remove(below(path).c_str());
}

int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode)
{
    return __real_access(below(path).c_str(), mode);
}

int __real_lockf64(int fd, int command, off_t length);
int __wrap_lockf64(int fd, int command, off_t length)
{
    EXPECT_EQ(length, 0);
    const bool failed = command == F_LOCK && fails("lockf");
    file_steps.emplace_back(failed ? "no lock" : command == F_LOCK ? "lock" : "unlock");
    return failed ? -1 : __real_lockf64(fd, command, length);
}

/* The log's own writes pass. */
size_t __real_fwrite(const void *data, size_t size, size_t count, FILE *stream);
size_t __wrap_fwrite(const void *data, size_t size, size_t count, FILE *stream)
{
    return stream != stderr && fails("fwrite") ? 0 : __real_fwrite(data, size, count, stream);
}
}
// NOLINTEND(bugprone-reserved-identifier)

FAILING_CALL(int, ftruncate64, (int fd, off_t length), (fd, length), -1)
FAILING_CALL(off_t, lseek64, (int fd, off_t offset, int whence), (fd, offset, whence), -1)
FAILING_CALL(int, json_object_to_fd, (int fd, json_object *object, int flags), (fd, object, flags), -1)
