/*
 * What the gateway does by itself, as data. A rule is an object of one trigger and steps:
 *   "on_set": "utilPingExecute.0"   the object was written; "wmApn.*" means any instance
 *   "on_get": "wmReadPdpProfile.0"  the object was read
 *   "on_start": true                the agent is up
 *   "when": {text: text}            only when the expanded texts are equal
 *   "do": [steps]
 * The first rule that fits runs. A rule that is triggered again while it waits starts anew.
 *
 * Steps, each an object named by its first key here:
 *   {"set": {"name.0": V, ...}}
 *   {"append_row": "table", "row": {column: V, ...}}
 *   {"put_rows": "table", "rows": [row, ...]}            in place of all rows
 *   {"put_row": "table", "index": V, "row": {...}}       columns that are not named stay
 *   {"remove_rows": "table", "where": {column: V}, "close_gap": true}, or with "index": V
 *   {"remove": "name.0"}                                 the instance is gone
 *   {"wait_ms": V}
 *   {"count_down": "name.0", "from": V, "every_ms": V}   to 0; the next step comes after
 *   {"sequence": "name.0", "values": [V, ...], "every_ms": V}
 *   {"if": {text: text}, "then": [steps], "else": [steps]}
 *   {"raise": "alarm", "id": V, "severity": V, "text": V}  or "fault"; with "notify": false without
 * notification
 *   {"clear": "alarm", "id": V}                          with "remove": true the row goes
 *   {"notify": "hmAlarmNotification"}, or {"notify": {"oid": ..., "form": "inform", "variables": [[name,
 * V]]}}; with "raw": true the variables alone
 *   {"trap_to": "udp:127.0.0.1:162"}
 *   {"silent": true}                                     the agent answers nothing until {"silent": false}
 *   {"faults": {...}}, {"clear_faults": true}
 *   {"rules": [rule, ...]}                               in front of those known
 *   {"data": {name: {key: V}}}                           for look-ups
 */
#ifndef LAB_BEHAVIOURS_H
#define LAB_BEHAVIOURS_H

#include "evaluate.h"

/* Puts rules in front of those known; false, and a problem told, for a bad one. */
bool lab_rules_add(json_object *rules);
/* Runs one step, or the start of one that waits. */
bool lab_step_run(json_object *step);
bool lab_step_is_known(json_object *step);

void lab_trigger_start();
void lab_trigger_set(const lab_oid &place);
void lab_trigger_get(const lab_oid &place);
/* Runs that are waiting. */
size_t lab_runs_waiting();

#endif
