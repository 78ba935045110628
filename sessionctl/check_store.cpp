#include "sessionctl/check_store.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/number.h"
#include "base/text_file.h"
#include "events/audit_log.h"
#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/configuration.h"
#include "platform/config_file.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/collection.h"
#include "sessions/create_session.h"
#include "sessions/records.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using Kind = store::Answer::Kind;

constexpr const char* programName = "session-service";
constexpr const char* seedAdvice = "Start the service that seeds the resources.";

// The value of a field of INFO's reply.
std::string infoField(const std::string& information, const std::string& name) {
    const std::size_t start = information.find('\n' + name + ':');
    if (start == std::string::npos) {
        return {};
    }
    const std::size_t value = start + name.size() + 2;
    return information.substr(value, information.find_first_of("\r\n", value) - value);
}

// The hash at the key. Empty, with the reason reported, when there is none.
std::optional<Fields> readResource(Report& report, redisContext* connection,
                                   const std::string& key) {
    const store::Answer answer = ask(connection, {"HGETALL", key});
    if (answer.kind == Kind::refused) {
        report.fail(key, escaped(answer.text) + ": remove the key. " + seedAdvice);
        return std::nullopt;
    }
    if (answer.elements.empty()) {
        report.fail(key, std::string("It is not in the store. ") + seedAdvice);
        return std::nullopt;
    }
    return store::fieldsOf(answer);
}

void checkService(Report& report, redisContext* connection) {
    if (const auto service = readResource(report, connection, serviceUri)) {
        const std::string timeout = fieldOf(*service, sessionTimeoutField);
        const std::string found =
            std::string(sessionTimeoutField) + " is \"" + escaped(timeout) + "\"";
        const std::int32_t seconds = parseSeconds(timeout);
        if (seconds <= 0) {
            report.fail(serviceUri, found + ": sessions expire at once. Give it seconds.");
        } else if (!isPlainNumber(timeout, seconds)) {
            report.warn(serviceUri, found + ", which counts as " + std::to_string(seconds) + ".");
        }
        const std::string enabled = fieldOf(*service, serviceEnabledField);
        if (enabled == "false") {
            report.warn(serviceUri, std::string(serviceEnabledField) +
                                        " is false: logins and deletions are refused.");
        } else if (enabled != "true") {
            report.warn(serviceUri, std::string(serviceEnabledField) + " is \"" + escaped(enabled) +
                                        "\", which counts as true.");
        }
    }
    report.conclude(serviceUri, "there, enabled, with a timeout");
}

std::string repairAdvice(const SessionView& view) {
    if (view.fault == namesNoSession) {
        return "; take it out of " + membersKey + " with LREM";
    }
    return view.fault == noSessionRecord ? "; \"sessionctl delete\" it" : "";
}

void checkMembers(Report& report, redisContext* connection, std::int32_t count) {
    const std::vector<std::string> members = readMembers(connection);
    if (static_cast<std::size_t>(count) != members.size()) {
        report.warn(collectionUri, membersCountField + " is " + std::to_string(count) +
                                       ", but the list has " + std::to_string(members.size()) +
                                       " members: set it to that.");
    }
    int taken = 0;
    for (const std::string& member : members) {
        const SessionView view = readMember(connection, member);
        taken += view.countsTowardLimit ? 1 : 0;
        if (!view.fault.empty()) {
            report.warn(collectionUri, "Member " + escaped(view.id) + ": " + view.fault +
                                           repairAdvice(view) + ".");
        }
    }
    if (taken >= maxSessions) {
        report.warn(collectionUri, "All " + std::to_string(maxSessions) +
                                       " places are taken, so logins are refused: see "
                                       "\"sessionctl list\", and \"sessionctl delete\" one.");
    }
}

void checkCollection(Report& report, redisContext* connection) {
    if (const auto collection = readResource(report, connection, collectionUri)) {
        const std::string stored = fieldOf(*collection, membersCountField);
        const auto count = parseInt32(stored).value;
        if (stored.empty()) {
            report.fail(collectionUri, membersCountField +
                                           " is missing: deletions leave members behind. Set it to "
                                           "their number.");
        } else if (!count || !isPlainNumber(stored, *count)) {
            report.warn(collectionUri, membersCountField + " is \"" + escaped(stored) +
                                           "\", with which the store cannot count. Set it to the "
                                           "number of members.");
        } else {
            try {
                checkMembers(report, connection, *count);
            } catch (const CommandError& error) {
                if (error.status == exit_status::storeUnavailable) {
                    throw;
                }
                report.fail(collectionUri, error.what());
            }
        }
    }
    report.conclude(collectionUri, "there, with places left");
}

std::string readSetting(const char* setting) {
    return getConfigValue(configurationFile, setting, settingBufferSize);
}

// Checks that the script is registered and loaded.
void checkScript(Report& report, redisContext* connection, const char* script) {
    const std::string subject = std::string("script ") + script;
    const store::Answer digest = ask(connection, {"HGET", scriptDigestsKey, script});
    if (digest.kind != Kind::text || digest.text.empty()) {
        report.fail(subject, "It is not registered in " + scriptDigestsKey +
                                 ": start the service that loads it.");
        return;
    }
    const store::Answer known = ask(connection, {"SCRIPT", "EXISTS", digest.text});
    if (known.elements.size() != 1 || known.elements.front().integer != 1) {
        report.fail(subject,
                    "It is registered, but not loaded, as after a restart of the store: "
                    "restart the service that loads it.");
    }
    report.conclude(subject, "registered and loaded");
}

// The file name of the program that the process of this folder runs. Who may not know it gets the
// name of the process, which may be the start of a longer one.
std::string programOf(const std::string& folder) {
    std::error_code unreadable;
    std::string name =
        std::filesystem::read_symlink(folder + "/exe", unreadable).filename().string();
    if (unreadable) {
        readLines((folder + "/comm").c_str(), [&](const std::string& line) {
            name = line;
            return false;
        });
    }
    // As it is called when an upgrade has replaced its file.
    constexpr std::string_view replaced = " (deleted)";
    if (name.ends_with(replaced)) {
        name.resize(name.size() - replaced.size());
    }
    return name;
}

// Whether the process of this folder sees the files that this one sees. Controllers in private
// roots, such as those of a testbed, have daemons of their own. True for who may not know.
bool hasThisRoot(const std::string& folder) {
    std::error_code unreadable;
    return std::filesystem::equivalent(folder + "/root/", "/", unreadable) || unreadable;
}

// The processes of the daemon, each with its number and, if it is the unit's, with that word.
std::vector<std::string> findDaemons() {
    std::vector<std::string> processes;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string folder = entry.path();
        if (programOf(folder) != programName || !hasThisRoot(folder)) {
            continue;
        }
        std::string unit;
        readLines((folder + "/cgroup").c_str(), [&](const std::string& line) {
            if (line.ends_with(std::string("/") + programName + ".service")) {
                unit = " (the unit's)";
            }
            return unit.empty();
        });
        processes.push_back(entry.path().filename().string() + unit);
    }
    return processes;
}

void checkQueue(Report& report, redisContext* connection, const std::string& queue,
                const std::string& channel) {
    const store::Answer answer = ask(connection, {"LRANGE", queue, "0", "-1"});
    if (answer.kind == Kind::refused) {
        report.fail(queue, escaped(answer.text) + ": remove the key, and start the daemon again.");
    } else if (answer.elements.empty()) {
        report.fail(queue, "It is empty: front ends do not find the daemon. Start it again.");
    } else if (!std::all_of(
                   answer.elements.begin(), answer.elements.end(),
                   [&](const store::Answer& element) { return element.text == channel; })) {
        report.fail(queue, "It names something else than " + channel +
                               ": remove the key, and start the daemon again.");
    }
    report.conclude(queue, "names its channel");
}

}  // namespace

void checkServer(Report& report, redisContext* connection, bool hasPassword) {
    const std::string subject = "Redis server";
    const std::string information = ask(connection, {"INFO"}).text;
    const std::string version = infoField(information, "redis_version");
    constexpr std::int64_t minVersion = 4;
    if (parseInt64(version).value < minVersion) {
        report.fail(subject, "Its version is \"" + escaped(version) + "\"; " +
                                 std::to_string(minVersion) + ".0 is the least.");
    }
    if (infoField(information, "role") == "slave") {
        report.fail(subject, "It is a replica and may refuse writes: use the primary server.");
    }
    const std::string port = infoField(information, "tcp_port");
    if (!hasPassword) {
        report.fail(subject,
                    "It has no password: whoever reaches it reads the tokens of all sessions.");
    }
    if (!port.empty() && port != "0") {
        report.warn(subject, "It listens on port " + escaped(port) +
                                 ", too, which every user of the machine reaches: \"port 0\".");
    }
    // A server may refuse to tell.
    const store::Answer save = ask(connection, {"CONFIG", "GET", "save"});
    if ((save.elements.size() == 2 && !save.elements[1].text.empty()) ||
        infoField(information, "aof_enabled") == "1") {
        report.warn(subject,
                    "It saves to the disk, tokens included, and sessions outlive a reboot: "
                    "\"save ''\", \"appendonly no\".");
    }
    report.conclude(subject, "version " + escaped(version));
}

void checkResources(Report& report, redisContext* connection) {
    checkService(report, connection);
    checkCollection(report, connection);
}

void checkStoredSettings(Report& report, redisContext* connection) {
    const store::Answer answer = ask(connection, {"HGETALL", defaultValuesKey});
    const Fields settings = store::fieldsOf(answer);
    if (answer.kind == Kind::refused) {
        report.warn(defaultValuesKey, escaped(answer.text) + ": the built-in values count.");
    }
    const std::string lifetime = fieldOf(settings, messageLifetimeField);
    if (!lifetime.empty() && parseInt64(lifetime).value <= 0) {
        report.warn(defaultValuesKey, std::string(messageLifetimeField) +
                                          " is no positive number: messages live for one second.");
    }
    const std::string maxId = fieldOf(settings, maxEventGroupField);
    if (!maxId.empty() &&
        (maxId.find('.') != std::string::npos || parseInt32(maxId).value.value_or(0) <= 0)) {
        report.warn(defaultValuesKey, std::string(maxEventGroupField) +
                                          " is no positive number: the built-in value counts.");
    }
    report.conclude(defaultValuesKey, "no bad values");
}

void checkScripts(Report& report, redisContext* connection) {
    if (readSetting(eventSetting) != "false") {
        checkScript(report, connection, eventScript);
    }
    const std::string collection = readSetting(auditSetting);
    if (collection.empty()) {
        return;
    }
    if (ask(connection, {"EXISTS", collection}).integer == 1) {
        checkScript(report, connection, auditScript);
    } else {
        report.warn(auditSetting,
                    escaped(collection) + " is not in the store: there are no audit entries.");
    }
}

void checkDaemon(Report& report, redisContext* connection) {
    checkQueue(report, connection, createQueue, createChannel);
    checkQueue(report, connection, deleteQueue, deleteChannel);
    checkQueue(report, connection, patchQueue, patchChannel);

    const std::string subject = "daemon";
    const store::Answer counts =
        ask(connection, {"PUBSUB", "NUMSUB", createChannel, deleteChannel, patchChannel});
    const std::array<const char*, 3> tasks{"logins", "deletions", "changes"};
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        const long long subscribers =
            counts.elements.size() == 2 * tasks.size() ? counts.elements[2 * i + 1].integer : 0;
        if (subscribers == 0) {
            report.fail(subject, std::string("Nobody listens for ") + tasks[i] +
                                     ": start the daemon again.");
        } else if (subscribers > 1) {
            report.warn(subject, std::to_string(subscribers) + " listen for " + tasks[i] +
                                     ": is the daemon running more than once?");
        }
    }
    if (const std::vector<std::string> processes = findDaemons(); processes.size() > 1) {
        std::string list;
        for (const std::string& process : processes) {
            list += (list.empty() ? "" : ", ") + process;
        }
        report.fail(subject, "It runs " + std::to_string(processes.size()) +
                                 " times and serves each request as often: end all but one of the "
                                 "processes " +
                                 list + ".");
    }
    report.conclude(subject, "listens for logins, deletions and changes");
}

}  // namespace session_service::console
