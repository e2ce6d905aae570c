# Builds for 32-bit ARM with Debian's cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(cross_emulator qemu-arm)
set(cross_loader ld-linux-armhf.so.3)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
