/* The data plane's neighbours, replaced at link time: the MQTT manager records what it is asked and answers
 * from a script, and the configuration is a record that the test fills. */
#ifndef NEIGHBOURS_H
#define NEIGHBOURS_H

#include "common/bridge_config.h"
#include "mqtt/bridge_mqtt.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct published {
    bridge_mqtt_endpoint_t endpoint;
    std::string topic;
    std::string body;
    bool retained;
};

class mqtt_script
{
  public:
    void reset();

    /* What the test sets before traffic flows. */
    std::set<bridge_mqtt_endpoint_t> enabled;
    int connect_result;
    int subscribe_result;
    int unsubscribe_result;
    uint32_t unsubscribed; /* the count that unsubscribing comes back with */
    int disconnect_result;
    std::atomic<int> publish_errno; /* what a publish leaves in errno; 0 leaves it alone */

    /* The results of the next publishes; 0 after them. */
    void results(std::initializer_list<int> next);

    /* Publishes wait until they are let go. */
    void hold();
    bool wait_for_held();
    void let_go();

    std::vector<published> publishes();

    /* "connect NS", "subscribe NS gateway/tx" and the like, in order. */
    std::vector<std::string> calls();

    bridge_mqtt_handler_t handler;
    void *handler_context;

    void note(std::string call);
    int publish(const published &message);

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<int> results_;
    std::vector<published> publishes_;
    std::vector<std::string> calls_;
    bool holding_ = false;
    bool held_ = false;
};

extern mqtt_script mqtt;
extern bridge_config_root configuration;

#endif
