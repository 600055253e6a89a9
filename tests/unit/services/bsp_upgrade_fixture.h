/* The upgrade service in its stages: off, initialised, and started with nothing to do yet. */
#ifndef BSP_UPGRADE_FIXTURE_H
#define BSP_UPGRADE_FIXTURE_H

#include "converter/control/bridge_bsp_upgrade.h"

#include "control/control_neighbours.h"
#include "services/service_calls.h"
#include "thread_pool/thpool.h"

#include <cstring>
#include <string>
#include <vector>

inline constexpr const char *QUEUE = "/bsp_upgrade_mq";
inline constexpr size_t MESSAGE_SIZE = 48;
inline constexpr size_t QUEUE_LENGTH = 10;
inline constexpr const char *DESIRED = "gateway/mac/0016c001f1500a0b/firmware/desired";
inline constexpr const char *REPORTED = "gateway/mac/0016c001f1500a0b/firmware/reported";
inline constexpr const char *WAITING = "INFO BSP upgrade thread waiting for the next message";
inline constexpr const char *REQUEST = R"({"updateTs":2000000,"update":{"timestamp":3000}})";
inline constexpr const char *LOST = "WARN Warning: can't send message to bsp upgrade thread";
inline constexpr const char *DISPLACED =
    "WARN message queue /bsp_upgrade_mq is full at the stop: its oldest message is lost";
inline constexpr const char *GAVE_UP = "ERROR Exiting bsp upgrade thread";

inline constexpr int32_t EXIT = 1;
inline constexpr int32_t CODE_THREAD_ENDED = 4;

/* As it lies in the queue. */
inline std::string message_of(int32_t action)
{
    std::string text(MESSAGE_SIZE, '\0');
    memcpy(text.data(), &action, sizeof(action));
    return text;
}

inline std::string between(const std::string &text, const char *start, const char *end)
{
    const size_t place = text.find(start);
    if (place == std::string::npos)
        return "?";
    const size_t first = place + strlen(start);
    return text.substr(first, text.find(end, first) - first);
}

/* The report of a text as `reports` gives it. */
inline std::string whole(const std::string &changed, const std::string &installed, const std::string &text)
{
    const size_t mark = text.starts_with("+") ? 1 : 0;
    const size_t state = text.find('|');
    const size_t offer = text.rfind('|');
    return terminated(join({R"({"mac":"0016c001f1500a0b","lastStateUpdateTs":)", changed,
                            R"(,"content":{"version":")", text.substr(mark, state - mark), R"(","state":")",
                            text.substr(state + 1, offer - state - 1), R"(","lastFirmwareUpdateTs":)",
                            installed, R"(,"availableUpdates": [")", text.substr(offer + 1), R"("]}})"}));
}

/* Neither initialised nor started. */
class BspUpgradeOff : public ControlTest
{
  protected:
    BspUpgradeOff()
    {
        strcpy(configuration.generic.gw_mac, mac);
        timers.reset();
        utility.reset();
        set_answers();
        context.pool = thpool_init(2);
    }

    ~BspUpgradeOff() override
    {
        thpool_wait(context.pool);
        thpool_destroy(context.pool);
        EXPECT_FALSE(queue_exists(QUEUE));
    }

    static void set_answers()
    {
        utility.answer("-s", "idle");
        utility.answer("-t", "request time: 1000");
        utility.answer("-c", "from 1.0 to 1.1");
        utility.answer("-U", "accepted");
        utility.answer("-G", "accepted");
        agent.text("bspVersion.0", "1.0");
        agent.text("getAvailableBspUpgrade.0", "from 1.0 to 1.1");
    }

    /* Since `view`. */
    bool idle(long count = 1)
    {
        return wait_until([&] { return view.count(WAITING) >= count; });
    }

    static void deliver(const std::string &payload)
    {
        std::vector<uint8_t> bytes(payload.begin(), payload.end());
        bytes.reserve(1); /* an empty message has a place, too */
        mqtt.handler(DESIRED, mqtt.handler_context, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    /* Versions, states and offers that were reported, "version|state|offer"; "+" stands in front of one whose
     * install has just ended. */
    std::vector<std::string> reports()
    {
        std::vector<std::string> texts;
        const std::vector<published> all = mqtt.publishes();
        for (; seen_ < all.size(); seen_++) {
            const published &each = all[seen_];
            EXPECT_EQ(each.endpoint, BRIDGE_MQTT_EP_OAM);
            EXPECT_EQ(each.topic, REPORTED);
            EXPECT_TRUE(each.retained);
            const std::string &body = each.body;
            const std::string changed = between(body, R"("lastStateUpdateTs":)", ",");
            const std::string installed = between(body, R"("lastFirmwareUpdateTs":)", ",");
            EXPECT_TRUE(installed == "0" || installed == changed) << body;
            texts.push_back(join({installed != "0" ? "+" : "", between(body, R"("version":")", "\""), "|",
                                  between(body, R"("state":")", "\""), "|",
                                  between(body, R"("availableUpdates": [")", "\"]}}")}));
            EXPECT_EQ(body, whole(changed, installed, texts.back()));
        }
        return texts;
    }

    log_view view = log.from_here();

  private:
    size_t seen_ = 0;
};

/* For a process that has not made the lock yet. */
class BspUpgradeLockDeath : public testing::Test
{
  protected:
    BspUpgradeLockDeath()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    ~BspUpgradeLockDeath() override
    {
        GTEST_FLAG_SET(death_test_style, "fast");
    }

    converter_ctx context = {};
    converter_ctx *const ctx = &context;
};

/* Initialised. */
class BspUpgradeInited : public BspUpgradeOff
{
  protected:
    BspUpgradeInited()
    {
        EXPECT_EQ(bridge_bulk_upgrade_init(ctx), 0);
        view = log.from_here();
    }
    ~BspUpgradeInited() override
    {
        let_all_pass();
        bridge_bulk_upgrade_stop();
        bridge_bulk_upgrade_deinit();
    }
};

/* Started, waiting, with nothing reported, called or told yet. */
class BspUpgrade : public BspUpgradeInited
{
  protected:
    BspUpgrade()
    {
        utility.answer("-s", "scheduled"); /* the timer then knows what to send */
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        EXPECT_TRUE(idle());
        utility.answer("-s", "idle");
        forget();
    }
    ~BspUpgrade() override
    {
        utility.let_go();
    }

    void forget()
    {
        reports();
        timers.taken();
        utility.calls();
        agent.reset();
        agent.text("bspVersion.0", "1.1");
        agent.text("getAvailableBspUpgrade.0", "No BSP upgrade available");
        view = log.from_here();
    }

    void start_again()
    {
        bridge_bulk_upgrade_stop();
        bridge_bulk_upgrade_deinit();
        set_answers();
        bridge_bulk_upgrade_init(ctx);
        view = log.from_here();
        bridge_bulk_upgrade_start();
        EXPECT_TRUE(idle());
        forget();
    }

    void request(const std::string &text)
    {
        view = log.from_here();
        deliver(text);
        EXPECT_TRUE(idle());
    }

    void poll()
    {
        view = log.from_here();
        timers.expire();
        EXPECT_TRUE(idle());
    }
};

/* A process whose service threads are its own. */
class BspUpgradeDeath : public BspUpgrade
{
};

#endif
