// The settings of groups and privileges, compared with another reader of the same files.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "auth/group_settings.h"
#include "auth/kerberos_groups.h"
#include "support/fake_files.h"
#include "support/input.h"
#include "support/require.h"

namespace session_service {
namespace {

bool contains(std::string_view text, std::string_view searched) {
    return text.find(searched) != std::string_view::npos;
}

// What the file makes of a setting that was `before`.
std::string expectedSetting(const std::vector<std::string>& lines, std::string_view key,
                            const std::string& before) {
    const auto given = std::find_if(lines.rbegin(), lines.rend(), [&](std::string_view line) {
        const std::size_t separator = line.find('=');
        return contains(line, key) && separator != std::string_view::npos &&
               contains(line.substr(separator), ";");
    });
    if (given == lines.rend()) {
        return before;
    }
    const std::string rest = given->substr(given->find('=') + 1);
    return rest.substr(0, rest.find(';')) + (key == "Attribute" ? "" : ";");
}

int digitOf(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    const char small = static_cast<char>(character | 0x20);
    return small >= 'a' && small <= 'z' ? small - 'a' + 10 : 36;
}

// The number at the start of the text, in the base of its prefix; limited to 32 bits.
std::int32_t expectedNumber(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.starts_with('0')) {
        base = 8;
        if (text.size() > 2 && (text[1] | 0x20) == 'x' && digitOf(text[2]) < 16) {
            base = 16;
            text.remove_prefix(2);
        }
    }
    constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
    const std::uint64_t limit = static_cast<std::uint64_t>(largest) + (negative ? 1 : 0);
    std::uint64_t value = 0;
    for (const char character : text) {
        const int digit = digitOf(character);
        if (digit >= base) {
            break;
        }
        const auto factor = static_cast<std::uint64_t>(base);
        const auto added = static_cast<std::uint64_t>(digit);
        value = value > (limit - added) / factor ? limit : value * factor + added;
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(negative ? 0 - value : value));
}

RolePrivileges expectedPrivileges(const std::vector<std::string>& lines, RolePrivileges before) {
    for (const std::string& line : lines) {
        if (contains(line, "administrator=")) {
            before.administrator = expectedNumber(line.substr(14));
        } else if (contains(line, "operator=")) {
            before.operatorRole = expectedNumber(line.substr(9));
        } else if (contains(line, "user=")) {
            before.user = expectedNumber(line.substr(5));
        }
    }
    return before;
}

// As a login reads it.
void readSetting(const std::vector<std::string>& lines, const std::string& key,
                 std::string& setting) {
    const std::string expected = expectedSetting(lines, key, setting);
    readGroupSetting(key, setting);
    require(setting == expected, "the last line that gives a setting decides");
    readGroupSetting(key, setting);
    require(setting == expected, "reading a setting again changes nothing");
}

void readPrivileges(const std::vector<std::string>& lines) {
    const RolePrivileges expected = expectedPrivileges(lines, rolePrivileges);
    loadGroupPrivileges();
    require(rolePrivileges.administrator == expected.administrator &&
                rolePrivileges.operatorRole == expected.operatorRole &&
                rolePrivileges.user == expected.user,
            "the last line that gives a privilege decides");
}

void checkGroup(const std::string& group) {
    require(group.find(';') == group.size() - 1 && !contains(group, "\n"),
            "a group ends at its one semicolon");
    require(privilegeOfAttribute(group + "more").has_value(), "a group gives its role");
    require(privilegeAmongAttributes(groupSettings.attribute + ": " + group).has_value(),
            "a group that is listed gives its role");
}

}  // namespace
}  // namespace session_service

// The sections: the file of the groups, the file of the privileges.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    static MemoryFile& groupFile = fakeFiles()["/etc/pam.d/q73.conf"];
    static MemoryFile& privilegeFile = fakeFiles()["/etc/pam.d/groups2privs.conf"];
    InputSections sections(data, size);
    const std::string groups = sections.next();
    const std::string privileges = sections.next();
    groupFile.write(groups);
    privilegeFile.write(privileges);
    groupSettings = {};
    rolePrivileges = {};

    const std::vector<std::string> lines = linesOf(groups);
    readSetting(lines, "Attribute", groupSettings.attribute);
    readSetting(lines, "Administrator", groupSettings.administrator);
    readSetting(lines, "Operator", groupSettings.operatorGroup);
    readSetting(lines, "User", groupSettings.user);
    require(isKrbAttrGroupingEnabled() == contains(groups, "KrbAttrGrouping=1;"),
            "the switch is on where the file says so");
    readPrivileges(linesOf(privileges));

    require(!contains(groupSettings.attribute, ";") && !contains(groupSettings.attribute, "\n"),
            "the attribute ends before its semicolon");
    checkGroup(groupSettings.administrator);
    checkGroup(groupSettings.operatorGroup);
    checkGroup(groupSettings.user);
    require(!privilegeOfAttribute("").has_value(), "who has no group has no role");
    return 0;
}
