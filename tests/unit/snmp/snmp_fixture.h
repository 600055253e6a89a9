/* The client's context with an open session to the stand-in gateway, and answers that no agent gives. */
#ifndef SNMP_FIXTURE_H
#define SNMP_FIXTURE_H

#include "config/captured_log.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "lab_gateway.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

/* As the control plane opens its session. */
void snmp_client_open(converter_ctx *ctx, const std::string &address);
void snmp_client_close(converter_ctx *ctx);

/* Takes the place of the exchange with the agent while it exists. */
class made_answer
{
  public:
    /* An answer with one variable, moduleName.0, of any type. */
    made_answer(uint8_t type, std::string_view bytes);
    /* No answer, with this status of the library. */
    explicit made_answer(int status);
    ~made_answer();
    made_answer(const made_answer &) = delete;
    made_answer &operator=(const made_answer &) = delete;

    int status;
    uint8_t type = 0;
    std::string bytes;
    size_t name_length = 0; /* 0: that of the name */
};

/* A call into a library whose n-th use from now on gives nothing. */
class failing_call
{
  public:
    explicit failing_call(const char *name, int successes_before = 0);
    ~failing_call();
    failing_call(const failing_call &) = delete;
    failing_call &operator=(const failing_call &) = delete;
};

/* Calls into a library of the same names, with something to do before each. */
class observed_call
{
  public:
    observed_call(const char *name, std::function<void()> before);
    ~observed_call();
    observed_call(const observed_call &) = delete;
    observed_call &operator=(const observed_call &) = delete;
};

class snmp_client : public testing::Test
{
  protected:
    snmp_client();
    ~snmp_client() override;

    captured_log log;
    converter_ctx ctx{};
};

/* The lines below TRACE, joined by "; ". */
std::string told(const log_view &log);

/* The dotted name that the last read left. */
std::string last_name(const converter_ctx &ctx);

#endif
