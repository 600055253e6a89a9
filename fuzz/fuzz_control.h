/* The control plane as its fuzz targets run it: started once by its own functions, between a configuration,
 * an operations server, a pool and a system that stand in for the real ones, in a file system of its own. */
#ifndef FUZZ_CONTROL_H
#define FUZZ_CONTROL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct converter_ctx;

struct fuzz_report {
    std::string topic;
    std::string body; /* as given: mostly with its terminator */
    bool retained;
};

/* How a piece of work came to its end. */
enum fuzz_end {
    FUZZ_RETURNED,
    FUZZ_EXITED, /* the process, or the child that stands for it, has left by exit */
    FUZZ_TRIPPED /* an assertion that bad answers are meant to reach has ended the process */
};

/* What the operations server was given, and the supervisor told. */
struct fuzz_server_side {
    std::vector<fuzz_report> reports;
    std::vector<std::string> late_answers; /* of children, through the pipe */
    std::vector<int32_t> told;             /* codes of the supervisor's handler */
    int publish_result;
};

extern fuzz_server_side fuzz_oam;

/* Set when a text with a quote, a backslash or a control character has been given, which some reports pass on
 * as it is. */
extern bool fuzz_text_needs_escapes;
void fuzz_note_text(const std::string &text);

/* Once, before the first input. With an interval of 0 the alarms wait for notifications. */
void fuzz_control_start(int argc, char **argv, uint32_t events_interval_s);

/* Before each input: the plane and its files as they stand after the start, nothing recorded, and these
 * choices.
 */
void fuzz_control_reset(const uint8_t *choices, size_t size);

converter_ctx *fuzz_control_ctx();

/* Runs work of the daemon: forks, programs, waits and exits in it are those of the stand-ins. */
fuzz_end fuzz_control_run(const std::function<void()> &work);

/* Inside such work: a message of the server, as the delivery thread hands it over; and all jobs that wait for
 * a thread of the pool. */
void fuzz_control_deliver(const std::string &topic, const std::string &text);
void fuzz_control_run_jobs();
bool fuzz_control_is_subscribed(const std::string &topic);

/* The lines of an input up to its first zero, and the choices behind that. */
struct fuzz_parts {
    std::vector<std::string> lines;
    const uint8_t *choices;
    size_t choices_size;
};

fuzz_parts fuzz_split(const uint8_t *data, size_t size);

/* One whole input: the plane anew with its choices, then the work, which leaves no descriptor open. Returns
 * 0, what a target returns. */
int fuzz_control_input(const uint8_t *data, size_t size, const std::function<void(const fuzz_parts &)> &work);

/* The same for services: what they have reported holds the check, no child has answered late, and their stop
 * comes to its end. */
int fuzz_control_service(const uint8_t *data, size_t size,
                         const std::function<void(const fuzz_parts &)> &work,
                         const std::function<void(const fuzz_report &)> &check,
                         const std::function<void()> &stop);

/* True for a text with its terminator and nothing behind it, which is one JSON object. */
bool fuzz_is_terminated_json(const std::string &body);

#endif
