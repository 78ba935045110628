// Something else in the place of a file at a fixed path.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace session_service {

// While it lives, what is opened at the path is another file, or a text behind which reading
// fails. One at a time.
class FileStandIn {
  public:
    // Opens the file at `standIn`.
    FileStandIn(std::string path, std::string standIn);
    // Opens the text; what follows it cannot be read for this reason.
    FileStandIn(std::string path, std::string text, int error);
    FileStandIn(const FileStandIn&) = delete;
    FileStandIn& operator=(const FileStandIn&) = delete;
    ~FileStandIn();

    // The modes in which it was opened so far.
    [[nodiscard]] const std::vector<std::string>& modes() const { return openedModes; }

    // Opens it; null where the path is another one.
    std::FILE* open(const std::string& path, const char* mode);

  private:
    static ssize_t readText(void* standIn, char* buffer, std::size_t size);

    std::string replacedPath;
    std::string otherFile;  // empty: the text
    std::string remainingText;
    int failure = 0;
    std::vector<std::string> openedModes;
};

}  // namespace session_service
