/*
 * How an object answers when it does not answer well. A fault hangs on an instance ("wmPdpCid.2") or on all
 * instances of an object ("wmPdpCid"), is found by the instance that the answer would hold, and is an object
 * of "on"        "get", "set" or "any" (which it is when missing) "late_ms"   the answer comes that much
 * later "silent"    true: no answer "error"     an error status by name, such as "genErr" or "wrongValue"
 *   "exception" "noSuchObject", "noSuchInstance" or "endOfMibView" in place of the value
 *   "surplus"   name of an instance that the answer holds besides what was asked
 *   "shorten"   true: the answer lacks this variable and those behind it
 *   "after"     so many matching requests are spared first
 *   "times"     so many matching requests are hit, then the fault is gone
 */
#ifndef LAB_FAULTS_H
#define LAB_FAULTS_H

#include "names.h"

struct lab_fault {
    bool on_get = true;
    bool on_set = true;
    long late_ms = 0;
    bool silent = false;
    int error = 0;
    u_char exception = 0;
    lab_oid surplus;
    bool shorten = false;
    long after = 0;
    long times = -1;
};

/* Sets the faults named in the object; a null takes one away. False, and a problem told, for a bad one. */
bool lab_faults_merge(json_object *json);
void lab_faults_clear();
json_ref lab_faults_list();

/* The fault that hits this instance in this request, and counts it. */
std::optional<lab_fault> lab_fault_hit(const lab_oid &place, bool is_set);

#endif
