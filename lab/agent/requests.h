/* The SNMP side: the port, access to the store through the agent library, and the log of what was asked. */
#ifndef LAB_REQUESTS_H
#define LAB_REQUESTS_H

#include <string>

#include "json_ref.h"

/* "udp:127.0.0.1:1161". False, with the reason told, if the port cannot be had. */
bool lab_requests_open(const std::string &address, const std::string &community);
void lab_requests_close();
/* While silent nothing is answered and nothing is changed. */
void lab_requests_silence(bool silent);

/* Every request since the start or the last clearing, at most the newest 20,000, oldest first. */
json_ref lab_requests_log(bool only_sets);
void lab_requests_log_clear();

#endif
