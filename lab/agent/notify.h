/* Notifications to the address where a client listens for them. */
#ifndef LAB_NOTIFY_H
#define LAB_NOTIFY_H

#include <string>

#include "evaluate.h"

/* "udp:127.0.0.1:162"; an empty text drops all notifications. */
void lab_notify_to(const std::string &address, const std::string &community);
void lab_notify_to(const std::string &address);
/* A name or dotted numbers of a notification, or an object as the behaviours tell; false if it was not sent.
 */
bool lab_notify(json_object *what, const lab_scope &scope);

#endif
