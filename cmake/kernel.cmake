# The kernel images: build/vorn.elf and the images that stress and measure the same objects.

set(VORN_ARCH -m32 -march=i686 -ffreestanding -mgeneral-regs-only -fno-pic -fno-pie)
add_library(vorn_flags INTERFACE)
target_include_directories(vorn_flags INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(vorn_flags INTERFACE
  ${VORN_ARCH} -O2 -g ${VORN_WARNINGS} -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=
  -fno-stack-protector -fno-omit-frame-pointer -fno-asynchronous-unwind-tables
  -fno-tree-loop-distribute-patterns
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)

file(GLOB VORN_ARCH_SOURCES CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/arch/x86/*.cpp ${CMAKE_SOURCE_DIR}/arch/x86/*.S)
include(cmake/crypto.cmake)
add_library(vorn_kernel OBJECT ${VORN_KERNEL_SOURCES} ${VORN_ARCH_SOURCES})
target_link_libraries(vorn_kernel PRIVATE vorn_flags)

# Runs on this machine: symbols in, assembler for the table of functions out.
add_executable(ksyms ${CMAKE_SOURCE_DIR}/tools/ksyms.cpp)
target_compile_options(ksyms PRIVATE -O1 ${VORN_WARNINGS})

set(VORN_LINKER_SCRIPT ${CMAKE_SOURCE_DIR}/arch/x86/linker.ld)

function(vorn_link name)
  add_executable(${name} ${ARGN} $<TARGET_OBJECTS:vorn_kernel>)
  target_link_libraries(${name} PRIVATE vorn_flags gcc)
  target_link_options(${name} PRIVATE
    -m32 -nostdlib -static -no-pie -Wl,-T,${VORN_LINKER_SCRIPT} -Wl,--build-id=none
    -Wl,-z,noexecstack -Wl,-z,max-page-size=4096)
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${VORN_LINKER_SCRIPT})
endfunction()

# vorn_image(NAME SOURCES...): links build/NAME.elf from the kernel's objects and these sources.
# The first link gives the addresses of the functions, the second carries their table; no function
# may have moved between the two.
function(vorn_image name)
  add_library(${name}_own OBJECT ${ARGN})
  target_link_libraries(${name}_own PRIVATE vorn_flags)
  vorn_link(${name}_bare $<TARGET_OBJECTS:${name}_own>)

  set(table ${CMAKE_BINARY_DIR}/${name}_ksyms.S)
  add_custom_command(OUTPUT ${table}
    COMMAND nm -S --defined-only $<TARGET_FILE:${name}_bare> | $<TARGET_FILE:ksyms> > ${table}
    DEPENDS ${name}_bare ksyms VERBATIM)
  vorn_link(${name} $<TARGET_OBJECTS:${name}_own> ${table})
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME ${name}.elf RUNTIME_OUTPUT_DIRECTORY ${CMAKE_SOURCE_DIR}/build)
  add_custom_command(TARGET ${name} POST_BUILD
    COMMAND nm -S --defined-only $<TARGET_FILE:${name}> | $<TARGET_FILE:ksyms> | cmp - ${table}
    VERBATIM)
endfunction()

vorn_image(vorn ${VORN_MAIN_SOURCE})

# The same system behind a loader that it must refuse.
vorn_image(vorn-wrong-loader ${VORN_MAIN_SOURCE} ${CMAKE_SOURCE_DIR}/tests/boot/wrong_loader.S)
foreach(target vorn-wrong-loader_bare vorn-wrong-loader)
  target_link_options(${target} PRIVATE -Wl,--entry=wrong_loader)
endforeach()

# Images with a start-up of their own, where their sources are there.
file(GLOB VORN_STRESS_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/stress/*.cpp)
if(VORN_STRESS_SOURCES)
  vorn_image(vorn-stress ${VORN_STRESS_SOURCES})
endif()
file(GLOB VORN_BENCH_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/guest/*.cpp)
if(VORN_BENCH_SOURCES)
  vorn_image(vorn-bench ${VORN_BENCH_SOURCES})
endif()

include(cmake/constant_time.cmake)
