/* What --help prints. */
#ifndef LAB_HELP_H
#define LAB_HELP_H

static constexpr char lab_help[] = R"(Usage: lab_agent --scenario FILE [options]

The SNMP agent of a stand-in gateway: SNMPv2c on a port of this machine, with the objects, tables and
behaviours that a scenario tells. It reads the scenario and the MIB, nothing else, and writes no file. Once it
serves it prints one line, {"ready":true,"snmp":"udp:127.0.0.1:1161","control":40123}. SIGTERM and SIGINT end
it.

  --scenario FILE     the gateway, see below
  --mibs DIR          folder of the MIB; without it ../mibs beside the scenario's folder
  --listen ADDRESS    where it answers; without it udp:127.0.0.1:1161
  --community TEXT    other communities get no answer; without it public
  --trap-to ADDRESS   where notifications go, such as udp:127.0.0.1:1162; without it nowhere
  --control PORT      TCP port of 127.0.0.1 for the control; without it any free one
  --help              this text

SCENARIO, a JSON object:
  "scalars"  {"moduleName.0": V, ...}
  "tables"   {"swRestorePointTable": {"rows": [{column: V, ...}, ...]}, ...}; rows have the indices 1, 2, 3
             ... or their own "index": 4 or "192.0.2.1". "created_by": [columns] lets a client make a row by
             writing one of them; "defaults": {column: V} are the new row's other cells.
  "data"     {name: {key: V}} for look-ups
  "rules"    behaviours
  "faults"   objects that do not answer well
What is not in the scenario is not there: noSuchObject.

VALUES (V): a text or number takes the type of its object. Otherwise:
  {"type": "Counter64", "value": V}     another type than the MIB's. The types: INTEGER, OCTET STRING,
                                        BIT STRING, OBJECT IDENTIFIER, IpAddress, Counter32, Gauge32,
                                        TimeTicks, Opaque, UInteger32, Counter64, Float, Double
  {"hex": "c2ba0000"}, {"int32_le": [1, -2]}, {"float_be": -93.5}, {"fill": "x", "length": 40}   bytes
  {"live": V}                           computed anew at each read
  {"plus": [V, V]}, {"times": [V, V]}, {"look_up": name of data, "key": V, "default": V},
  {"ramp": {"from": V, "length": V}}    computed
Texts may refer: ${utilPingCount.0} what the object holds, ${value} what was written, ${index} the row it was
written to, ${rows:swRestorePointTable} a number of rows, ${uptime} hundredths of seconds,
${now:%Y-%m-%d} the local time.

RULES: {"on_set": "utilPingExecute.0", "when": {text: text}, "do": [steps]}, or "on_get", or "on_start": true.
"wmApn.*" means any row. The first rule that fits runs; triggered again while it waits, it starts anew.
STEPS:
  {"set": {"name.0": V, ...}}             {"remove": "name.0"}
  {"append_row": table, "row": {...}}     {"put_row": table, "index": V, "row": {...}}
  {"put_rows": table, "rows": [...]}      {"remove_rows": table, "where": {column: V}, "close_gap": true}
  {"wait_ms": V}                          {"count_down": "name.0", "from": V, "every_ms": V}
  {"sequence": "name.0", "values": [V, ...], "every_ms": V}
  {"if": {text: text}, "then": [steps], "else": [steps]}
  {"raise": "alarm", "id": V, "severity": V, "text": V}, {"clear": "alarm", "id": V}; or "fault";
                                          "notify": false sends nothing, "remove": true drops a cleared row
  {"notify": "hmAlarmNotification"}, or
  {"notify": {"oid": name, "form": "inform", "variables": [[name, V], ...]}};
                                          with "raw": true the variables alone
  {"trap_to": ADDRESS}, {"silent": true}, {"faults": {...}}, {"clear_faults": true}, {"rules": [...]},
  {"data": {...}}

FAULTS: {"hmAlarmDescriptionText.0": {"late_ms": 4000}, ...}, by instance or by object for all its instances:
  "late_ms": N, "silent": true, "error": "genErr", "exception": "noSuchInstance", "surplus": "name.0" (a
  variable that was not asked), "shorten": true (this variable and those behind it are left out), each with
  "on": "get" | "set" | "any", "after": N (spares N requests), "times": N (then it is gone).
null in place of the object takes the fault away.

CONTROL: a JSON object a line, answered by {"ok": true, ...} or {"ok": false, "error": text}. A line is a
step, or one of
  {"get": "name.0"} or {"get": [names]}   {"table": "ifTable"}
  {"log": "sets"} or {"log": "all"}       with "clear": true emptied after
  {"list_faults": true}                   {"problems": true}      {"waiting": true}
For example:
  printf '{"raise":"alarm","id":7,"severity":1,"text":"Door open"}\n' | nc -N 127.0.0.1 40123
)";

#endif
