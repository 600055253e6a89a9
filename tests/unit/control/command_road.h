/* A request through the dispatcher. */
#ifndef COMMAND_ROAD_H
#define COMMAND_ROAD_H

#include "control/control_neighbours.h"
#include "converter/control/bridge_cmd.h"

static constexpr const char *COMMANDS_TOPIC = "api/v1/gateway/commands";

/* Of no row. */
static constexpr const char *NO_COMMAND = "isAnyoneThere";

class CommandRoad : public ControlTest
{
  protected:
    /* The answers to this payload alone; `logged` is what was told of it. */
    std::vector<std::string> send(const std::string &payload)
    {
        const size_t before = mqtt.publishes().size();
        const log_view view = log.from_here();
        bridge_cmd_worker(ctx, COMMANDS_TOPIC, payload.c_str());
        logged = view.lines();
        complaints = view.complaints();
        std::vector<std::string> answers = published_on(COMMANDS_TOPIC);
        answers.erase(answers.begin(), answers.begin() + static_cast<std::ptrdiff_t>(before));
        return answers;
    }

    std::vector<std::string> command(const std::string &name, const std::string &params = "{}")
    {
        return send(
            join({R"({"command":")", name, R"(","requestId":7,"params":)", params, R"(,"mac":"M"})"}));
    }

    /* The answer to a command() whose handler produced this; without a text, none. */
    static std::string answer(const std::string &response)
    {
        const std::string member = response.empty() ? "" : join({R"(,"response":)", response});
        return terminated(join({R"({"mac":"M","requestId":7)", member, "}"}));
    }

    bool was_logged(const std::string &line) const
    {
        return std::find(logged.begin(), logged.end(), line) != logged.end();
    }

    std::vector<std::string> logged;
    std::vector<std::string> complaints;
};

#endif
