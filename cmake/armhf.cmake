# Toolchain of a 32-bit ARM board with hardware floating point.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCrossBuild.cmake)
