# Builds for 64-bit ARM with Debian's cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(cross_emulator qemu-aarch64)
set(cross_loader ld-linux-aarch64.so.1)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
