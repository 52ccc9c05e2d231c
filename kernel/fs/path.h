// Paths as texts: what "." and ".." mean, and what lies above a path. Pure; any context.
#pragma once

#include <stddef.h>

constexpr size_t PATH_BYTES = 256;  ///< of an absolute path, with the terminator

/// Makes `path`, which begins with "/", the shortest path to the same place, in its own buffer: no
/// "." nor "..", no empty components, no "/" at the end. ".." at the root stays there.
void path_normalize(char* path);

/// Copies the directory that holds the normal path `path` ("/" for "/") into `out` of at least
/// PATH_BYTES; `path` fits there too.
void path_parent(const char* path, char* out);

/// The last component of a normal path; "" for "/".
const char* path_name(const char* path);

/// Appends the component `name` to the normal path in `path` of `size` bytes; false, with nothing
/// changed, when it does not fit.
[[nodiscard]] bool path_append(char* path, const char* name, size_t size);

/// Whether the normal path `path` lies below the directory `dir`.
bool path_is_below(const char* path, const char* dir);
