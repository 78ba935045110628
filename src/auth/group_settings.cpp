#include "auth/group_settings.h"

#include "base/number.h"
#include "base/text_file.h"

namespace session_service {

GroupSettings groupSettings;
RolePrivileges rolePrivileges;

namespace {

bool contains(const std::string& line, std::string_view text) {
    return line.find(text) != std::string::npos;
}

}  // namespace

void refreshGroupSettings() {
    readGroupSetting(attributeKey, groupSettings.attribute);
    readGroupSetting(administratorKey, groupSettings.administrator);
    readGroupSetting(operatorKey, groupSettings.operatorGroup);
    readGroupSetting(userKey, groupSettings.user);
    groupSettings.kerberosGrouping = isKrbAttrGroupingEnabled();
    loadGroupPrivileges();
}

void readGroupSetting(const std::string& key, std::string& value) {
    const std::size_t keptSemicolon = key == attributeKey ? 0 : 1;
    readLines(groupFile, [&](const std::string& line) {
        const std::size_t separator = line.find('=');
        const std::size_t end =
            separator == std::string::npos ? separator : line.find(';', separator);
        if (contains(line, key) && end != std::string::npos) {
            value = line.substr(separator + 1, end - separator - 1 + keptSemicolon);
        }
        return true;
    });
}

bool isKrbAttrGroupingEnabled() {
    bool enabled = false;
    readLines(groupFile, [&](const std::string& line) {
        enabled = contains(line, groupingEnabledText);
        return !enabled;
    });
    return enabled;
}

void loadGroupPrivileges() {
    struct Role {
        std::string_view key;
        std::int32_t& privilege;
    };
    const Role roles[] = {
        {administratorPrivilegeKey, rolePrivileges.administrator},
        {operatorPrivilegeKey, rolePrivileges.operatorRole},
        {userPrivilegeKey, rolePrivileges.user},
    };
    readLines(privilegeFile, [&](const std::string& line) {
        for (const Role& role : roles) {
            if (contains(line, role.key)) {
                // The key is expected at the start of the line, wherever it was found.
                role.privilege = static_cast<std::int32_t>(
                    parsePrefixedInt64(line.substr(role.key.size())).value);
                break;
            }
        }
        return true;
    });
}

std::optional<std::int32_t> privilegeOfFirstRole(
    const std::function<bool(const std::string& group)>& hasGroup) {
    if (hasGroup(groupSettings.administrator)) {
        return rolePrivileges.administrator;
    }
    if (hasGroup(groupSettings.operatorGroup)) {
        return rolePrivileges.operatorRole;
    }
    if (hasGroup(groupSettings.user)) {
        return rolePrivileges.user;
    }
    return std::nullopt;
}

std::optional<std::int32_t> privilegeOfAttribute(std::string_view value) {
    return privilegeOfFirstRole(
        [value](const std::string& group) { return value.starts_with(group); });
}

}  // namespace session_service
