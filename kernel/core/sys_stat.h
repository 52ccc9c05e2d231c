// What a filesystem says of a file or directory; the record of the stat system call.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint32_t SYS_STAT_FILE = 1;
constexpr uint32_t SYS_STAT_DIRECTORY = 2;

struct sys_stat {
    uint32_t size;    ///< bytes; 0 for a directory
    uint32_t type;    ///< SYS_STAT_FILE or SYS_STAT_DIRECTORY
    uint32_t inode;   ///< its number in its filesystem
    uint32_t blocks;  ///< blocks of 512 bytes in use
    uint32_t ctime_ticks;
    uint32_t mtime_ticks;
    uint32_t flags;  ///< bit 0: read-only
};
static_assert(sizeof(sys_stat) == 28);
static_assert(offsetof(sys_stat, flags) == 24);
