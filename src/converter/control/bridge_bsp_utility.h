/* The gateway's upgrade utility: how it is asked, and how its answers read. */
#ifndef BRIDGE_BSP_UTILITY_H
#define BRIDGE_BSP_UTILITY_H

#include <cstddef>
#include <cstdint>

static constexpr size_t BSP_ANSWER_SIZE = 256;
static constexpr size_t BSP_VERSION_SIZE = 64;

enum bsp_state : int {
    BSP_IDLE = 0,
    BSP_DOWNLOADING = 1,
    BSP_DOWNLOADED = 2,
    BSP_SCHEDULED = 3,
    BSP_INSTALLING = 4,
    BSP_FAILED = 5,
    BSP_INSTALLED = 6,
    BSP_NOTHING_AVAILABLE = 7,
    BSP_NOT_RESCHEDULED = 8,
    BSP_UNEXPECTED_ERROR = 9,
    BSP_NOT_REACHABLE = 10,
};

/* What is to be scheduled; times in seconds since 1970, delays in seconds. */
struct bsp_schedule {
    uint64_t download_time;
    uint32_t download_delay;
    uint64_t update_time;
    uint32_t update_delay;
    bool force;
    bool has_download;
};

/* Runs the utility and waits for its end, without a limit; `answer` takes what it prints, cut to its size.
 * Returns 0, or -1 when it cannot be run, with an empty answer. */
int bsp_utility_run(const char *arguments, char (&answer)[BSP_ANSWER_SIZE]);

/* The arguments that schedule it. */
void bsp_schedule_arguments(const bsp_schedule &schedule, char *arguments, size_t capacity);

bool bsp_answer_is_failure(const char *answer);
bool bsp_answer_offers_nothing(const char *answer);
bsp_state bsp_parse_status(const char *answer);

/* The text's seconds, or 0. */
uint64_t bsp_parse_request_time(const char *answer);

/* The versions of an offer; what is missing leaves its text empty. */
void bsp_parse_offer(const char *answer, char (&version)[BSP_VERSION_SIZE],
                     char (&available)[BSP_VERSION_SIZE]);

const char *bsp_state_text(int state);

#endif
