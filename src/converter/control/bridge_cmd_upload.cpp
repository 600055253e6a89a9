/* Handlers in the order of the command table. The members of the open transaction are guarded by a lock of
 * this file's own, held for a whole command: a chunk that comes beside another waits for it. */
#include "converter/control/bridge_cmd_upload.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_utils.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

static constexpr const char *STAGING = "/dev/shm";
static constexpr const char *FIRMWARE = "/lib/firmware/";
static constexpr const char *MODEM_FIRMWARE = "/dev/shm/modem/";
static constexpr mode_t DIRECTORY_MODE = 0755;
static constexpr size_t PATH_SIZE = 4096;
/* Neither through a link that lies where the file should, nor waiting for the reader of a pipe. */
static constexpr int ONLY_A_FILE = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using bytes_owned = std::unique_ptr<char, bridge_release<free>>;

static std::mutex transaction_lock;

static void answer_status(const char *text, json_object **response)
{
    *response = bridge_cmd_status_text("status", text);
}

/* Logs the text of a failure where it is found, and hands it on for the answer. */
static const char *failed(const char *text)
{
    BRIDGE_ERROR("%s", text);
    return text;
}

/* A null `failure` is success. */
static void answer_outcome(const char *failure, json_object **response)
{
    answer_status(failure != nullptr ? failure : "ok", response);
}

static bool form_path(char (&path)[PATH_SIZE], const char *directory, const char *name)
{
    const int length = snprintf(path, sizeof(path), "%s/%s", directory, name);
    return length > 0 && static_cast<size_t>(length) < sizeof(path);
}

static void close_transaction(converter_ctx *ctx)
{
    free(ctx->upload_chunk);
    ctx->upload_chunk = nullptr;
    ctx->upload_chunk_len = 0;
}

/* ---- start ---- */

struct upload_request {
    bool is_modem_fw;
    char name[255];
    int64_t size;
    int64_t chunk_length;
    int64_t total_length;
};

/* Returns 0, or -1 after logging or answering why not. */
static int read_start(json_object *params, upload_request *request, json_object **response)
{
    const bridge_json_field frame[] = {
        field_bool("isModemFw", &request->is_modem_fw),
        field_string("name", request->name),
        field_int("size", &request->size),
        field_int("b64ChunkLength", &request->chunk_length),
        field_int("b64TotalLength", &request->total_length),
    };
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return -1;
    }
    if (request->is_modem_fw) {
        BRIDGE_INFO("upload modem firmware is not (yet) supported");
        *response = bridge_cmd_status_text("error", "not_supported");
        return -1;
    }
    if (strchr(request->name, '/') != nullptr) {
        BRIDGE_ERROR("invalid filename specified: %s", request->name);
        return -1;
    }
    if (request->chunk_length <= 0 || request->size <= 0 || request->total_length <= 0) {
        BRIDGE_ERROR("invalid parameters received");
        return -1;
    }
    return 0;
}

static void discard_transaction(converter_ctx *ctx)
{
    char path[PATH_SIZE];
    form_path(path, STAGING, ctx->upload_name);
    unlink(path);
    close_transaction(ctx);
}

static void discard_old_transaction(converter_ctx *ctx)
{
    if (ctx->upload_chunk == nullptr)
        return;
    BRIDGE_DEBUG("deleting old transaction file: %s/%s", STAGING, ctx->upload_name);
    discard_transaction(ctx);
}

/* Returns the failure's text, or null. */
static const char *open_transaction(converter_ctx *ctx, const upload_request &request)
{
    if (request.chunk_length >= PTRDIFF_MAX) /* on a gateway of 32 bits, 2 GiB */
        return failed("no memory for file transfer");
    const auto length = static_cast<size_t>(request.chunk_length);
    ctx->upload_chunk = static_cast<uint8_t *>(malloc(length + 1));
    if (ctx->upload_chunk == nullptr)
        return failed("no memory for file transfer");
    ctx->upload_chunk_len = length;
    snprintf(ctx->upload_name, sizeof(ctx->upload_name), "%s", request.name);
    ctx->upload_is_modem_fw = request.is_modem_fw;
    return nullptr;
}

void bridge_cmd_file_upload_start(converter_ctx *ctx, json_object *params, json_object **response)
{
    upload_request request = {};
    if (read_start(params, &request, response) < 0)
        return;
    const std::lock_guard guard(transaction_lock);
    mkdir(STAGING, DIRECTORY_MODE);
    char path[PATH_SIZE];
    if (!form_path(path, STAGING, request.name)) {
        answer_status(failed("filename is too big"), response);
        return;
    }
    BRIDGE_DEBUG("starting uploading a file: %s, chunk len: %lld, overall size: %lld", path,
                 static_cast<long long>(request.chunk_length), static_cast<long long>(request.size));
    const bridge_fd staged(open(path, O_WRONLY | O_TRUNC | ONLY_A_FILE));
    if (staged.get() < 0 && errno != ENOENT) {
        BRIDGE_ERROR("failed to truncate a file: %m");
        return;
    }
    discard_old_transaction(ctx);
    answer_outcome(open_transaction(ctx, request), response);
}

/* ---- chunk ---- */

static FILE *open_staged(const char *path, int flags, const char *mode)
{
    bridge_fd fd(open(path, O_WRONLY | ONLY_A_FILE | flags, 0666));
    FILE *file = fd.get() >= 0 ? fdopen(fd.get(), mode) : nullptr;
    if (file != nullptr)
        (void)fd.release();
    return file;
}

/* Returns the failure's text, or null. */
static const char *append_chunk(const converter_ctx *ctx)
{
    const char *text = reinterpret_cast<const char *>(ctx->upload_chunk);
    const int data_size = Base64decode_len(text);
    const bytes_owned data(static_cast<char *>(malloc(static_cast<size_t>(data_size))));
    if (!data)
        return failed("failed to allocate memory to decode payload");
    const int rc = Base64decode(data.get(), text);
    if (rc <= 0)
        return failed(
            "failed to write to a file"); /* nothing in it: no number of bytes that could be written */
    BRIDGE_ASSERT_TEXT(rc <= data_size, "rc > 0 && (unsigned)rc <= data_size");
    char path[PATH_SIZE];
    form_path(path, STAGING, ctx->upload_name);
    BRIDGE_TRACE("trying to write a file: %s", path);
    file_owned file(open_staged(path, O_CREAT | O_APPEND, "ab"));
    if (!file)
        return failed("failed to create a file");
    const auto size = static_cast<size_t>(rc);
    if (fwrite(data.get(), 1, size, file.get()) != size || fclose(file.release()) != 0)
        return failed("failed to write to a file");
    return nullptr;
}

void bridge_cmd_file_upload_chunk(converter_ctx *ctx, json_object *params, json_object **response)
{
    BRIDGE_TRACE("received a file chunk");
    const std::lock_guard guard(transaction_lock);
    if (ctx->upload_chunk == nullptr) {
        answer_status(failed("non-existing file transaction"), response);
        return;
    }
    BRIDGE_ASSERT(strlen(ctx->upload_name) > 0);
    BRIDGE_ASSERT(ctx->upload_chunk_len > 0);
    const bridge_json_field frame[] = {
        {.name = "data",
         .type = JSON_FIELD_STRING,
         .size = static_cast<uint32_t>(std::min<size_t>(ctx->upload_chunk_len + 1, UINT32_MAX)),
         .target = ctx->upload_chunk},
    };
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return;
    }
    const char *failure = append_chunk(ctx);
    answer_outcome(failure, response);
    if (failure != nullptr)
        discard_transaction(ctx); /* a file with a hole in it is of no use: the server starts anew */
}

/* ---- stop ---- */

/* Where a finished file goes by its name. */
struct upload_place {
    const char *name;
    const char *directory;
    const char *final_name; /* null: as given */
    mode_t mode;            /* 0: as it is */
};

/* In the order of matching. */
/* clang-format off */
static constexpr upload_place PLACES[] = {
    {"bstn-cups.key",       "/etc/bstn",   "cups.key", 0600},
    {"awsiot-tunnel.token", "/etc/awsiot", nullptr,    0600},
    {"awsiot-tunnel.conf",  "/etc/awsiot", nullptr,    0640},
};
/* clang-format on */

static constexpr upload_place STAYS = {nullptr, nullptr, nullptr, 0};
static constexpr upload_place MODEM_PLACE = {nullptr, MODEM_FIRMWARE, nullptr, 0};

/* A beginning of a known name counts as that name, and so does one that goes on behind it: servers rely on
 * it. */
static const upload_place &find_place(const converter_ctx *ctx)
{
    if (ctx->upload_is_modem_fw)
        return MODEM_PLACE;
    for (const upload_place &place : PLACES) {
        const size_t shorter = std::min(strlen(place.name), strlen(ctx->upload_name));
        if (strncmp(place.name, ctx->upload_name, shorter) == 0)
            return place;
    }
    return STAYS;
}

static int run_program(const char *program, const char *first, const char *second,
                       const char *third = nullptr, const char *fourth = nullptr)
{
    const char *words[] = {program, first, second, third, fourth, nullptr};
    char *argv[std::size(words)];
    std::transform(std::begin(words), std::end(words), argv,
                   [](const char *word) { return const_cast<char *>(word); });
    return system_safe(argv);
}

/* Returns the failure's text, or null. */
static const char *move_to_place(const converter_ctx *ctx, const char *staged)
{
    const upload_place &place = find_place(ctx);
    if (place.directory == nullptr)
        return nullptr;
    char target[PATH_SIZE];
    if (!form_path(target, place.directory,
                   place.final_name != nullptr ? place.final_name : ctx->upload_name)) {
        unlink(staged);
        return failed("destination path is too long");
    }
    BRIDGE_DEBUG("trying to move: %s to: %s", staged, target);
    mkdir(place.directory, DIRECTORY_MODE);
    if (run_program("/bin/mv", staged, target) < 0) {
        BRIDGE_ERROR("failed to move %s to %s", staged, target);
        unlink(staged);
        return "failed to move a file";
    }
    if (place.mode != 0 && chmod(target, place.mode) < 0) {
        unlink(target);
        return failed("failed to set the file permission");
    }
    return nullptr;
}

static bool is_zip(const char *name)
{
    const char *suffix = strcasestr(name, ".zip");
    return suffix != nullptr && strlen(suffix) == strlen(".zip");
}

/* All of the old content goes, whatever becomes of the first. */
static int empty_firmware()
{
    static constexpr const char *CONTENTS[] = {"/lib/firmware/bsp", "/lib/firmware/gpio-fpga",
                                               "/lib/firmware/fe-fpga"};
    int result = 0;
    for (const char *path : CONTENTS) {
        if (run_program("/bin/rm", "-rf", path) < 0)
            result = -1;
    }
    return result;
}

static const char *unpack(const converter_ctx *ctx, const char *staged)
{
    const char *target = ctx->upload_is_modem_fw ? MODEM_FIRMWARE : FIRMWARE;
    mkdir(target, DIRECTORY_MODE);
    if (!ctx->upload_is_modem_fw && empty_firmware() < 0)
        return failed("failed to clean target directory");
    const int result = is_zip(ctx->upload_name) ? run_program("/usr/bin/unzip", "-oq", staged, "-d", target)
                                                : run_program("/bin/tar", "xf", staged, "-C", target);
    if (result < 0)
        return failed("failed to un-compress a file");
    if (!ctx->upload_is_modem_fw && unlink(staged) < 0)
        return failed("failed to remove an original file");
    return nullptr;
}

void bridge_cmd_file_upload_stop(converter_ctx *ctx, json_object *params, json_object **response)
{
    BRIDGE_INFO("stopping a file upload");
    const std::lock_guard guard(transaction_lock);
    if (ctx->upload_chunk == nullptr) {
        answer_status(failed("non-existing file transaction"), response);
        return;
    }
    bool decompress = false;
    const bridge_json_field frame[] = {field_bool("decompress", &decompress)};
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return;
    }
    char staged[PATH_SIZE];
    form_path(staged, STAGING, ctx->upload_name);
    BRIDGE_INFO("trying to finalize a file: %s", staged);
    answer_outcome(decompress ? unpack(ctx, staged) : move_to_place(ctx, staged), response);
    close_transaction(ctx);
}
