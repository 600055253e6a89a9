/* The spine of the daemon: command line, start-up order, the stop signal, and the supervisor loop that
 * brings up the planes and keeps them up. The loop runs on the main thread; failures of other threads reach
 * it as flags, and only the loop acts on them. */
#ifndef MAIN_BRIDGE_H
#define MAIN_BRIDGE_H

#include <atomic>
#include <cstdint>
#include <mutex>

enum bridge_phase_result : int {
    PHASE_EXIT = 0,
    PHASE_RETRY = 1,
    PHASE_RESTART_CTRLPLANE = 2,
    PHASE_RESTART_DATAPLANE = 3,
    PHASE_CTRLPLANE_READY = 4,
    PHASE_DATAPLANE_READY = 5,
};

struct bridge_main_context {
    std::atomic<bool> running; /* cleared by the stop signal */
    std::atomic<bool> ctrlplane_started;
    std::atomic<bool> dataplane_started;
    std::atomic<bool> ns_connected;
    std::atomic<bool> geoloc_connected;
    std::atomic<bool> ctrlplane_restart_requested;
    std::atomic<bool> ns_restart_requested;
    std::atomic<bool> geoloc_restart_requested;
    std::atomic<bool> ctrlplane_restarting;
    std::mutex lock; /* guards the changes to the two control plane restart flags */
};

extern bridge_main_context bridge_main_ctx;

/* The whole program. Returns the exit status. */
int bridge_main(int argc, char **argv);

/* One run of each phase; the loop acts on the results. */
bridge_phase_result bridge_ctrlplane_phase();
bridge_phase_result bridge_dataplane_phase();
bridge_phase_result bridge_run_phase();

/* Runs passes over the three phases until one of them says PHASE_EXIT. */
void bridge_supervise();

/* Asks for a restart of both planes (codes 0 and 1). MQTT client threads and control plane threads. */
void bridge_on_connection_failed(int32_t code, void *context);

/* A send to the network server (code 0) or the geolocation server (code 1) failed. Data plane threads. */
void bridge_on_send_failed(int32_t code, void *context);

#endif
