/* The stand-in gateway's agent as a child process, one for all tests of a process, and its control port. It
 * begins without objects; a test puts what it reads. */
#ifndef LAB_GATEWAY_H
#define LAB_GATEWAY_H

#include "common/bridge_json_helpers.h"

#include <string>
#include <string_view>
#include <vector>

/* Starts the agent with its files in `folder`; false, after telling why, when it does not serve. */
bool lab_gateway_start(const std::string &folder);
void lab_gateway_stop();

/* "udp:127.0.0.1:40000" */
const std::string &lab_gateway_address();

/* One line of the control port, whose answer must be good. */
json_owned lab_gateway_do(std::string_view line);

/* An instance by its name, with a value in the form that scenarios have. */
void lab_gateway_put(std::string_view name, std::string_view value);
void lab_gateway_put_rows(std::string_view table, std::string_view rows);
void lab_gateway_fault(std::string_view name, std::string_view fault);

void lab_gateway_remove(std::string_view name);

/* Takes away all that was put, every fault and what the log holds. */
void lab_gateway_forget();

/* What the agent received since the log was emptied: `get ["moduleName.0"]`, `set [["wmApn.1","x"]] done`.
 * The outcome stands where it is none of the ordinary. */
std::vector<std::string> lab_gateway_requests();
void lab_gateway_clear_log();

#endif
