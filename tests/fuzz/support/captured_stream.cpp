#include "support/captured_stream.h"

#include <array>
#include <cstdlib>

#include "frame/logger.h"
#include "support/input.h"
#include "support/property.h"

namespace session_service {
namespace {

std::string escaped(const std::string& message) {
    std::string text;
    for (const char character : message) {
        if (static_cast<unsigned char>(character) >= ' ' && character != '\x7f') {
            text += character;
            continue;
        }
        std::array<char, 5> code{};
        std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned>(character));
        text += code.data();
    }
    return text;
}

}  // namespace

CapturedStream::CapturedStream(std::FILE*& captured) : stream(captured), original(captured) {
    stream = open_memstream(&text, &size);
    require(stream != nullptr, "there is memory for what is written");
}

CapturedStream::~CapturedStream() {
    std::fclose(stream);
    std::free(text);
    stream = original;
}

std::string CapturedStream::written() const {
    std::fflush(stream);
    return {text, size};
}

void openLog() {
    static Logger log;
    logger = &log;
}

std::string errorLine(const std::string& message) {
    return "[Error]: " + escaped(message) + '\n';
}

std::string debugLine(const std::string& message) {
    return "[Debug]: " + escaped(message) + '\n';
}

bool isLog(const std::string& text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string line = takeLine(rest);
        if (!(line.starts_with("[Error]: ") || line.starts_with("[Debug]: ")) ||
            escaped(line) != line) {
            return false;
        }
    }
    return text.empty() || text.ends_with('\n');
}

}  // namespace session_service
