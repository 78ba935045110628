// A folder that exists for the length of a test.
#pragma once

#include <filesystem>
#include <string>

namespace session_service {

class TemporaryFolder {
  public:
    TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    // The path of the folder, and of a file in it.
    [[nodiscard]] std::string path() const { return folder; }
    [[nodiscard]] std::string path(const std::string& name) const { return folder / name; }

    // Writes a file anew and returns its path.
    std::string write(const std::string& name, const std::string& text) const;

    // The file's text; empty when there is none.
    [[nodiscard]] std::string read(const std::string& name) const;

    [[nodiscard]] bool has(const std::string& name) const;

  private:
    std::filesystem::path folder;
};

}  // namespace session_service
