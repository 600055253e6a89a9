/* What the converter starts and asks, replaced at link time: the services, the MQTT manager and the SNMP
 * library. Every call is recorded in order and answered by a script. */
#ifndef CONTROL_SERVICES_H
#define CONTROL_SERVICES_H

#include "config/captured_log.h"
#include "control/failing_calls.h"
#include "converter/control/bridge_ctrl_conv.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "mqtt/bridge_mqtt.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <string>
#include <vector>

/* Call names are those of the functions without "bridge_", with their arguments behind. */
class control_services
{
  public:
    void reset();

    /* The result of every such call from now on; of others it is 0. */
    void script(const std::string &call, int result);

    /* Runs within such a call. */
    void on(const std::string &call, std::function<void()> action);

    /* The calls since the last call of this. */
    std::vector<std::string> take();

    /* For the stand-ins. */
    int answer(const std::string &call);

    converter_ctx *ctx = nullptr; /* as the first service got it */
    bridge_mqtt_handler_t handler = nullptr;
    void *handler_context = nullptr;
    uint32_t unsubscribed = 1;   /* the count that unsubscribing comes back with */
    netsnmp_session normal = {}; /* as opened */
    netsnmp_session trap = {};   /* as added */

  private:
    std::mutex mutex_;
    std::map<std::string, int> results_;
    std::map<std::string, std::function<void()>> actions_;
    std::vector<std::string> calls_;
};

extern control_services services;

static constexpr const char *SERVICE_TOPICS[] = {
    "api/v1/gateway/commands",
    "api/v1/gateway/configuration",
    "api/v1/gateway/configuration/request",
    "api/v1/gateway/events",
};

class CtrlConvDeath : public testing::Test
{
  protected:
    CtrlConvDeath();

    static void told(int32_t, void *)
    {
    }

    static int init(const char *mac = "0016c001f1500a0b")
    {
        return bridge_ctrlplane_init(mac, told, &services);
    }

    static int connect_agent(uint32_t interval = 60)
    {
        return bridge_ctrlplane_connect_agent("udp:127.0.0.1:161", "public", nullptr, "udp:162", interval);
    }

    captured_log log;
};

class CtrlConv : public CtrlConvDeath
{
  protected:
    /* Takes down whatever the test has left up. */
    ~CtrlConv() override;

    /* Everything up, and the calls of it forgotten. */
    void start();
};

#endif
