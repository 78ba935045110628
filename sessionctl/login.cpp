#include <unistd.h>

#include <array>
#include <cstdio>

#include "auth/group_settings.h"
#include "auth/pam_login.h"
#include "auth/privileges.h"
#include "base/process_state.h"
#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessionctl/password.h"
#include "sessionctl/redirection.h"

namespace session_service::console {
namespace {

struct NamedPrivilege {
    std::int32_t mask;
    const char* name;
};
constexpr NamedPrivilege loginPrivilege{1, "Login"};
constexpr std::array<NamedPrivilege, 5> privileges{{
    loginPrivilege,
    {2, "ConfigureManager"},
    {4, "ConfigureUsers"},
    {8, "ConfigureSelf"},
    {16, "ConfigureComponents"},
}};

std::vector<std::string> namesOf(std::int32_t value) {
    std::vector<std::string> names;
    for (const NamedPrivilege& privilege : privileges) {
        if ((value & privilege.mask) != 0) {
            names.emplace_back(privilege.name);
        }
    }
    return names;
}

std::string roleOf(std::int32_t value, PrivilegeSource source) {
    if (source == PrivilegeSource::none || source == PrivilegeSource::privilegesVariable) {
        return {};
    }
    if (value == rolePrivileges.administrator) {
        return "administrator";
    }
    return value == rolePrivileges.operatorRole ? "operator" : "user";
}

std::string sourceText(PrivilegeSource source) {
    switch (source) {
        case PrivilegeSource::groupVariable:
            return "PAM variable " + groupSettings.attribute;
        case PrivilegeSource::kerberosGroup:
            return "Kerberos attribute " + groupSettings.attribute;
        case PrivilegeSource::kerberosAlone:
            return "Kerberos login while KrbAttrGrouping is off";
        case PrivilegeSource::privilegesVariable:
            return "PAM variable PRIVILEGES";
        case PrivilegeSource::none:
            break;
    }
    return {};
}

// What the attempt came to.
struct Verdict {
    bool admitted = false;
    bool mustChangePassword = false;
    std::string reason;  // of a refusal
    std::int32_t privilege = 0;
    std::string role;
    std::string source;
};

Verdict judge(const LoginResult& login) {
    Verdict verdict;
    if (login.decision == LoginDecision::refused) {
        verdict.reason = login.refusedBy + ": " + login.reason;
        return verdict;
    }
    verdict.mustChangePassword = login.decision == LoginDecision::mustChangePassword;
    verdict.source = sourceText(login.source);
    if (!login.privilege.empty()) {
        verdict.privilege = parseUserPrivilege(login.privilege);
        verdict.role = roleOf(verdict.privilege, login.source);
    }
    verdict.admitted = hasRequiredPrivilege(verdict.privilege, {loginPrivilege.mask});
    if (!verdict.admitted) {
        verdict.reason = std::string("PAM admits the user, but nothing gives the privilege ") +
                         loginPrivilege.name;
    }
    return verdict;
}

bool report(const Options& options, const std::string& user, const Verdict& verdict) {
    const std::vector<std::string> names = namesOf(verdict.privilege);
    if (options.json) {
        return print(jsonText({{"user", user},
                               {"admitted", verdict.admitted},
                               {"mustChangePassword", verdict.mustChangePassword},
                               {"reason", verdict.reason},
                               {"privilege", verdict.privilege},
                               {"privileges", names},
                               {"role", verdict.role},
                               {"source", verdict.source}}));
    }
    std::string privilege = std::to_string(verdict.privilege);
    for (const std::string& name : names) {
        privilege += ' ' + name;
    }
    std::vector<Row> rows{{"user", user}, {"login", verdict.admitted ? "admitted" : "refused"}};
    if (!verdict.reason.empty()) {
        rows.push_back({"reason", verdict.reason});
    }
    if (verdict.mustChangePassword) {
        rows.push_back({"password", "must be changed: nothing else will be allowed"});
    }
    if (!verdict.source.empty()) {
        rows.push_back({"privilege", privilege});
        rows.push_back({"role", verdict.role.empty() ? "none" : verdict.role});
        rows.push_back({"source", verdict.source});
    }
    return print(tableText(rows));
}

}  // namespace

int runLogin(const Options& options, const std::string& user) {
    disableCoreDumps();
    if (geteuid() != 0) {
        std::fputs("sessionctl: not run as root, as the daemon is; PAM may answer otherwise.\n",
                   stderr);
    }
    const SecretText password = readPassword("Password of " + escaped(user) + ": ");
    saveProcessState();
    LoginResult login;
    {
        // What modules tell the user belongs to no document, and nobody answers the daemon's.
        const Redirection messages(STDOUT_FILENO, STDERR_FILENO);
        const Redirection answers(STDIN_FILENO, openNowhere().get());
        login = authenticateUser(user, password.text, "");
    }
    const Verdict verdict = judge(login);
    return report(options, user, verdict) && verdict.admitted ? done : failed;
}

}  // namespace session_service::console
