# Host programs. One of a single file stands in tools/<name>.cpp and becomes build/tools/<name>; one
# that works on disk images has a folder, is 32-bit code, and links the kernel's own sources.

file(GLOB VORN_TOOLS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/*.cpp)
foreach(source ${VORN_TOOLS})
  cmake_path(GET source STEM name)
  add_executable(${name} ${source})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
  target_compile_options(${name} PRIVATE -O2 -g ${VORN_WARNINGS})
endforeach()

# The kernel's sources that host programs use, optimised as in the image. Their memcpy and its kin
# get the prefix vorn_, as in the unit tests; from the archive a program takes what it needs.
include(cmake/crypto.cmake)
set(VORN_TOOL_ARCH -m32 -march=i686 -O2 -g ${VORN_WARNINGS})
file(GLOB VORN_HOSTED_SOURCES CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/kernel/core/string/*.cpp ${CMAKE_SOURCE_DIR}/kernel/fs/blockfs/*.cpp)
set(VORN_JOURNAL_CODEC ${CMAKE_SOURCE_DIR}/kernel/graph)
list(APPEND VORN_HOSTED_SOURCES
  ${VORN_JOURNAL_CODEC}/cjournal/format.cpp ${VORN_JOURNAL_CODEC}/cjournal/merkle.cpp
  ${VORN_JOURNAL_CODEC}/cjournal/records.cpp ${VORN_JOURNAL_CODEC}/causal/hash.cpp
  ${VORN_JOURNAL_CODEC}/causal_schema.cpp)
add_library(vorn_hosted_raw STATIC ${VORN_HOSTED_SOURCES} ${VORN_NOISE_SOURCES}
  ${CMAKE_SOURCE_DIR}/kernel/core/kprintf.cpp ${CMAKE_SOURCE_DIR}/kernel/apps/cmd_disk/join.cpp)
target_include_directories(vorn_hosted_raw PRIVATE
  ${CMAKE_SOURCE_DIR}/tools/host ${CMAKE_SOURCE_DIR})
target_compile_options(vorn_hosted_raw PRIVATE ${VORN_TOOL_ARCH}
  -ffreestanding -mgeneral-regs-only -fno-pic -fno-pie -fno-stack-protector
  -fno-asynchronous-unwind-tables -fno-tree-loop-distribute-patterns
  -fno-exceptions -fno-rtti -fno-threadsafe-statics)
set(VORN_OWN_SYMBOLS ${CMAKE_SOURCE_DIR}/tests/machine/own_symbols.txt)
set(VORN_HOSTED_LIB ${CMAKE_BINARY_DIR}/libvorn_hosted.a)
add_custom_command(OUTPUT ${VORN_HOSTED_LIB}
  COMMAND objcopy --redefine-syms=${VORN_OWN_SYMBOLS} $<TARGET_FILE:vorn_hosted_raw>
    ${VORN_HOSTED_LIB}
  DEPENDS vorn_hosted_raw ${VORN_OWN_SYMBOLS})
add_custom_target(vorn_hosted_renamed DEPENDS ${VORN_HOSTED_LIB})

# vorn_image_tool(NAME FOLDER): build/tools/NAME from tools/FOLDER, tools/host and the above.
function(vorn_image_tool name folder)
  file(GLOB sources CONFIGURE_DEPENDS
    ${CMAKE_SOURCE_DIR}/tools/${folder}/*.cpp ${CMAKE_SOURCE_DIR}/tools/host/*.cpp)
  add_executable(${name} ${sources})
  add_dependencies(${name} vorn_hosted_renamed)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tools/host ${CMAKE_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE _FILE_OFFSET_BITS=64)
  target_compile_options(${name} PRIVATE ${VORN_TOOL_ARCH})
  target_link_libraries(${name} PRIVATE ${VORN_HOSTED_LIB})
  target_link_options(${name} PRIVATE -m32 -no-pie)
endfunction()

vorn_image_tool(vorn-disk disk)
vorn_image_tool(vorn-audit audit)
