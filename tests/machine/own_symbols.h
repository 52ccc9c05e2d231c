// The kernel's own functions whose names the C library also has. In the host build they carry the
// prefix vorn_ (own_symbols.txt): a test that means ours calls vorn_strlen and so on.
//
// The build includes this before every test source, so that the kernel's header declares them under
// those names and does not clash with the C library's.
#pragma once

#include <stdlib.h>
#include <string.h>

#define memset vorn_memset
#define memcpy vorn_memcpy
#define memmove vorn_memmove
#define memcmp vorn_memcmp
#define strlen vorn_strlen
#define strcmp vorn_strcmp
#define strncmp vorn_strncmp
#define strcpy vorn_strcpy
#define strncpy vorn_strncpy
#define strcat vorn_strcat
#define strchr vorn_strchr
#define strrchr vorn_strrchr
#define strstr vorn_strstr
#define atoi vorn_atoi
#define strerror vorn_strerror

#include "kernel/core/string.h"

#undef memset
#undef memcpy
#undef memmove
#undef memcmp
#undef strlen
#undef strcmp
#undef strncmp
#undef strcpy
#undef strncpy
#undef strcat
#undef strchr
#undef strrchr
#undef strstr
#undef atoi
#undef strerror
