#include "auth/pam_login.h"

#include <security/pam_appl.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "auth/group_settings.h"
#include "auth/kerberos_groups.h"
#include "auth/pam_conversation.h"
#include "base/process_state.h"
#include "base/secret.h"
#include "frame/logger.h"

namespace session_service {
namespace {

// Ends a PAM transaction; an end that fails is logged. pam_end cleans up and unloads the modules:
// signal handlers that they installed must be gone before, and what the clean-up changes is undone
// after.
void endTransaction(pam_handle_t* handle, int status) {
    restoreProcessState();
    const bool ended = pam_end(handle, status) == PAM_SUCCESS;
    restoreProcessState();
    reapChildren();
    if (!ended) {
        logger->error("PAM: pam_end() failed.");
    }
}

struct EndTransaction {
    void operator()(pam_handle_t* handle) const { endTransaction(handle, PAM_SUCCESS); }
};
using TransactionPtr = std::unique_ptr<pam_handle_t, EndTransaction>;

// The PAM variable named by the group attribute, as it stands or in capitals.
const char* groupVariable(pam_handle_t* handle) {
    if (const char* value = pam_getenv(handle, groupSettings.attribute.c_str())) {
        return value;
    }
    constexpr std::size_t maxNameLength = 255;
    std::string capitals = groupSettings.attribute.substr(0, maxNameLength);
    std::transform(capitals.begin(), capitals.end(), capitals.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return pam_getenv(handle, capitals.c_str());
}

// The privilege that follows from the user's group. `source` says where it was looked for.
std::optional<std::int32_t> privilegeFromGroups(pam_handle_t* handle, const std::string& userName,
                                                const std::string& password,
                                                PrivilegeSource& source) {
    if (const char* module = pam_getenv(handle, "pam_module")) {
        if (!std::string_view(module).starts_with("kerberos")) {
            return std::nullopt;
        }
        if (!groupSettings.kerberosGrouping) {
            source = PrivilegeSource::kerberosAlone;
            return rolePrivileges.administrator;
        }
        source = PrivilegeSource::kerberosGroup;
        return privilegeFromKerberos(userName, password);
    }
    source = PrivilegeSource::groupVariable;
    const char* value = groupVariable(handle);
    return value ? privilegeOfAttribute(value) : std::nullopt;
}

void findPrivilege(pam_handle_t* handle, const std::string& userName, const std::string& password,
                   LoginResult& result) {
    if (const auto privilege = privilegeFromGroups(handle, userName, password, result.source)) {
        result.privilege = std::to_string(*privilege);
    } else if (const char* value = pam_getenv(handle, "PRIVILEGES")) {
        result.source = PrivilegeSource::privilegesVariable;
        result.privilege = std::string(value).substr(0, maxPrivilegeLength);
    } else {
        result.source = PrivilegeSource::none;
    }
}

LoginResult refused(pam_handle_t* handle, const char* call, int status) {
    return {.refusedBy = call, .reason = pam_strerror(handle, status)};
}

// Checks the password and the state of the account.
LoginResult checkAccount(pam_handle_t* handle, const std::string& userName) {
    const int authenticated = pam_authenticate(handle, 0);
    if (authenticated != PAM_SUCCESS) {
        logger->debug("%s does not pass the PAM auth.", userName.c_str());
        return refused(handle, "pam_authenticate", authenticated);
    }
    const int account = pam_acct_mgmt(handle, PAM_DISALLOW_NULL_AUTHTOK);
    switch (account) {
        case PAM_SUCCESS:
            return {.decision = LoginDecision::admitted};
        case PAM_NEW_AUTHTOK_REQD:
            logger->debug("PAM: password change required.");
            return {.decision = LoginDecision::mustChangePassword};
        default:
            logger->debug("PAM: pam_acct_mgmt() failed.");
            return refused(handle, "pam_acct_mgmt", account);
    }
}

}  // namespace

LoginResult authenticateUser(const std::string& userName, const std::string& password,
                             const std::string& remoteHost) {
    refreshGroupSettings();
    const pam_conv conversation{pamConversation, const_cast<char*>(password.c_str())};
    pam_handle_t* started = nullptr;
    const int startStatus = pam_start(pamService, userName.c_str(), &conversation, &started);
    if (startStatus != PAM_SUCCESS) {
        logger->error("Failed to create pam handler.");
        return refused(nullptr, "pam_start", startStatus);
    }
    TransactionPtr handle(started);
    const int itemStatus = pam_set_item(handle.get(), PAM_RHOST, remoteHost.c_str());
    if (itemStatus != PAM_SUCCESS) {
        LoginResult result = refused(handle.get(), "pam_set_item", itemStatus);
        endTransaction(handle.release(), itemStatus);
        logger->error("PAM: pam_set_item() failed.");
        return result;
    }

    LoginResult result = checkAccount(handle.get(), userName);
    if (result.decision != LoginDecision::refused) {
        findPrivilege(handle.get(), userName, password, result);
    }
    // Not left to the destructor: a module that ends the thread here would end the process.
    endTransaction(handle.release(), PAM_SUCCESS);
    return result;
}

}  // namespace session_service
