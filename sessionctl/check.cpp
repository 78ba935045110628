#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "auth/group_settings.h"
#include "auth/pam_login.h"
#include "frame/configuration.h"
#include "service/persistent_properties.h"
#include "sessionctl/check_files.h"
#include "sessionctl/check_front_end.h"
#include "sessionctl/check_store.h"
#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessionctl/pam_service.h"
#include "sessionctl/store_access.h"
#include "sessions/create_session.h"

namespace session_service::console {
namespace {

using nlohmann::json;

constexpr const char* pamServiceFile = "/etc/pam.d/q73";
constexpr const char* frontEndFolder = "/usr/local/etc/nginx";

// What is in the store cannot be checked when the store is unavailable.
void checkStore(Report& report, std::chrono::seconds timeout) {
    const char* subject = "store";
    try {
        const OpenStore opened = openStore(timeout);
        redisContext* connection = opened.connection.get();
        report.conclude(subject, "answers at " + opened.address);
        checkServer(report, connection, opened.hasPassword);
        checkStoreFiles(report, opened.socket);
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

// What only root can read is not missing because somebody else cannot read it.
void requireRights() {
    for (const char* path : {"/etc/redis/redis.conf", keyFile}) {
        if (geteuid() != 0 && access(path, R_OK) != 0 && errno == EACCES) {
            throw CommandError(exit_status::failure,
                               std::string("Run this as root: ") + path + " is not for everybody.");
        }
    }
}

std::ptrdiff_t count(const std::vector<Finding>& findings, Result result) {
    return std::count_if(findings.begin(), findings.end(),
                         [&](const Finding& finding) { return finding.result == result; });
}

json toJson(const std::vector<Finding>& findings) {
    json list = json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"result", nameOf(finding.result)},
                        {"subject", finding.subject},
                        {"text", finding.text}});
    }
    return {{"findings", list},
            {"ok", count(findings, Result::ok)},
            {"warnings", count(findings, Result::warning)},
            {"failed", count(findings, Result::failed)}};
}

std::string toText(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        std::string result = nameOf(finding.result);
        result.resize(sizeof("warning"), ' ');
        text += result + ' ' + finding.subject + ": " + finding.text + '\n';
    }
    return text + "ok: " + std::to_string(count(findings, Result::ok)) +
           ", warnings: " + std::to_string(count(findings, Result::warning)) +
           ", failed: " + std::to_string(count(findings, Result::failed)) + '\n';
}

}  // namespace

int runCheck(const Options& options) {
    requireRights();
    Report report;
    checkStore(report, options.timeout);
    checkConfiguration(report, configurationFile);
    checkPamService(report, pamService);
    checkOwnership(report, pamServiceFile);
    checkGroups(report, groupFile);
    checkPrivileges(report, privilegeFile);
    checkPersistentProperties(report, propertyFile);
    checkKeyFile(report, keyFile);
    checkFrontEnd(report, frontEndFolder, options.timeout);

    const std::vector<Finding>& findings = report.findings();
    const bool printed = print(options.json ? formatJson(toJson(findings)) : toText(findings));
    return printed && count(findings, Result::failed) == 0 ? exit_status::success
                                                           : exit_status::failure;
}

}  // namespace session_service::console
