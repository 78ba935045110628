// Something else in the place of a file at a fixed path.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace session_service {

// While it lives, what is opened at the path is another file, or a text behind which reading
// fails. One at a time.
class FakeFile {
  public:
    // Opens the file at `replacement`.
    FakeFile(std::string path, std::string replacement);
    // Opens the text; what follows it cannot be read for this reason.
    FakeFile(std::string path, std::string text, int error);
    FakeFile(const FakeFile&) = delete;
    FakeFile& operator=(const FakeFile&) = delete;
    ~FakeFile();

    // The modes in which it was opened so far.
    [[nodiscard]] const std::vector<std::string>& modes() const { return openedModes; }

    // Opens it; null where the path is another one.
    std::FILE* open(const std::string& path, const char* mode);

  private:
    static ssize_t readText(void* cookie, char* buffer, std::size_t size);

    std::string replacedPath;
    std::string otherFile;  // empty: the text
    std::string remainingText;
    int failure = 0;
    std::vector<std::string> openedModes;
};

}  // namespace session_service
