/*
 * A scenario: a JSON file that tells what the gateway is and does.
 *   "scalars"  {"moduleName.0": V, ...}
 *   "tables"   {"swRestorePointTable": {"rows": [...], "created_by": [columns], "defaults": {...}}, ...}
 *   "data"     {name: {key: V}} for look-ups
 *   "rules"    behaviours
 *   "faults"   faults from the start
 */
#ifndef LAB_SCENARIO_H
#define LAB_SCENARIO_H

#include <string>

/* False, with the reasons told, when the file has a mistake. */
bool lab_scenario_load(const std::string &path);

#endif
