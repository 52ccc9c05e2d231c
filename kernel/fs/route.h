// Where a write goes: by the path as it was typed, before it is made absolute.
#pragma once

enum vorn_fs_route_t : int {
    VORN_ROUTE_RAM = 0,    ///< the RAM filesystem
    VORN_ROUTE_BLOCK = 1,  ///< VoFS
};

/// A null or relative path, "/tmp" and what begins with "/tmp/" go to the RAM filesystem, every
/// other absolute path to VoFS. Who writes to VoFS removes a RAM file of the same path afterwards,
/// because reading prefers the RAM filesystem. Any context.
vorn_fs_route_t vorn_route_for_write(const char* path);
