// Log lines: whatever a message holds, it is one line with exactly that message.
#include <cstdint>
#include <string>
#include <string_view>

#include "frame/logger.h"
#include "support/captured_stream.h"
#include "support/input.h"
#include "support/memory_file.h"
#include "support/require.h"

namespace session_service {
namespace {

int digitOf(char character) {
    const std::size_t digit = std::string_view("0123456789abcdef").find(character);
    require(digit != std::string_view::npos, "a control character is written with small digits");
    return static_cast<int>(digit);
}

// Takes what was logged for the text from the front of the line.
void takeLogged(std::string_view& line, std::string_view text) {
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code >= 0x20 && code != 0x7f) {
            require(line.starts_with(character),
                    "what is no control character is written as it is");
            line.remove_prefix(1);
            continue;
        }
        require(line.size() >= 4 && line.starts_with("\\x") &&
                    digitOf(line[2]) * 16 + digitOf(line[3]) == code,
                "a control character is written as its two digits");
        line.remove_prefix(4);
    }
}

// Checks the line after its tag and returns it.
std::string checkMessage(std::string_view line, std::string_view first, std::string_view second) {
    const std::string message(line.substr(0, line.find('\n')));
    require(line.size() == message.size() + 1, "a message is one whole line");
    std::string_view rest = message;
    takeLogged(rest, first);
    takeLogged(rest, " 100% ");
    takeLogged(rest, second);
    require(rest.empty(), "nothing follows the message");
    return message;
}

// A log that is written to a file in memory.
class FileLog {
  public:
    FileLog() {
        MemoryFile settings;
        settings.write(std::string("LOG_FILE=") + file.path() + '\n');
        log.init(settings.path());
        require(log.isFileEnabled(), "the log can be created");
    }

    // What the action adds to the log.
    template <typename Action>
    std::string linesOf(Action action) {
        file.write("");
        action(log);
        return file.read();
    }

  private:
    MemoryFile file;
    Logger log;
};

std::string withoutStamp(const std::string& line, const std::string& tag) {
    const std::size_t at = line.find(tag);
    require(at != std::string::npos, "a line bears its tag");
    // Such as "Feb  3 04:05:06 1700000000 ".
    constexpr std::size_t dateLength = 16;
    require(at > dateLength + 1 && line[at - 1] == ' ' &&
                line.find_first_not_of("0123456789", dateLength) == at - 1,
            "a line begins with date and seconds");
    return line.substr(at + tag.size());
}

}  // namespace
}  // namespace session_service

// The sections: two texts of one message.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    static FileLog fileLog;
    InputSections sections(data, size);
    const std::string first = sections.next().c_str();
    const std::string second = sections.next().c_str();

    const std::string lines = fileLog.linesOf(
        [&](Logger& log) { log.error("%s 100%% %s", first.c_str(), second.c_str()); });
    const std::string message = checkMessage(withoutStamp(lines, "[Error]: "), first, second);

    const std::string again =
        fileLog.linesOf([&](Logger& log) { log.debug("%s", message.c_str()); });
    require(withoutStamp(again, "[Debug]: ") == message + '\n',
            "a message that was logged is logged the same");

    Logger unset;
    const CapturedStream errors(stderr);
    unset.error("%s 100%% %s", first.c_str(), second.c_str());
    require(errors.written() == "[Error]: " + message + '\n',
            "standard error receives the same message");
    return 0;
}
