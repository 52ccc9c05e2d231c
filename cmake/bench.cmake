# Host benches: kernel sources compiled as the image has them, in 32-bit programs of the host.
# build/bench/crypto_bench measures the cryptography beside Debian's 32-bit libraries, which the
# build fetches once.

include(cmake/crypto.cmake)
set(VORN_BENCH_ARCH -m32 -march=i686 -O2 -g ${VORN_WARNINGS})
set(VORN_BENCH_KERNEL ${VORN_BENCH_ARCH}
  -ffreestanding -mgeneral-regs-only -fno-pic -fno-pie -fno-stack-protector
  -fno-omit-frame-pointer -fno-asynchronous-unwind-tables -fno-tree-loop-distribute-patterns
  -fno-exceptions -fno-rtti -fno-threadsafe-statics)

# The kernel's memcpy and its kin must be the ones that run: they get the prefix vorn_, as in the
# unit tests.
add_library(vorn_noise_raw STATIC ${VORN_NOISE_SOURCES}
  ${CMAKE_SOURCE_DIR}/kernel/core/string/memory.cpp)
target_include_directories(vorn_noise_raw PRIVATE ${CMAKE_SOURCE_DIR})
target_compile_options(vorn_noise_raw PRIVATE ${VORN_BENCH_KERNEL})
set(VORN_NOISE_LIB ${CMAKE_BINARY_DIR}/libvorn_noise.a)
set(VORN_OWN_SYMBOLS ${CMAKE_SOURCE_DIR}/tests/machine/own_symbols.txt)
add_custom_command(OUTPUT ${VORN_NOISE_LIB}
  COMMAND objcopy --redefine-syms=${VORN_OWN_SYMBOLS} $<TARGET_FILE:vorn_noise_raw>
    ${VORN_NOISE_LIB}
  DEPENDS vorn_noise_raw ${VORN_OWN_SYMBOLS})
add_custom_target(vorn_noise_renamed DEPENDS ${VORN_NOISE_LIB})

set(VORN_PEERS ${CMAKE_BINARY_DIR}/peers)
add_custom_command(OUTPUT ${VORN_PEERS}/done
  COMMAND ${CMAKE_SOURCE_DIR}/bench/host/fetch_peers.sh ${VORN_PEERS}
  DEPENDS ${CMAKE_SOURCE_DIR}/bench/host/fetch_peers.sh USES_TERMINAL)
add_custom_target(vorn_peers ALL DEPENDS ${VORN_PEERS}/done)

add_executable(crypto_bench ${CMAKE_SOURCE_DIR}/bench/host/crypto_bench.cpp
  ${CMAKE_SOURCE_DIR}/bench/host/peers.cpp)
add_dependencies(crypto_bench vorn_noise_renamed)
target_include_directories(crypto_bench PRIVATE ${CMAKE_SOURCE_DIR})
target_compile_definitions(crypto_bench PRIVATE
  VORN_PEERS_FOLDER="${VORN_PEERS}/usr/lib/i386-linux-gnu")
target_compile_options(crypto_bench PRIVATE ${VORN_BENCH_ARCH})
target_link_libraries(crypto_bench PRIVATE ${VORN_NOISE_LIB})
target_link_options(crypto_bench PRIVATE -m32 -no-pie)

# build/bench/event_bench measures the event store; interrupts cannot be masked out here.
file(GLOB VORN_STORE_SOURCES CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/kernel/graph/causal/*.cpp ${CMAKE_SOURCE_DIR}/kernel/core/string/*.cpp)
add_library(vorn_store_raw STATIC ${VORN_STORE_SOURCES} ${VORN_NOISE_SOURCES}
  ${CMAKE_SOURCE_DIR}/kernel/graph/causal_schema.cpp ${CMAKE_SOURCE_DIR}/kernel/core/record.cpp
  ${CMAKE_SOURCE_DIR}/kernel/core/assert.cpp
  ${CMAKE_SOURCE_DIR}/kernel/core/kprintf.cpp)
target_include_directories(vorn_store_raw PRIVATE
  ${CMAKE_SOURCE_DIR}/tools/host ${CMAKE_SOURCE_DIR})
target_compile_options(vorn_store_raw PRIVATE ${VORN_BENCH_KERNEL})
set(VORN_STORE_LIB ${CMAKE_BINARY_DIR}/libvorn_store.a)
add_custom_command(OUTPUT ${VORN_STORE_LIB}
  COMMAND objcopy --redefine-syms=${VORN_OWN_SYMBOLS} $<TARGET_FILE:vorn_store_raw>
    ${VORN_STORE_LIB}
  DEPENDS vorn_store_raw ${VORN_OWN_SYMBOLS})
add_custom_target(vorn_store_renamed DEPENDS ${VORN_STORE_LIB})

add_executable(event_bench ${CMAKE_SOURCE_DIR}/bench/host/event_bench.cpp)
add_dependencies(event_bench vorn_store_renamed)
target_include_directories(event_bench PRIVATE
  ${CMAKE_SOURCE_DIR}/tools/host ${CMAKE_SOURCE_DIR})
target_compile_options(event_bench PRIVATE ${VORN_BENCH_ARCH})
target_link_libraries(event_bench PRIVATE ${VORN_STORE_LIB})
target_link_options(event_bench PRIVATE -m32 -no-pie)
