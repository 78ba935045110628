#include "auth/pam_login.h"

#include <security/pam_appl.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "auth/group_settings.h"
#include "auth/kerberos_groups.h"
#include "auth/pam_conversation.h"
#include "base/process_state.h"
#include "base/secret.h"
#include "frame/file_names.h"
#include "frame/logger.h"

namespace session_service {
namespace {

// Ends a PAM transaction; an end that fails is logged. Modules run inside this process:
// their signal handlers must be gone before they are, and pam_end has them clean up.
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

// Reads the settings files again. Returns whether groups are asked for with Kerberos.
bool refreshSettings() {
    readGroupSetting(attributeKey, groupSettings.attribute);
    readGroupSetting(administratorKey, groupSettings.administrator);
    readGroupSetting(operatorKey, groupSettings.operatorGroup);
    readGroupSetting(userKey, groupSettings.user);
    const bool groupingEnabled = isKrbAttrGroupingEnabled();
    loadGroupPrivileges();
    return groupingEnabled;
}

std::optional<std::int32_t> privilegeFromKerberos(const char* userName, const char* password) {
    const SecretText command{composeKadminCommand(userName, password)};
    return privilegeAmongAttributes(executeCommand(command.text));
}

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

std::optional<std::int32_t> privilegeFromGroups(pam_handle_t* handle, const char* userName,
                                                const char* password, bool groupingEnabled,
                                                LoginFindings& findings) {
    if (const char* module = pam_getenv(handle, "pam_module")) {
        constexpr std::string_view kerberos = "kerberos";
        if (std::strncmp(module, kerberos.data(), kerberos.size()) != 0) {
            return std::nullopt;
        }
        if (!groupingEnabled) {
            findings.source = PrivilegeSource::kerberosAlone;
            return rolePrivileges.administrator;
        }
        findings.source = PrivilegeSource::kerberosGroup;
        return privilegeFromKerberos(userName, password);
    }
    findings.source = PrivilegeSource::groupVariable;
    const char* value = groupVariable(handle);
    return value ? privilegeOfAttribute(value) : std::nullopt;
}

void copyPrivilege(const std::string& privilege, char* privilegeOut, int privilegeOutSize) {
    if (privilegeOutSize > 1) {
        const auto most = static_cast<std::size_t>(privilegeOutSize) - 1;
        privilege.copy(privilegeOut, most);
    }
}

int refuse(pam_handle_t* handle, const char* call, int status, LoginFindings& findings) {
    findings.refusedBy = call;
    findings.reason = pam_strerror(handle, status);
    return loginRefused;
}

// Checks the password and the state of the account.
int checkAccount(pam_handle_t* handle, const char* userName, LoginFindings& findings) {
    const int authenticated = pam_authenticate(handle, 0);
    if (authenticated != PAM_SUCCESS) {
        logger->debug("%s does not pass the PAM auth.", userName);
        return refuse(handle, "pam_authenticate", authenticated, findings);
    }
    const int account = pam_acct_mgmt(handle, PAM_DISALLOW_NULL_AUTHTOK);
    switch (account) {
        case PAM_SUCCESS:
            return loginAccepted;
        case PAM_NEW_AUTHTOK_REQD:
            logger->debug("PAM: password change required.");
            return loginNeedsNewPassword;
        default:
            logger->debug("PAM: pam_acct_mgmt() failed.");
            return refuse(handle, "pam_acct_mgmt", account, findings);
    }
}

}  // namespace

int authenticateUser(const char* userName, const char* password, const char* remoteHost,
                     char* privilegeOut, int privilegeOutSize, LoginFindings& findings) {
    const bool groupingEnabled = refreshSettings();
    const pam_conv conversation{pamConversation, const_cast<char*>(password)};
    pam_handle_t* started = nullptr;
    const int begun = pam_start(pamService, userName, &conversation, &started);
    if (begun != PAM_SUCCESS) {
        logger->error("Failed to create pam handler.");
        return refuse(nullptr, "pam_start", begun, findings);
    }
    TransactionPtr handle(started);
    const int status = pam_set_item(handle.get(), PAM_RHOST, remoteHost);
    if (status != PAM_SUCCESS) {
        refuse(handle.get(), "pam_set_item", status, findings);
        endTransaction(handle.release(), status);
        logger->error("PAM: pam_set_item() failed.");
        return loginRefused;
    }

    const int result = checkAccount(handle.get(), userName, findings);
    if (result == loginRefused) {
        return result;
    }
    if (const auto privilege =
            privilegeFromGroups(handle.get(), userName, password, groupingEnabled, findings)) {
        copyPrivilege(std::to_string(*privilege), privilegeOut, privilegeOutSize);
    } else if (const char* value = pam_getenv(handle.get(), "PRIVILEGES")) {
        findings.source = PrivilegeSource::privilegesVariable;
        copyPrivilege(value, privilegeOut, privilegeOutSize);
    } else {
        findings.source = PrivilegeSource::none;
    }
    return result;
}

int authenticateUser(const char* userName, const char* password, const char* remoteHost,
                     char* privilegeOut, int privilegeOutSize) {
    LoginFindings unused;
    return authenticateUser(userName, password, remoteHost, privilegeOut, privilegeOutSize, unused);
}

}  // namespace session_service
