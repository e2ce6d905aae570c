# The framework for a processor that is not this machine's, out of the source
# that lies beside the headers.
set(INSTALL_GTEST OFF)
set(BUILD_GMOCK OFF)
add_subdirectory(/usr/src/googletest ${CMAKE_CURRENT_BINARY_DIR}/googletest
                 EXCLUDE_FROM_ALL SYSTEM)
