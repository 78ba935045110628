// The command for the Kerberos administration tool, and how its output is understood.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "auth/group_settings.h"
#include "auth/kerberos_groups.h"
#include "support/input.h"
#include "support/require.h"

namespace session_service {
namespace {

using Words = std::vector<std::string>;

// The words of a command line by the shell's rules of quoting. Characters that end a command or
// expand to something else must be quoted.
Words wordsOf(std::string_view commandLine) {
    constexpr std::string_view safeUnquoted =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:,+@";
    Words words;
    bool inWord = false;
    for (std::size_t at = 0; at < commandLine.size(); ++at) {
        const char character = commandLine[at];
        if (character == ' ') {
            inWord = false;
            continue;
        }
        if (!inWord) {
            words.emplace_back();
            inWord = true;
        }
        if (character == '\'') {
            const std::size_t end = commandLine.find('\'', at + 1);
            require(end != std::string_view::npos, "every quote is closed");
            words.back() += commandLine.substr(at + 1, end - at - 1);
            at = end;
        } else if (character == '\\') {
            require(++at < commandLine.size() && commandLine[at] != '\n',
                    "a backslash stands before a character");
            words.back() += commandLine[at];
        } else {
            require(safeUnquoted.find(character) != std::string_view::npos,
                    "nothing outside quotes means anything to the shell");
            words.back() += character;
        }
    }
    return words;
}

void checkCommand(const std::string& userName, const std::string& password) {
    const std::string command = composeKadminCommand(userName.c_str(), password.c_str());
    require(
        wordsOf(command) == Words{"kadmin", "-p", userName, "-w", password, "getstrs", userName},
        "the command is the tool with its six arguments");
    require(command.find('\0') == std::string::npos, "the command has no end before its end");
}

bool lists(const std::string& attributes, const std::string& group) {
    const std::string match = groupSettings.attribute + ": " + group;
    return std::search(attributes.begin(), attributes.end(), match.begin(), match.end()) !=
           attributes.end();
}

// Roles by rank; 0 is none.
int rankOf(const std::string& attributes) {
    return privilegeAmongAttributes(attributes).value_or(0);
}

void checkOutput(const std::string& output) {
    constexpr int administrator = 3;
    constexpr int operatorRole = 2;
    constexpr int user = 1;
    rolePrivileges = {administrator, operatorRole, user};
    const int rank = rankOf(output);
    require(rank == (lists(output, groupSettings.administrator)   ? administrator
                     : lists(output, groupSettings.operatorGroup) ? operatorRole
                     : lists(output, groupSettings.user)          ? user
                                                                  : 0),
            "the highest role that is listed counts");
    require(rankOf(output + output) >= rank && rankOf("x" + output + "\n") >= rank,
            "more output takes no role away");
    const std::string attribute = groupSettings.attribute + ": ";
    require(rankOf(output + attribute + groupSettings.administrator) == administrator,
            "an administrator is one whatever stands before");
    require(rankOf(attribute + groupSettings.user + output) >= user,
            "a user is at least one whatever follows");
}

}  // namespace
}  // namespace session_service

// The sections: user name, password, the tool's output, the group attribute, the groups of
// administrator, operator and user. What is not given keeps its default.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    InputSections sections(data, size);
    const std::string userName = sections.nextText();
    checkCommand(userName, sections.nextText());

    const std::string output = sections.next();
    groupSettings = {};
    for (std::string* setting : {&groupSettings.attribute, &groupSettings.administrator,
                                 &groupSettings.operatorGroup, &groupSettings.user}) {
        if (sections.hasMore()) {
            *setting = sections.nextText();
        }
    }
    checkOutput(output);
    return 0;
}
