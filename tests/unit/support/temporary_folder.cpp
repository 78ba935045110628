#include "support/temporary_folder.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <system_error>

namespace session_service {

TemporaryFolder::TemporaryFolder() {
    std::string name = std::filesystem::temp_directory_path() / "session-service-XXXXXX";
    if (!mkdtemp(name.data())) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    folder = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
}

std::string TemporaryFolder::read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(path(name), std::ios::binary).rdbuf();
    return text.str();
}

bool TemporaryFolder::has(const std::string& name) const {
    return std::filesystem::exists(path(name));
}

}  // namespace session_service
