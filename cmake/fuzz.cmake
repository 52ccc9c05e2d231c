# Fuzz targets: the kernel's parsers of outside bytes as 32-bit host code under clang's libFuzzer,
# ASan and UBSan. Each target names the few kernel sources it needs, so that the build stays short.

set(VORN_FUZZ_FLAGS -m32 -O1 -g -fno-omit-frame-pointer -fno-sanitize-recover=all)

include(cmake/own_symbols.cmake)

# vorn_fuzz(NAME SOURCES...): build/fuzz/fuzz_NAME from tests/fuzz/fuzz_NAME.cpp and these sources,
# whose memcpy and so on carry the prefix vorn_ as in the unit tests.
function(vorn_fuzz name)
  add_library(${name}_raw STATIC ${ARGN})
  target_include_directories(${name}_raw PRIVATE ${CMAKE_SOURCE_DIR}/tests/machine ${CMAKE_SOURCE_DIR})
  target_compile_definitions(${name}_raw PRIVATE VORN_HOST=1)
  target_compile_options(${name}_raw PRIVATE ${VORN_FUZZ_FLAGS}
    -fsanitize=fuzzer-no-link,address,undefined
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-builtin)

  set(library ${CMAKE_BINARY_DIR}/lib${name}.a)
  add_custom_command(OUTPUT ${library}
    COMMAND objcopy --redefine-syms=${VORN_OWN_SYMBOLS} $<TARGET_FILE:${name}_raw> ${library}
    DEPENDS ${name}_raw ${VORN_OWN_SYMBOLS})
  add_custom_target(${name}_renamed DEPENDS ${library})

  add_executable(fuzz_${name} ${CMAKE_SOURCE_DIR}/tests/fuzz/fuzz_${name}.cpp)
  add_dependencies(fuzz_${name} ${name}_renamed)
  target_include_directories(fuzz_${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/machine ${CMAKE_SOURCE_DIR})
  target_compile_options(fuzz_${name} PRIVATE ${VORN_FUZZ_FLAGS} ${VORN_WARNINGS}
    -include ${VORN_OWN_NAMES} -fsanitize=fuzzer,address,undefined)
  target_link_options(fuzz_${name} PRIVATE -m32 -fsanitize=fuzzer,address,undefined)
  target_link_libraries(fuzz_${name} PRIVATE ${library})
endfunction()

file(GLOB VORN_STRING_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/kernel/core/string/*.cpp)
vorn_fuzz(parse ${VORN_STRING_SOURCES})
vorn_fuzz(line ${VORN_STRING_SOURCES}
  ${CMAKE_SOURCE_DIR}/kernel/drivers/keymap.cpp ${CMAKE_SOURCE_DIR}/kernel/drivers/serial_keys.cpp
  ${CMAKE_SOURCE_DIR}/kernel/apps/shell/history.cpp
  ${CMAKE_SOURCE_DIR}/kernel/apps/shell/line_editor.cpp)
file(GLOB VORN_VOFS_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/kernel/fs/blockfs/*.cpp)
vorn_fuzz(vofs ${VORN_STRING_SOURCES} ${VORN_VOFS_SOURCES})
file(GLOB VORN_VORSH_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/kernel/apps/vorsh/*.cpp)
list(FILTER VORN_VORSH_SOURCES EXCLUDE REGEX commands.cpp)
vorn_fuzz(vorsh ${VORN_STRING_SOURCES} ${VORN_VORSH_SOURCES})
vorn_fuzz(acpi ${VORN_STRING_SOURCES} ${CMAKE_SOURCE_DIR}/kernel/drivers/acpi/tables.cpp)
vorn_fuzz(journal ${VORN_STRING_SOURCES}
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/examine.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/format.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/lookup.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/merkle.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/proof.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/query.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/read.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/records.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/root.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/cjournal/verify.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/causal/hash.cpp
  ${CMAKE_SOURCE_DIR}/kernel/graph/causal_schema.cpp
  ${CMAKE_SOURCE_DIR}/kernel/core/noise/blake2s.cpp ${CMAKE_SOURCE_DIR}/kernel/core/noise/helpers.cpp)
vorn_fuzz(timeline ${VORN_STRING_SOURCES} ${CMAKE_SOURCE_DIR}/kernel/graph/timeline/format.cpp)
