// The files of the journal, read from a disk image that is not changed.
#pragma once

#include <string>

#include "tools/audit/journal.h"

/// Reads every file of the folder "/causal" of the volume on `image`. False, with a line on stderr,
/// when there is no image, no volume on it, or no such folder.
[[nodiscard]] bool read_journal_files(const std::string& image, files_t* files);
