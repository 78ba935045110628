#include <algorithm>

#include "auth/group_settings.h"
#include "auth/pam_login.h"
#include "frame/configuration.h"
#include "service/persistent_properties.h"
#include "sessionctl/check_files.h"
#include "sessionctl/check_store.h"
#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessionctl/pam_service.h"
#include "sessionctl/store_access.h"
#include "sessions/create_session.h"

namespace session_service::console {
namespace {

using nlohmann::json;

// What is in the store cannot be checked when the store is unavailable.
void checkStore(Report& report, std::chrono::seconds timeout) {
    const char* subject = "store";
    try {
        const OpenStore opened = openStore(timeout);
        redisContext* connection = opened.connection.get();
        report.conclude(subject, "answers at " + opened.address);
        checkServer(report, connection);
        checkResources(report, connection);
        checkStoredSettings(report, connection);
        checkScripts(report, connection);
        checkDaemon(report, connection);
    } catch (const CommandError& error) {
        report.fail(subject, error.what());
    }
}

const char* nameOf(Result result) {
    switch (result) {
        case Result::ok:
            return "ok";
        case Result::warning:
            return "warning";
        case Result::failed:
            break;
    }
    return "FAILED";
}

json toJson(const std::vector<Finding>& findings) {
    json list = json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"result", nameOf(finding.result)},
                        {"subject", finding.subject},
                        {"text", finding.text}});
    }
    return {{"findings", list}};
}

std::string toText(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        std::string result = nameOf(finding.result);
        result.resize(sizeof("warning"), ' ');
        text += result + ' ' + finding.subject + ": " + finding.text + '\n';
    }
    return text;
}

}  // namespace

int runCheck(const Options& options) {
    Report report;
    checkStore(report, options.timeout);
    checkConfiguration(report, configurationFile);
    checkPamService(report, pamService);
    checkGroups(report, groupFile);
    checkPrivileges(report, privilegeFile);
    checkPersistentProperties(report, propertyFile);
    checkKeyFile(report, keyFile);

    const std::vector<Finding>& findings = report.findings();
    const bool printed = print(options.json ? formatJson(toJson(findings)) : toText(findings));
    const bool allWell = std::none_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.result == Result::failed;
    });
    return printed && allWell ? exit_status::success : exit_status::failure;
}

}  // namespace session_service::console
