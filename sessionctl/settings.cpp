// The settings of the service: sessionctl timeout, enable and disable.
#include <unistd.h>

#include <cstdio>

#include "events/event_group.h"
#include "events/life_cycle.h"
#include "frame/configuration.h"
#include "platform/config_file.h"
#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/commands.h"
#include "sessionctl/daemon_request.h"
#include "sessionctl/output.h"
#include "sessionctl/redirection.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "store/entity_tag.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using nlohmann::json;
using Kind = store::Answer::Kind;

// Without the service resource a change would make a fragment of one.
std::string readProperty(redisContext* connection, const char* name) {
    const store::Answer answer = ask(connection, {"HGET", serviceUri, name});
    if (answer.kind == Kind::refused) {
        throw CommandError(exit_status::failure, serviceUri + ": " + escaped(answer.text) + ".");
    }
    if (answer.kind != Kind::text) {
        throw CommandError(exit_status::failure,
                           serviceUri + " has no " + name +
                               " in the store. Start the service that seeds the resources.");
    }
    return answer.text;
}

// Prints what has come of a change, and returns the exit status.
int report(const Options& options, const json& document, const std::string& sentence) {
    return print(options.json ? formatJson(document) : sentence) ? exit_status::success
                                                                 : exit_status::failure;
}

// The same event as for a change that the daemon makes. Returns why there is none; empty when there
// is, or when events are switched off.
std::string generateChangeEvent(redisContext* connection) {
    if (getConfigValue(configurationFile, eventSetting, settingBufferSize) == "false") {
        return {};
    }
    const std::string digest = store::hget(connection, scriptDigestsKey, eventScript);
    if (digest.empty()) {
        return "its script is not registered";
    }
    EventList keys;
    {
        // It logs how it counts.
        const Redirection quiet(STDERR_FILENO, openNullDevice().get());
        appendEvent(keys, "change", serviceUri, "SessionService",
                    std::to_string(nextEventGroupId(connection)));
    }
    keys.insert(keys.begin(), std::to_string(keys.size()));
    const store::ScriptAnswer answer = store::evalsha(connection, digest, keys);
    if (answer.kind == store::ScriptAnswer::Kind::integer) {
        return {};
    }
    return answer.text.empty() ? "the store did not say why" : escaped(answer.text);
}

}  // namespace

int runTimeout(const Options& options, int seconds) {
    const OpenStore opened = openStore(options.timeout);
    redisContext* connection = opened.connection.get();
    const std::string wanted = std::to_string(seconds);
    const std::string before = readProperty(connection, sessionTimeoutField);
    const DaemonReply reply = requestFromDaemon(options, connection,
                                                {.noun = "change",
                                                 .pluralNoun = "changes",
                                                 .method = "PATCH",
                                                 .channel = patchChannel,
                                                 .target = serviceUri,
                                                 .body = {{sessionTimeoutField, wanted}}});
    const bool done = reply.status == reply_status::ok;
    const json document{{"property", sessionTimeoutField},
                        {"value", seconds},
                        {"changed", done && before != wanted},
                        {"status", reply.status},
                        {"messages", reply.messages}};
    if (!done) {
        if (options.json) {
            print(formatJson(document));
            return exit_status::failure;
        }
        throw CommandError(exit_status::failure, "The daemon answers: " + describe(reply) + ".");
    }
    return report(options, document,
                  before == wanted
                      ? "The timeout is " + wanted + " seconds already.\n"
                      : "The timeout of new sessions is " + wanted + " seconds. It was " +
                            escaped(before) + ", which sessions that exist keep.\n");
}

int runEnable(const Options& options, bool enabled) {
    const OpenStore opened = openStore(options.timeout);
    redisContext* connection = opened.connection.get();
    const std::string wanted = enabled ? "true" : "false";
    const std::string state = enabled ? "on" : "off";
    const bool changed = readProperty(connection, serviceEnabledField) != wanted;
    const json document{
        {"property", serviceEnabledField}, {"value", enabled}, {"changed", changed}};
    if (!changed) {
        return report(options, document, "The service is switched " + state + " already.\n");
    }
    const store::Answer answer = ask(connection, {"HSET", serviceUri, serviceEnabledField, wanted});
    if (answer.kind != Kind::integer) {
        throw CommandError(exit_status::failure,
                           "The store does not take the change: " + escaped(answer.text) + ".");
    }
    updateEtag(connection, serviceUri);
    if (const std::string fault = generateChangeEvent(connection); !fault.empty()) {
        std::fprintf(stderr, "sessionctl: There is no event of the change: %s.\n", fault.c_str());
    }
    return report(options, document,
                  "The service is switched " + state + ": logins and logouts are " +
                      (enabled ? "admitted" : "refused; sessions go on and expire") +
                      ".\nThe daemon does not change this on request: it was written into the "
                      "store, with its\nevent, and lasts until the store is started empty.\n");
}

}  // namespace session_service::console
