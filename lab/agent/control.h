/*
 * The control port: TCP on 127.0.0.1, a JSON object a line, answered by a line {"ok": true, ...} or
 * {"ok": false, "error": text}. A line is a step of the behaviours, or one of
 *   {"get": "name.0"} or {"get": [names]}   "values": by name, null for what is not there
 *   {"table": "ifTable"}                    "rows": each with its "index"
 *   {"log": "sets"} or {"log": "all"}       "log": requests in order; with "clear": true emptied after
 *   {"list_faults": true}                   "faults"
 *   {"problems": true}                      "problems": mistakes of the scenario so far
 *   {"waiting": true}                       "waiting": number of behaviours under way
 */
#ifndef LAB_CONTROL_H
#define LAB_CONTROL_H

/* Port 0 takes any free one. Returns the port, or -1 with the reason told. */
int lab_control_open(int port);
void lab_control_close();

#endif
