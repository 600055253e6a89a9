/* The one context of the control plane, passed as `ctx` to every function of it. bridge_ctrl_conv owns the
 * record; the modules reach the members that their headers name. */
#ifndef BRIDGE_CTRL_CTX_H
#define BRIDGE_CTRL_CTX_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>
#include <pthread.h>

struct thpool;

/* Code 1 asks the supervisor for a restart of the control plane. */
using bridge_ctrl_handler_t = void (*)(int32_t code, void *context);

struct converter_ctx {
    pthread_mutex_t mutex; /* recursive: table walks hold it across single reads */
    pthread_cond_t events_cond;
    thpool *pool;
    bridge_ctrl_handler_t user_handler;
    netsnmp_session *ss; /* the normal session's structure */
    void *sess_handle;   /* the single-session handle of the normal session */
    netsnmp_session *trap_session;
    void *user_handler_arg;
    char *gw_mac; /* owned */

    char upload_name[256];
    uint8_t *upload_chunk; /* owned; non-null while a transaction is open */
    size_t upload_chunk_len;
    bool upload_is_modem_fw;
    std::atomic<bool> wm_install_running;

    oid last_oid[MAX_OID_LEN]; /* of the last variable that a read consumed; under the mutex */
    size_t last_oid_len;

    std::atomic<int32_t> last_sw_cmd; /* 0 none, 1 install, 2 upgrade, 3 local upgrade */
    std::atomic<int64_t> last_sw_req_id;
    bool bsp_poll_running;

    std::atomic<int32_t> ssh_pid; /* -1 when free, like the four below */
    std::atomic<int32_t> stream_id;
    std::atomic<int32_t> fetch_id;
    std::atomic<int32_t> execute_id;
    std::atomic<int32_t> watch_pid;

    int fileops_async_pipe; /* -1 when closed */
    std::atomic<bool> pipe_watch_thr_running;

    std::atomic<bool> mqtt_ready;   /* the OA&M side is up */
    std::atomic<bool> snmp_ready;   /* the agent session is open */
    std::atomic<bool> ctrl_running; /* from init to deinit; ends the event worker */
    std::atomic<bool> event_thr_running;
    bool event_pending; /* the event worker's own */
    std::atomic<bool> ctx_inited;
    std::atomic<bool> log_retrieval_running;
    std::atomic<bool> reboot_pending;
};

/* On every processor: a forked child must not find the lock of one taken. */
static_assert(std::atomic<int64_t>::is_always_lock_free);

/* Holds the context mutex for a scope. */
class ctx_guard
{
  public:
    explicit ctx_guard(converter_ctx *ctx) : ctx_(ctx)
    {
        pthread_mutex_lock(&ctx_->mutex);
    }
    ~ctx_guard()
    {
        pthread_mutex_unlock(&ctx_->mutex);
    }
    ctx_guard(const ctx_guard &) = delete;
    ctx_guard &operator=(const ctx_guard &) = delete;

  private:
    converter_ctx *ctx_;
};

#endif
