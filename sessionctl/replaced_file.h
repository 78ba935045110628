// Files that others read at any time.
#pragma once

#include <sys/types.h>

#include <string>

namespace session_service::console {

// Gives the file that text and mode in one step: readers find the old text or the new one.
// Throws CommandError when it cannot be written; then nothing has changed.
void replaceFile(const std::string& path, const std::string& text, mode_t mode);

}  // namespace session_service::console
