# For a board on another machine, with Debian's compilers and the libraries of the packages for the
# board's processor. Tests run by way of an emulator of programs. A toolchain file sets
# CMAKE_SYSTEM_PROCESSOR, CMAKE_LIBRARY_ARCHITECTURE and CMAKE_CROSSCOMPILING_EMULATOR, and includes
# this one.
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

# Where the board's PAM looks for modules, when the prefix is /usr.
set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig)
