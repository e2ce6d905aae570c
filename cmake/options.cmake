# Flags that every target of the project is built with.
add_library(ttyline_options INTERFACE)
target_compile_options(ttyline_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wformat=2 -Wundef -Wcast-qual -Wpointer-arith -Wmissing-declarations
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<BOOL:${TTYLINE_WERROR}>:-Werror>)

if(TTYLINE_SANITIZE)
  target_compile_options(ttyline_options INTERFACE
      -fsanitize=${TTYLINE_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer)
  target_link_options(ttyline_options INTERFACE
      -fsanitize=${TTYLINE_SANITIZE})
endif()
if(TTYLINE_COVERAGE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(ttyline_options INTERFACE
        -fprofile-instr-generate -fcoverage-mapping)
    target_link_options(ttyline_options INTERFACE -fprofile-instr-generate)
  else()
    target_compile_options(ttyline_options INTERFACE --coverage)
    target_link_options(ttyline_options INTERFACE --coverage)
  endif()
endif()

# Built from plain C++ with nothing of the C++ library in it: linked as C, so
# that a stray need for it fails the link instead of appearing in readelf -d.
# CMake would add the C++ library to such a link by name; programs written in
# C++ get it from their compiler's driver.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
add_library(ttyline_core_options INTERFACE)
target_link_libraries(ttyline_core_options INTERFACE ttyline_options)
target_compile_options(ttyline_core_options INTERFACE
    -fno-exceptions -fno-rtti)
