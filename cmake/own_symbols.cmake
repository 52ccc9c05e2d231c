# The kernel's own functions whose names the C library also has carry the prefix vorn_ in host
# programs. VORN_OWN_SYMBOLS lists them for objcopy. VORN_OWN_NAMES is included before every test
# source, so that the kernel's header declares them under those names.
set(VORN_OWN_SYMBOLS ${CMAKE_SOURCE_DIR}/tests/machine/own_symbols.txt)
set(VORN_OWN_NAMES ${CMAKE_BINARY_DIR}/own_symbols.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VORN_OWN_SYMBOLS})
file(STRINGS ${VORN_OWN_SYMBOLS} lines)
string(REGEX REPLACE "([a-z]+) ([a-z_]+);?" "#define \\1 \\2\n" defines "${lines}")
string(REGEX REPLACE "([a-z]+) ([a-z_]+);?" "#undef \\1\n" undefines "${lines}")
file(CONFIGURE OUTPUT ${VORN_OWN_NAMES} CONTENT "#pragma once
#include <stdlib.h>
#include <string.h>
${defines}#include \"kernel/core/string.h\"
${undefines}")
