// The group attribute, the groups of the three roles and the roles' privilege values,
// read from two small files at every login.
//
// The settings are process-wide and keep their last value where a file does not give
// one. Only the thread that serves logins may call these functions. A file that cannot be
// read is no error, and nothing is logged.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace session_service {

inline constexpr const char* groupFile = "/etc/pam.d/q73.conf";
inline constexpr const char* privilegeFile = "/etc/pam.d/groups2privs.conf";

// The keys of the groups' file, and the text that switches Kerberos groups on.
inline constexpr const char* attributeKey = "Attribute";
inline constexpr const char* administratorKey = "Administrator";
inline constexpr const char* operatorKey = "Operator";
inline constexpr const char* userKey = "User";
inline constexpr const char* groupingEnabledText = "KrbAttrGrouping=1;";

// What stands in front of a privilege value.
inline constexpr std::string_view administratorPrivilegeKey = "administrator=";
inline constexpr std::string_view operatorPrivilegeKey = "operator=";
inline constexpr std::string_view userPrivilegeKey = "user=";

// The groups keep their trailing semicolon, which ends the group's name where it is
// searched for.
struct GroupSettings {
    std::string attribute = "aci_group";
    std::string administrator = "aciadmin;";
    std::string operatorGroup = "aciopera;";
    std::string user = "aciuser;";
    bool kerberosGrouping = false;
};

// Privilege bit masks.
struct RolePrivileges {
    std::int32_t administrator = 511;
    std::int32_t operatorRole = 121;
    std::int32_t user = 9;
};

extern GroupSettings groupSettings;
extern RolePrivileges rolePrivileges;

// Reads both files again: the attribute and the groups, then the switch of Kerberos groups, then
// the privileges.
void refreshGroupSettings();

// Sets `value` from the last line of /etc/pam.d/q73.conf that gives the key: the text from
// after the line's first "=" to the next ";", which is kept for every key but "Attribute".
void readGroupSetting(const std::string& key, std::string& value);

// Whether a line of /etc/pam.d/q73.conf holds "KrbAttrGrouping=1;".
bool isKrbAttrGroupingEnabled();

// Reads /etc/pam.d/groups2privs.conf into rolePrivileges. Numbers stand at fixed places
// from the start of the line and may be decimal, octal (0) or hexadecimal (0x).
void loadGroupPrivileges();

// The privilege value of the first role, from administrator down to user, for whose group
// `hasGroup` says yes. Empty when it does for none.
std::optional<std::int32_t> privilegeOfFirstRole(
    const std::function<bool(const std::string& group)>& hasGroup);

// The privilege value of the first role whose group the attribute's value begins with.
std::optional<std::int32_t> privilegeOfAttribute(std::string_view value);

}  // namespace session_service
