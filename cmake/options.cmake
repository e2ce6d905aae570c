# Flags that every target of the project is built with.
add_library(ttyline_options INTERFACE)
target_compile_options(ttyline_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wformat=2 -Wundef -Wcast-qual -Wpointer-arith -Wmissing-declarations
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<BOOL:${TTYLINE_WERROR}>:-Werror>)

# Where a long has 32 bits the C library looks at no file whose size, time or
# inode number needs more, unless it is told to: the time will in 2038, and a
# dump file would grow without end.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(ttyline_options INTERFACE
      _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

if(TTYLINE_SANITIZE)
  target_compile_options(ttyline_options INTERFACE
      -fsanitize=${TTYLINE_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer)
  target_link_options(ttyline_options INTERFACE
      -fsanitize=${TTYLINE_SANITIZE})
endif()
# What dev/coverage measures: libraries and programs, not tests.
add_library(ttyline_measured INTERFACE)
if(TTYLINE_COVERAGE)
  # The counters lie in the mapped profile itself, so that a process that is
  # killed, or forked and never ends by itself, has counted all the same.
  # Threads and processes share them: an increment that is lost would appear
  # as a branch taken, as some counts are differences of others.
  target_compile_options(ttyline_measured INTERFACE
      -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic
      -mllvm -runtime-counter-relocation)
  target_link_options(ttyline_measured INTERFACE -fprofile-instr-generate)
endif()
# Built from plain C++ with nothing of the C++ library in it: linked as C, so
# that a stray need for it fails the link instead of appearing in readelf -d.
# CMake would add the C++ library to such a link by name; programs written in
# C++ get it from their compiler's driver.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
add_library(ttyline_core_options INTERFACE)
target_link_libraries(ttyline_core_options INTERFACE
    ttyline_options ttyline_measured)
target_compile_options(ttyline_core_options INTERFACE
    -fno-exceptions -fno-rtti)
