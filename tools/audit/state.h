// What earlier audits saw: for each node key the highest segment and its root, kept in a text file
// outside the image. It shows what no check of the image alone can: a journal put back to an
// earlier state, or one whose newest segments were removed.
#pragma once

#include <string>

#include "tools/audit/journal.h"

/// Holds the audit against what `path` remembers and adds the faults it finds; a file that is not
/// there remembers nothing. False, with a line on stderr, when the file cannot be read.
[[nodiscard]] bool state_compare(const std::string& path, audit_t* audit);

/// Remembers what the audit saw, in place of what was known of its key. The file is replaced as a
/// whole. False, with a line on stderr, when it cannot be written.
[[nodiscard]] bool state_remember(const std::string& path, const audit_t& audit);
