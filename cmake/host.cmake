# Unit tests: the kernel's own sources as 32-bit host code under ASan and UBSan, linked with the
# fake machine of tests/machine, whose arch/x86 headers stand before the real ones.
#
# Our memcpy, strlen and so on must be the ones that run and are tested, so the kernel library's
# symbols of those names get the prefix vorn_ after compilation.

set(GTEST_SOURCES /usr/src/googletest/googletest)
# The kernel's sources are optimised a little, so that inlining shows what it hides; the tests are
# not, which halves the time that they take to compile.
set(VORN_HOST_FLAGS -m32 -g1 -fno-omit-frame-pointer
  -fsanitize=address,undefined -fno-sanitize-recover=all)

add_library(gtest32 STATIC ${GTEST_SOURCES}/src/gtest-all.cc ${GTEST_SOURCES}/src/gtest_main.cc)
target_include_directories(gtest32 SYSTEM PUBLIC ${GTEST_SOURCES}/include PRIVATE ${GTEST_SOURCES})
target_compile_options(gtest32 PUBLIC ${VORN_HOST_FLAGS})
target_link_options(gtest32 PUBLIC -m32 -fsanitize=address,undefined)

add_library(vorn_host_flags INTERFACE)
target_include_directories(vorn_host_flags INTERFACE
  ${CMAKE_SOURCE_DIR}/tests/machine ${CMAKE_SOURCE_DIR})
target_compile_definitions(vorn_host_flags INTERFACE VORN_HOST=1)
target_compile_options(vorn_host_flags INTERFACE ${VORN_HOST_FLAGS} ${VORN_WARNINGS}
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)

add_library(vorn_host_raw STATIC ${VORN_KERNEL_SOURCES} ${CMAKE_SOURCE_DIR}/arch/x86/hal.cpp)
target_link_libraries(vorn_host_raw PRIVATE vorn_host_flags)
target_compile_options(vorn_host_raw PRIVATE -O1
  -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-builtin -fno-tree-loop-distribute-patterns)

include(cmake/own_symbols.cmake)
set(VORN_HOST_LIB ${CMAKE_BINARY_DIR}/libvorn_host.a)
add_custom_command(OUTPUT ${VORN_HOST_LIB}
  COMMAND objcopy --redefine-syms=${VORN_OWN_SYMBOLS} $<TARGET_FILE:vorn_host_raw> ${VORN_HOST_LIB}
  DEPENDS vorn_host_raw ${VORN_OWN_SYMBOLS})
add_custom_target(vorn_host_renamed DEPENDS ${VORN_HOST_LIB})

file(GLOB VORN_MACHINE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/machine/*.cpp)
file(GLOB_RECURSE VORN_UNIT_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/unit/*.cpp)
# What host tools decide is proved here as well; what moves their bytes is not.
set(VORN_TOOL_SOURCES ${CMAKE_SOURCE_DIR}/tools/audit/journal.cpp
  ${CMAKE_SOURCE_DIR}/tools/audit/segment.cpp ${CMAKE_SOURCE_DIR}/tools/audit/state.cpp)
add_executable(vorn_unit ${VORN_UNIT_SOURCES} ${VORN_MACHINE_SOURCES} ${VORN_TOOL_SOURCES})
add_dependencies(vorn_unit vorn_host_renamed)
# Before every test source: our names beside the C library's, and the test library, compiled once.
target_precompile_headers(vorn_unit PRIVATE
  ${VORN_OWN_NAMES} <gtest/gtest.h>)
target_link_libraries(vorn_unit PRIVATE vorn_host_flags gtest32 ${VORN_HOST_LIB})
# A test may have an allocation of the kernel fail.
target_link_options(vorn_unit PRIVATE -Wl,--wrap=_Z7kmallocj)
