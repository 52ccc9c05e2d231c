// An audit for people and for programs, on standard output.
#pragma once

#include "tools/audit/journal.h"

/// What was found, the verdict, and what the verdict covers.
void print_report(const audit_t& audit);

/// The same as one JSON object on one line (RFC 8259).
void print_json(const audit_t& audit);
