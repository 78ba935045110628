// The login through PAM.
#pragma once

#include <cstddef>
#include <string>

namespace session_service {

// The PAM service that decides who may log in: a file of this name under /etc/pam.d.
inline constexpr const char* pamService = "q73";

enum class LoginDecision {
    refused,
    mustChangePassword,  // the password is right but must be changed
    admitted,
};

// Where a privilege value came from.
enum class PrivilegeSource {
    none,
    groupVariable,       // the PAM variable of the group attribute
    kerberosGroup,       // the group that the Kerberos administration tool reported
    kerberosAlone,       // a Kerberos login, with groups switched off
    privilegesVariable,  // the PAM variable PRIVILEGES
};

// Longer privilege texts are cut.
inline constexpr std::size_t maxPrivilegeLength = 511;

struct LoginResult {
    LoginDecision decision = LoginDecision::refused;
    // Unless refused: the privilege value as decimal text, or whatever PRIVILEGES holds; empty
    // without a source.
    std::string privilege{};
    PrivilegeSource source = PrivilegeSource::none;
    // When refused: the PAM call that failed, and what its status means.
    std::string refusedBy{};
    std::string reason{};
};

// Checks the user's password and account with the PAM service and finds the user's privilege
// value. The settings files are read again at each call. Blocks for as long as PAM modules and
// the Kerberos administration tool take. One call at a time: the settings are process-wide.
LoginResult authenticateUser(const std::string& userName, const std::string& password,
                             const std::string& remoteHost);

}  // namespace session_service
