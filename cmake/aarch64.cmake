# Toolchain of an AArch64 board.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCrossBuild.cmake)
