// An image file as the block device under the kernel's filesystem.
//
// Nothing reaches the file before image_commit: writes are kept in memory, in their order, and seen
// by later reads. So a program that fails, or only looks, leaves the image as it was, though a
// mount may repair what it finds. The file is locked as QEMU locks its images: an image that a
// running machine uses is refused, and no machine starts with it while a program has it open.
#pragma once

#include <stdint.h>

#include <string>

enum class image_access {
    read,   ///< image_commit is not allowed
    write,  ///< a lock that shares with nobody
};

/// Opens the image and makes it the block device; an empty text, or what went wrong. A size that is
/// no multiple of a sector loses its last bytes. Closes the one open before.
[[nodiscard]] std::string image_open(const std::string& path, image_access access);

/// Writes to the file what the block device was given, in order; an empty text, or what went wrong.
/// Room is taken first: when the host's filesystem is full, nothing of the image has changed.
[[nodiscard]] std::string image_commit();

/// Forgets what was not committed, closes the file and removes the block device.
void image_close();

/// The image's size in sectors; 0 when none is open.
uint64_t image_sectors();

/// Whether the block device was given anything that was not committed.
bool image_changed();

/// Copies a sector as the block device would; false on an error or beyond the end.
[[nodiscard]] bool image_sector(uint64_t sector, void* to);

/// Writes a sector as the block device would; false beyond the end.
[[nodiscard]] bool image_put_sector(uint64_t sector, const void* from);
