/* One pipe to the utility, and its words. */
#include "converter/control/bridge_bsp_utility.h"

#include "common/bridge_log.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

static constexpr const char *UTILITY = "sarnivel-dist-upgrade";
static constexpr const char *NOTHING_AVAILABLE = "No BSP upgrade available";

/* ---- running ---- */

static void collect_answer(FILE *pipe, char (&answer)[BSP_ANSWER_SIZE])
{
    char *line = nullptr;
    size_t capacity = 0;
    size_t length = 0;
    while (length < sizeof(answer) - 1 && getline(&line, &capacity, pipe) > 0) {
        const size_t taken = std::min(strlen(line), sizeof(answer) - 1 - length);
        memcpy(answer + length, line, taken);
        length += taken;
    }
    free(line);
}

int bsp_utility_run(const char *arguments, char (&answer)[BSP_ANSWER_SIZE])
{
    memset(answer, 0, sizeof(answer));
    char command[256];
    snprintf(command, sizeof(command), "%s %s", UTILITY, arguments);
    BRIDGE_TRACE("Calling upgrade utility via the command: %s", command);
    FILE *pipe = popen(command, "re");
    if (pipe == nullptr) {
        BRIDGE_ERROR("popen with the upgrade utility failed, got null pointer");
        return -1;
    }
    BRIDGE_TRACE("Waiting for response from the Upgrade utility");
    collect_answer(pipe, answer);
    pclose(pipe);
    BRIDGE_TRACE("Response from the Upgrade utility: %s", answer);
    return 0;
}

void bsp_schedule_arguments(const bsp_schedule &schedule, char *arguments, size_t capacity)
{
    char download[64] = "";
    if (schedule.has_download)
        snprintf(download, sizeof(download), "-G %llu,%u ",
                 static_cast<unsigned long long>(schedule.download_time), schedule.download_delay);
    snprintf(arguments, capacity, "%s-U %llu,%u%s", download,
             static_cast<unsigned long long>(schedule.update_time), schedule.update_delay,
             schedule.force ? " -f" : "");
}

/* ---- answers ---- */

bool bsp_answer_is_failure(const char *answer)
{
    return *answer == '\0' || strstr(answer, "Fail") != nullptr;
}

bool bsp_answer_offers_nothing(const char *answer)
{
    return strstr(answer, NOTHING_AVAILABLE) != nullptr;
}

struct status_word {
    const char *word;
    bsp_state state;
};

/* The first word that the answer holds counts. */
/* clang-format off */
static constexpr status_word STATUS_WORDS[] = {
    {"scheduled",          BSP_SCHEDULED},
    {"download-scheduled", BSP_SCHEDULED},
    {"downloading",        BSP_DOWNLOADING},
    {"in-progress",        BSP_INSTALLING},
    {"download-ok",        BSP_DOWNLOADED},
    {"ok",                 BSP_INSTALLED},
    {"error",              BSP_FAILED},
};
/* clang-format on */

bsp_state bsp_parse_status(const char *answer)
{
    BRIDGE_TRACE("Converting the Upgrade utility response: %s", answer);
    for (const status_word &row : STATUS_WORDS) {
        if (strstr(answer, row.word) != nullptr)
            return row.state;
    }
    return BSP_IDLE;
}

uint64_t bsp_parse_request_time(const char *answer)
{
    static constexpr size_t SKIPPED = 14;
    const char *found = strstr(answer, "request time:");
    if (found == nullptr || strlen(found) < SKIPPED)
        return 0;
    return static_cast<uint64_t>(atoll(found + SKIPPED));
}

static void copy_line(const char *text, size_t length, char (&copy)[BSP_VERSION_SIZE])
{
    const size_t taken = std::min({length, strcspn(text, "\n"), sizeof(copy) - 1});
    memcpy(copy, text, taken);
    copy[taken] = '\0';
}

/* "from 1.0 to 1.1": the first version keeps the blank behind it, as servers
 * know it. */
void bsp_parse_offer(const char *answer, char (&version)[BSP_VERSION_SIZE],
                     char (&available)[BSP_VERSION_SIZE])
{
    static constexpr size_t FROM = 5;
    static constexpr size_t TO = 3;
    version[0] = '\0';
    available[0] = '\0';
    const char *from = strstr(answer, "from");
    if (from == nullptr || strlen(from) < FROM)
        return;
    const char *first = from + FROM;
    const char *to = strstr(first, "to");
    if (to == nullptr)
        return;
    copy_line(first, static_cast<size_t>(to - first), version);
    if (strlen(to) >= TO)
        copy_line(to + TO, strlen(to + TO), available);
}

const char *bsp_state_text(int state)
{
    static constexpr const char *TEXTS[] = {
        "NO KNOWN BSP ACTIVITY",
        "DOWNLOADING",
        "DOWNLOADED",
        "UPDATE SCHEDULED",
        "INSTALLING",
        "INSTALL (DOWNLOAD/UPGRADE) FAILED",
        "INSTALLED",
        "NO BSP UPGRADE AVAILABLE",
        "BSP UPDATE CANNOT BE RESCHEDULED",
        "UNEXPECTED ERROR DURING BSP SCHEDULING",
        "BSP UPGRADE UTILITY NOT REACHABLE",
    };
    static_assert(std::size(TEXTS) == BSP_NOT_REACHABLE + 1);
    return state >= 0 && state < static_cast<int>(std::size(TEXTS)) ? TEXTS[state] : "UNKNOWN";
}
