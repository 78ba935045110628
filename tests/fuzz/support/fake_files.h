// Fakes of files at fixed paths, kept in memory. To be included by one source of a program,
// whose calls of fopen it then replaces.
#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <map>
#include <string>

#include "support/memory_file.h"

namespace session_service {

// The fake files, by the paths that they are opened at.
inline std::map<std::string, MemoryFile>& fakeFiles() {
    static std::map<std::string, MemoryFile> files;
    return files;
}

}  // namespace session_service

extern "C" {

// The C library has fopen under two names; which of them is called depends on macros.
std::FILE* openFile(const char* path, const char* mode) __asm__("fopen");
std::FILE* openLargeFile(const char* path, const char* mode) __asm__("fopen64");

std::FILE* openFile(const char* path, const char* mode) {
    using Open = std::FILE*(const char*, const char*);
    static const auto next = reinterpret_cast<Open*>(dlsym(RTLD_NEXT, "fopen64"));
    const auto& files = session_service::fakeFiles();
    const auto found = files.find(path);
    return next(found == files.end() ? path : found->second.path(), mode);
}

std::FILE* openLargeFile(const char* path, const char* mode) {
    return openFile(path, mode);
}
}
