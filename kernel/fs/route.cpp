#include "kernel/fs/route.h"

#include "kernel/core/string.h"

namespace {

constexpr const char RAM_ONLY[] = "/tmp";
constexpr size_t RAM_ONLY_LENGTH = sizeof RAM_ONLY - 1;

}  // namespace

vorn_fs_route_t vorn_route_for_write(const char* path) {
    if (path == nullptr || path[0] != '/')
        return VORN_ROUTE_RAM;
    if (strncmp(path, RAM_ONLY, RAM_ONLY_LENGTH) != 0)
        return VORN_ROUTE_BLOCK;
    const char after = path[RAM_ONLY_LENGTH];
    return after == '\0' || after == '/' ? VORN_ROUTE_RAM : VORN_ROUTE_BLOCK;
}
