#include "sessionctl/check_store.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "events/audit_log.h"
#include "events/life_cycle.h"
#include "frame/file_names.h"
#include "frame/resource_names.h"
#include "platform/config_file.h"
#include "sessionctl/numbers.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/create_session.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

using Kind = store::Answer::Kind;

constexpr const char* seedAdvice = "Start the service that seeds the resources.";

// What INFO tells under this name.
std::string infoOf(const std::string& information, const std::string& name) {
    const std::size_t start = information.find('\n' + name + ':');
    if (start == std::string::npos) {
        return {};
    }
    const std::size_t value = start + name.size() + 2;
    return information.substr(value, information.find_first_of("\r\n", value) - value);
}

// The hash at the key. Nothing, with the reason told, when there is none.
std::optional<Fields> readResource(Report& report, redisContext* store, const std::string& key) {
    const store::Answer answer = ask(store, {"HGETALL", key});
    if (answer.kind == Kind::refused) {
        report.fail(key, harmless(answer.text) + ": remove the key. " + seedAdvice);
        return std::nullopt;
    }
    if (answer.elements.empty()) {
        report.fail(key, std::string("It is not in the store. ") + seedAdvice);
        return std::nullopt;
    }
    return store::fieldsOf(answer);
}

void checkService(Report& report, redisContext* store) {
    if (const auto service = readResource(report, store, serviceUri)) {
        const std::string timeout = fieldOf(*service, sessionTimeoutField);
        const std::string found =
            std::string(sessionTimeoutField) + " is \"" + harmless(timeout) + "\"";
        const std::int32_t seconds = parseSeconds(timeout);
        if (seconds <= 0) {
            report.fail(serviceUri, found + ": sessions expire at once. Give it seconds.");
        } else if (!isPlain(timeout, seconds)) {
            report.warn(serviceUri, found + ", which counts as " + std::to_string(seconds) + ".");
        }
        const std::string enabled = fieldOf(*service, serviceEnabledField);
        if (enabled == "false") {
            report.warn(serviceUri, std::string(serviceEnabledField) +
                                        " is false: logins and deletions are refused.");
        } else if (enabled != "true") {
            report.warn(serviceUri, std::string(serviceEnabledField) + " is \"" +
                                        harmless(enabled) + "\", which counts as true.");
        }
    }
    report.conclude(serviceUri, "there, enabled, with a timeout");
}

std::string adviceFor(const SessionView& view) {
    if (view.fault == namesNoSession) {
        return "; take it out of " + membersKey + " with LREM";
    }
    return view.fault == noSessionRecord ? "; \"sessionctl delete\" it" : "";
}

void checkMembers(Report& report, redisContext* store, std::int32_t count) {
    const std::vector<std::string> members = readMembers(store);
    if (static_cast<std::size_t>(count) != members.size()) {
        report.warn(collectionUri, membersCountField + " is " + std::to_string(count) +
                                       ", but the list has " + std::to_string(members.size()) +
                                       " members: set it to that.");
    }
    int taken = 0;
    for (const std::string& member : members) {
        const SessionView view = readMember(store, member);
        taken += view.counted ? 1 : 0;
        if (!view.fault.empty()) {
            report.warn(collectionUri,
                        "Member " + harmless(view.id) + ": " + view.fault + adviceFor(view) + ".");
        }
    }
    if (taken >= maxSessions) {
        report.warn(collectionUri, "All " + std::to_string(maxSessions) +
                                       " places are taken, so logins are refused: see "
                                       "\"sessionctl list\", and \"sessionctl delete\" one.");
    }
}

void checkCollection(Report& report, redisContext* store) {
    if (const auto collection = readResource(report, store, collectionUri)) {
        const std::string stored = fieldOf(*collection, membersCountField);
        const auto count = leadingNumber(stored);
        if (stored.empty()) {
            report.fail(collectionUri, membersCountField +
                                           " is missing: deletions leave members behind. Set it to "
                                           "their number.");
        } else if (!count || !isPlain(stored, *count)) {
            report.warn(collectionUri, membersCountField + " is \"" + harmless(stored) +
                                           "\", with which the store cannot count. Set it to the "
                                           "number of members.");
        } else {
            try {
                checkMembers(report, store, *count);
            } catch (const Problem& problem) {
                if (problem.status == storeUnreachable) {
                    throw;
                }
                report.fail(collectionUri, problem.what());
            }
        }
    }
    report.conclude(collectionUri, "there, with places left");
}

std::string configured(const char* setting) {
    return getConfigValue(configurationFile, setting, settingSize);
}

// One script whose digest has to be registered and loaded.
void checkScript(Report& report, redisContext* store, const char* script) {
    const std::string subject = std::string("script ") + script;
    const store::Answer digest = ask(store, {"HGET", scriptDigestsKey, script});
    if (digest.kind != Kind::text || digest.text.empty()) {
        report.fail(subject, "It is not registered in " + scriptDigestsKey +
                                 ": start the service that loads it.");
        return;
    }
    const store::Answer known = ask(store, {"SCRIPT", "EXISTS", digest.text});
    if (known.elements.size() != 1 || known.elements.front().integer != 1) {
        report.fail(subject,
                    "It is registered, but not loaded, as after a restart of the store: "
                    "restart the service that loads it.");
    }
    report.conclude(subject, "registered and loaded");
}

void checkQueue(Report& report, redisContext* store, const std::string& queue,
                const std::string& channel) {
    const store::Answer answer = ask(store, {"LRANGE", queue, "0", "-1"});
    if (answer.kind == Kind::refused) {
        report.fail(queue, harmless(answer.text) + ": remove the key, and start the daemon again.");
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

void checkServer(Report& report, redisContext* store) {
    const std::string subject = "Redis server";
    const std::string information = ask(store, {"INFO"}).text;
    const std::string version = infoOf(information, "redis_version");
    constexpr long leastVersion = 4;
    if (std::strtol(version.c_str(), nullptr, 10) < leastVersion) {
        report.fail(subject, "Its version is \"" + harmless(version) + "\"; " +
                                 std::to_string(leastVersion) + ".0 is the least.");
    }
    if (infoOf(information, "role") == "slave") {
        report.fail(subject, "It is a replica and may refuse writes: use the primary server.");
    }
    report.conclude(subject, "version " + harmless(version));
}

void checkResources(Report& report, redisContext* store) {
    checkService(report, store);
    checkCollection(report, store);
}

void checkStoredSettings(Report& report, redisContext* store) {
    const store::Answer answer = ask(store, {"HGETALL", defaultValuesKey});
    const Fields settings = store::fieldsOf(answer);
    if (answer.kind == Kind::refused) {
        report.warn(defaultValuesKey, harmless(answer.text) + ": the built-in values count.");
    }
    const std::string lifetime = fieldOf(settings, messageLifetimeField);
    if (!lifetime.empty() && std::strtoll(lifetime.c_str(), nullptr, 10) <= 0) {
        report.warn(defaultValuesKey, std::string(messageLifetimeField) +
                                          " is no positive number: messages live for one second.");
    }
    const std::string largest = fieldOf(settings, maxEventGroupField);
    if (!largest.empty() &&
        (largest.find('.') != std::string::npos || leadingNumber(largest).value_or(0) <= 0)) {
        report.warn(defaultValuesKey, std::string(maxEventGroupField) +
                                          " is no positive number: the built-in value counts.");
    }
    report.conclude(defaultValuesKey, "no bad values");
}

void checkScripts(Report& report, redisContext* store) {
    if (configured(eventSetting) != "false") {
        checkScript(report, store, eventScript);
    }
    const std::string collection = configured(auditSetting);
    if (collection.empty()) {
        return;
    }
    if (ask(store, {"EXISTS", collection}).integer == 1) {
        checkScript(report, store, auditScript);
    } else {
        report.warn(auditSetting,
                    harmless(collection) + " is not in the store: there are no audit entries.");
    }
}

void checkDaemon(Report& report, redisContext* store) {
    checkQueue(report, store, createQueue, createChannel);
    checkQueue(report, store, deleteQueue, deleteChannel);
    checkQueue(report, store, patchQueue, patchChannel);

    const std::string subject = "daemon";
    const store::Answer counts =
        ask(store, {"PUBSUB", "NUMSUB", createChannel, deleteChannel, patchChannel});
    const std::array<const char*, 3> tasks{"logins", "deletions", "changes"};
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        const long long listeners =
            counts.elements.size() == 2 * tasks.size() ? counts.elements[2 * i + 1].integer : 0;
        if (listeners == 0) {
            report.fail(subject, std::string("Nobody listens for ") + tasks[i] +
                                     ": start the daemon again.");
        } else if (listeners > 1) {
            report.warn(subject, std::to_string(listeners) + " listen for " + tasks[i] +
                                     ": is the daemon running more than once?");
        }
    }
    report.conclude(subject, "listens for logins, deletions and changes");
}

}  // namespace session_service::console
