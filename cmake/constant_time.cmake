# build/kernel/constant_time: the image's cryptography objects under a start-up that valgrind runs.
# From an archive the linker takes only what the cryptography needs.

add_library(vorn_archive STATIC $<TARGET_OBJECTS:vorn_kernel>)
add_executable(constant_time ${CMAKE_SOURCE_DIR}/tests/constant_time/main.cpp)
target_link_libraries(constant_time PRIVATE vorn_flags vorn_archive gcc)
target_link_options(constant_time PRIVATE -m32 -nostdlib -static -no-pie -Wl,-z,noexecstack)
