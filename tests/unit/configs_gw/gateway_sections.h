/* The walk over the sections, among stand-ins for the agent and the scripts. */
#ifndef GATEWAY_SECTIONS_H
#define GATEWAY_SECTIONS_H

#include "config/captured_log.h"
#include "configs_gw/counted_waits.h"
#include "configs_gw/fake_modem.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <gtest/gtest.h>
#include <string>

struct section_outcome {
    int result;
    std::string reply; /* as text */
};

/* What the scripts' items result in. */
extern int scripts_result;

/* Apply or read a document's part, given as text. */
section_outcome write_sections(const std::string &content);
section_outcome read_sections();

class GatewaySections : public testing::Test
{
  protected:
    GatewaySections();

    captured_log log;
};

#endif
