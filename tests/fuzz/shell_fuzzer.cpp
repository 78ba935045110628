// Commands run by the real shell: a client's texts reach the tool unchanged.
#include <cstdint>
#include <string>
#include <string_view>

#include "auth/kerberos_groups.h"
#include "base/shell.h"
#include "support/input.h"
#include "support/require.h"

namespace session_service {
namespace {

// The arguments of the tool, a zero byte after each. A shell function replaces it; no other
// program can be found.
std::string argumentsFor(const std::string& userName, const std::string& password) {
    const std::string command = R"(PATH=; kadmin() { printf '%s\0' "$@"; }; )" +
                                composeKadminCommand(userName.c_str(), password.c_str());
    std::string output;
    const bool started = readCommand(command.c_str(), [&](std::string_view chunk) {
        require(!chunk.empty() && chunk.size() <= 1023, "a chunk has up to 1023 bytes");
        output += chunk;
        return true;
    });
    require(started, "the shell can be started");
    return output;
}

}  // namespace
}  // namespace session_service

// The sections: user name, password.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    InputSections sections(data, size);
    const std::string userName = sections.nextText();
    const std::string password = sections.nextText();
    std::string expected;
    for (const std::string& argument : {std::string("-p"), userName, std::string("-w"), password,
                                        std::string("getstrs"), userName}) {
        expected += argument + '\0';
    }
    require(argumentsFor(userName, password) == expected,
            "the tool receives every text as one argument, and nothing else is run");
    return 0;
}
