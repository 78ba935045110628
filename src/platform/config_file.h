// The configuration-file library: a platform interface. The default implementation
// here serves a controller that has no library of its own for it.
//
// Format of the default: one `key=value` a line. Blanks around key and value are
// dropped; an empty line and a line that starts with '#' are skipped; the first line
// that gives the key wins. A key with nothing after the separator is found and empty.
#pragma once

#include <cstddef>
#include <string>

// `separator` is what stands between a key and its value. Copies the value of `key` into `buffer`,
// cut to fit and zero-terminated. Returns 0 when the key was found; another value, with the buffer
// left as it was, when it was not or the file cannot be read. Safe to call from several threads.
int getPropertyValue(const char* file, const char* separator, const char* key, char* buffer,
                     std::size_t bufferSize);

// Returns the value of `key`, cut to bufferSize - 1 characters; empty when not found.
std::string getConfigValue(const char* file, const char* key, std::size_t bufferSize);
