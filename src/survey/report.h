// The survey's findings as one JSON document or a table for a person, and
// the status a monitoring system acts on.
#ifndef LANPROBE_SURVEY_REPORT_H
#define LANPROBE_SURVEY_REPORT_H

#include <stdio.h>

#include "survey/survey_run.h"
#include "survey/verdict.h"

struct SurveyView {
    const Survey *survey;
    const char *bridge;
    const uint8_t *own_macs;  // 6 bytes each: the bridge's and its ports'
    int n_own;
    const Allowlist *allow;
};

// CRITICAL: a rogue server offering an address in the router's own network,
// or another host answering for the router's address.  WARNING: any other
// rogue server (another private network, or upstream space: a WAN cable).
// OK otherwise.
SurveyStatus port_status(const SurveyView &v, const PortProbe &p);
SurveyStatus survey_status(const SurveyView &v);

// The whole document, newline-terminated; NULL when json-c cannot allocate.
// The caller frees it.
char *survey_json(const SurveyView &v);
void print_table(FILE *out, const SurveyView &v);

#endif
