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

std::vector<std::string> privilegeNames(std::int32_t value) {
    std::vector<std::string> names;
    for (const NamedPrivilege& privilege : privileges) {
        if ((value & privilege.mask) != 0) {
            names.emplace_back(privilege.name);
        }
    }
    return names;
}

std::string roleName(std::int32_t value, PrivilegeSource source) {
    if (source == PrivilegeSource::none || source == PrivilegeSource::privilegesVariable) {
        return {};
    }
    if (value == rolePrivileges.administrator) {
        return "administrator";
    }
    return value == rolePrivileges.operatorRole ? "operator" : "user";
}

std::string describeSource(PrivilegeSource source) {
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

// What a login through the daemon would come to.
struct LoginOutcome {
    bool admitted = false;
    bool mustChangePassword = false;
    std::string reason;  // of a refusal
    std::int32_t privilege = 0;
    std::string role;
    std::string source;
};

LoginOutcome evaluate(const LoginResult& login) {
    LoginOutcome outcome;
    if (login.decision == LoginDecision::refused) {
        outcome.reason = login.refusedBy + ": " + login.reason;
        return outcome;
    }
    outcome.mustChangePassword = login.decision == LoginDecision::mustChangePassword;
    outcome.source = describeSource(login.source);
    if (!login.privilege.empty()) {
        outcome.privilege = parseUserPrivilege(login.privilege);
        outcome.role = roleName(outcome.privilege, login.source);
    }
    outcome.admitted = hasRequiredPrivilege(outcome.privilege, {loginPrivilege.mask});
    if (!outcome.admitted) {
        outcome.reason = std::string("PAM admits the user, but nothing gives the privilege ") +
                         loginPrivilege.name;
    }
    return outcome;
}

bool printOutcome(const Options& options, const std::string& user, const LoginOutcome& outcome) {
    const std::vector<std::string> names = privilegeNames(outcome.privilege);
    if (options.json) {
        return print(formatJson({{"user", user},
                                 {"admitted", outcome.admitted},
                                 {"mustChangePassword", outcome.mustChangePassword},
                                 {"reason", outcome.reason},
                                 {"privilege", outcome.privilege},
                                 {"privileges", names},
                                 {"role", outcome.role},
                                 {"source", outcome.source}}));
    }
    std::string privilege = std::to_string(outcome.privilege);
    for (const std::string& name : names) {
        privilege += ' ' + name;
    }
    std::vector<Row> rows{{"user", user}, {"login", outcome.admitted ? "admitted" : "refused"}};
    if (!outcome.reason.empty()) {
        rows.push_back({"reason", outcome.reason});
    }
    if (outcome.mustChangePassword) {
        rows.push_back({"password", "must be changed: nothing else will be allowed"});
    }
    if (!outcome.source.empty()) {
        rows.push_back({"privilege", privilege});
        rows.push_back({"role", outcome.role.empty() ? "none" : outcome.role});
        rows.push_back({"source", outcome.source});
    }
    return print(formatTable(rows));
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
        // Messages of modules must not mix with the result, and nobody answers their questions in
        // the daemon either.
        const Redirection messages(STDOUT_FILENO, STDERR_FILENO);
        const Redirection answers(STDIN_FILENO, openNullDevice().get());
        login = authenticateUser(user, password.text, "");
    }
    const LoginOutcome outcome = evaluate(login);
    return printOutcome(options, user, outcome) && outcome.admitted ? exit_status::success
                                                                    : exit_status::failure;
}

}  // namespace session_service::console
