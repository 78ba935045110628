# Builds for an AArch64 board on another machine, with Debian's compilers and the libraries of
# its arm64 packages. Tests run by way of an emulator of programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64)

set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# Where the board's PAM looks for modules, when the prefix is /usr.
set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig)
