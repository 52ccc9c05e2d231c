// What the disk commands share: names, entries, options, reading in pieces. Private to
// kernel/apps/cmd_disk/.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/apps/cmd_disk.h"
#include "kernel/apps/shell.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/sys_stat.h"

constexpr uint32_t DISK_PIECE_BYTES = 4096;
/// Of a copy: each piece costs the device a request for the data and a few for what points to them.
constexpr uint32_t DISK_COPY_BYTES = 65536;

/// An entry of the volume and where it is.
struct disk_entry_t {
    char path[SHELL_PATH_BYTES];
    struct sys_stat stat;
};

constexpr bool disk_is_directory(const disk_entry_t& entry) {
    return entry.stat.type == SYS_STAT_DIRECTORY;
}

/// Whether a volume is mounted; prints "command: no disk" or that the disk holds no volume.
[[nodiscard]] bool disk_ready(const char* command);

/// Prints "command: name: what".
void disk_complain(const char* command, const char* name, const char* what);

/// The path that a name means; false after a line when it is empty or too long for the volume.
[[nodiscard]] bool disk_name(const char* command, const char* name, char path[SHELL_PATH_BYTES]);

/// The entry that a name means; false after a line when there is none.
[[nodiscard]] bool disk_find(const char* command, const char* name, disk_entry_t* entry);

/// disk_find of a file; false after a line for a directory, too.
[[nodiscard]] bool disk_find_file(const char* command, const char* name, disk_entry_t* entry);

/// Whether there is an entry at `path`, which is filled in.
[[nodiscard]] bool disk_look(const char* path, disk_entry_t* entry);

/// The last component of a path; "" for the root.
const char* disk_base_name(const char* path);

/// Why a change at `path` failed, as far as the volume tells it afterwards.
const char* disk_why(const char* path);

/// Appends to the file `inode` as long as `path` names it: the bytes appended, fewer than `len`
/// when something is wrong.
[[nodiscard]] uint32_t disk_append(const char* path, int inode, const uint8_t* bytes, uint32_t len);

/// Why disk_append stored less, as far as the volume tells it afterwards.
const char* disk_append_why(const char* path, int inode);

/// The letters of `allowed` that stand in front of the names as "-ab -c", one bit each in the order
/// of `allowed`; `*first` becomes the first name ("--" ends the letters). False for another letter.
[[nodiscard]] bool disk_options(int argc, char** argv, const char* allowed, uint32_t* set,
                                int* first);

/// Reads a number of bytes such as "512", "64K" or "8M".
[[nodiscard]] bool disk_parse_size(const char* text, uint32_t* bytes);

/// A file read in pieces. The file may change meanwhile: it then ends where the volume says; one
/// that was removed or replaced is not read on.
class disk_reader_t {
public:
    /// Begins a file, with a buffer of `piece` bytes unless there is one already. False after a
    /// line when there is no memory.
    [[nodiscard]] bool open(const char* command, const disk_entry_t& entry,
                            uint32_t piece = DISK_PIECE_BYTES);

    /// Reads on from `offset`.
    void seek(uint32_t offset) { offset_ = offset; }

    /// The next piece, of `most` bytes at most: its length, 0 at the end, -1 after a line when the
    /// disk fails or the file is gone.
    [[nodiscard]] int next(uint32_t most = UINT32_MAX);

    const uint8_t* data() const { return buffer_.get(); }

private:
    heap_ptr<uint8_t> buffer_;
    uint32_t size_ = 0;
    const char* command_ = nullptr;
    const disk_entry_t* entry_ = nullptr;
    uint32_t offset_ = 0;
};

/// Contents on their way to the console. What does not end with a line feed gets one, so that the
/// prompt stands on a line of its own.
class disk_output_t {
public:
    void write(const uint8_t* bytes, uint32_t len);
    void end();

private:
    uint8_t last_ = '\n';
};

// --- Directories ---------------------------------------------------------------------------------

/// The names in a directory, sorted. None is empty.
struct disk_listing_t {
    heap_ptr<char> text;
    heap_ptr<const char*> names;
    uint32_t count = 0;
};

/// Lists a directory; false after a line when that fails.
[[nodiscard]] bool disk_list(const char* command, const char* path, disk_listing_t* listing);

/// disk_look at `name` of a listing, in the directory whose path of `length` characters is in
/// entry->path; false, too, where the path would be too long. A damaged name, such as "..", leads
/// nowhere else.
[[nodiscard]] bool disk_look_in(size_t length, const char* name, disk_entry_t* entry);

/// An entry as a walk comes to it.
struct disk_visit_t {
    const disk_entry_t* entry;
    uint32_t depth;   ///< 0: where the walk began
    bool last;        ///< of its directory
    bool leaving;     ///< a directory once more, after all that is in it
    uint32_t blocks;  ///< leaving: of it and all below it
};

using disk_visit_fn = void (*)(const disk_visit_t& visit, void* context);

/// Deepest level of a walk: paths have 255 characters, a component and its "/" two at least.
constexpr uint32_t DISK_DEPTH_MAX = 128;

/// Visits `root` and all below it, a directory before and after what is in it. What cannot be read
/// gets a line and is left out.
void disk_walk(const char* command, const disk_entry_t& root, disk_visit_fn visit, void* context);
