// The files of the journal, read from a disk image that is not changed.
#pragma once

#include <string>

#include "tools/audit/journal.h"

enum class journal_found_t : uint8_t {
    whole,
    none,        ///< no volume, or no folder of records on it
    unreadable,  ///< no image, a volume that does not mount, or a file that cannot be read
};

/// Reads every file of the folder "/causal" of the volume on `image`; unless that is whole, a line
/// on stderr says why not.
[[nodiscard]] journal_found_t read_journal_files(const std::string& image, files_t* files);
