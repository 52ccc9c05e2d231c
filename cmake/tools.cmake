# Host programs, one file a program: tools/<name>.cpp becomes build/tools/<name>.

file(GLOB VORN_TOOLS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/*.cpp)
foreach(source ${VORN_TOOLS})
  cmake_path(GET source STEM name)
  add_executable(${name} ${source})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
  target_compile_options(${name} PRIVATE -O2 -g ${VORN_WARNINGS})
endforeach()
