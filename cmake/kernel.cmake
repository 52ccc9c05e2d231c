# The kernel images: build/vorn.elf and the images that stress and measure the same objects.

set(VORN_ARCH -m32 -march=i686 -ffreestanding -mgeneral-regs-only -fno-pic -fno-pie)
add_library(vorn_flags INTERFACE)
target_include_directories(vorn_flags INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(vorn_flags INTERFACE
  ${VORN_ARCH} -O2 -g ${VORN_WARNINGS}
  -fno-stack-protector -fno-omit-frame-pointer -fno-asynchronous-unwind-tables
  -fno-tree-loop-distribute-patterns
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)

file(GLOB VORN_ARCH_SOURCES CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/arch/x86/*.cpp ${CMAKE_SOURCE_DIR}/arch/x86/*.S)
add_library(vorn_kernel OBJECT ${VORN_KERNEL_SOURCES} ${VORN_ARCH_SOURCES})
target_link_libraries(vorn_kernel PRIVATE vorn_flags)

set(VORN_LINKER_SCRIPT ${CMAKE_SOURCE_DIR}/arch/x86/linker.ld)

# vorn_image(NAME SOURCES...): links build/NAME.elf from the kernel's objects and these sources.
function(vorn_image name)
  add_executable(${name} ${ARGN} $<TARGET_OBJECTS:vorn_kernel>)
  target_link_libraries(${name} PRIVATE vorn_flags)
  target_link_options(${name} PRIVATE
    -m32 -nostdlib -static -no-pie -Wl,-T,${VORN_LINKER_SCRIPT} -Wl,--build-id=none
    -Wl,-z,noexecstack -Wl,-z,max-page-size=4096)
  target_link_libraries(${name} PRIVATE gcc)
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME ${name}.elf RUNTIME_OUTPUT_DIRECTORY ${CMAKE_SOURCE_DIR}/build
    LINK_DEPENDS ${VORN_LINKER_SCRIPT})
endfunction()

vorn_image(vorn ${VORN_MAIN_SOURCE})
