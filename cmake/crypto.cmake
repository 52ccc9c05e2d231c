# The ciphers, hashes and curve arithmetic gain from more unrolling than -O2 does. For optimised
# builds only: the unit tests keep their own level.
file(GLOB VORN_NOISE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/kernel/core/noise/*.cpp)
set_source_files_properties(${VORN_NOISE_SOURCES} PROPERTIES COMPILE_OPTIONS -O3)
