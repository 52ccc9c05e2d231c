// What the file commands share: options, names, error lines, reading in pieces. Private to
// kernel/apps/cmd_files/.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "kernel/core/heap_ptr.h"
#include "kernel/fs/overlay.h"

constexpr uint32_t FILE_PIECE_BYTES = 3584;  ///< whole sectors, too few to be recorded by the heap

/// What a command line asks for beside names.
struct file_options_t {
    uint32_t flags;   ///< bit n: the letter 'a' + n was given
    uint32_t number;  ///< of the letter that takes one
    int first;        ///< index of the first name

    bool has(char letter) const { return (flags & 1u << (letter - 'a')) != 0; }
};

/// Takes the options of a command whose letters are `letters`; one followed by ":" takes a number,
/// which may also stand alone ("-5"). "--" ends the options. False after the `usage` line, when an
/// option is unknown or there are fewer than `names` names.
bool file_options(int argc, char** argv, const char* letters, int names, const char* usage,
                  file_options_t* out);

/// A name as typed, and the path that it means.
struct file_name_t {
    const char* typed;
    char path[PATH_BYTES];  ///< absolute and normal

    /// Where a write to `path` goes.
    vorn_fs_route_t route() const;
};

/// Prints "COMMAND: NAME: why"; always false.
bool file_error(const char* command, const char* name, int error);

/// Makes the path of `typed`; false after the error's line.
bool file_name(const char* command, const char* typed, file_name_t* out);

/// Reads an open file from `offset` on and hands `take` piece after piece until that returns
/// false; false after the error's line.
template <typename F>
bool file_read_from(const char* command, const overlay_file_t& file, uint32_t offset, F&& take) {
    const auto piece = heap_ptr<uint8_t>::make(FILE_PIECE_BYTES);
    if (!piece)
        return file_error(command, file.path, OVERLAY_NO_MEMORY);
    for (;;) {
        const int count = overlay_read(&file, piece.get(), offset, FILE_PIECE_BYTES);
        if (count < 0)
            return file_error(command, file.path, count);
        if (count == 0)
            return true;
        const auto length = static_cast<uint32_t>(count);
        if (!take(std::span<const uint8_t>(piece.get(), length)))
            return true;
        offset += length;
    }
}

/// Opens the file `typed`; false after the error's line.
bool file_open(const char* command, const char* typed, overlay_file_t* out);

/// file_read_from the start of the file `typed`.
template <typename F>
bool file_read(const char* command, const char* typed, F&& take) {
    overlay_file_t file;
    return file_open(command, typed, &file) && file_read_from(command, file, 0, take);
}

/// Shows bytes of a file, unlogged.
void file_show(std::span<const uint8_t> bytes);
