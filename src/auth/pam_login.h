// The login through PAM.
#pragma once

namespace session_service {

// What a login attempt came to.
inline constexpr int loginRefused = -1;
inline constexpr int loginNeedsNewPassword = 0;
inline constexpr int loginAccepted = 1;

// Where a privilege value came from.
enum class PrivilegeSource {
    none,
    groupVariable,       // the PAM variable of the group attribute
    kerberosGroup,       // the group that the Kerberos administration tool told
    kerberosAlone,       // a Kerberos login, with groups switched off
    privilegesVariable,  // the PAM variable PRIVILEGES
};

// What a login attempt met with, for whoever tries a set-up.
struct LoginFindings {
    const char* refusedBy = "";  // the PAM call that failed; empty when none did
    const char* reason = "";     // what its status means
    PrivilegeSource source = PrivilegeSource::none;
};

// Checks the user's password and account with the PAM service "q73" and finds the
// user's privilege value.
//
// Returns loginAccepted, loginNeedsNewPassword (the password is right but must be
// changed), or loginRefused for any failure. Unless refused, the privilege value is
// copied into `privilegeOut` as decimal text, cut to privilegeOutSize - 1 characters and
// without a terminator of its own: pass a zeroed buffer. Without a value, or when
// refused, the buffer stays as it was.
//
// The settings files are read again at each call. Blocks for as long as PAM modules and
// the Kerberos administration tool take. One call at a time: the settings are
// process-wide.
int authenticateUser(const char* userName, const char* password, const char* remoteHost,
                     char* privilegeOut, int privilegeOutSize);

// The same; `findings` tells how it came to that.
int authenticateUser(const char* userName, const char* password, const char* remoteHost,
                     char* privilegeOut, int privilegeOutSize, LoginFindings& findings);

}  // namespace session_service
