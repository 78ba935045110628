#include "support/log_lines.h"

#include <array>
#include <cstdio>
#include <string_view>

#include "frame/logger.h"
#include "support/input.h"

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
