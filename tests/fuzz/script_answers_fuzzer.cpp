// Replies of the event and audit scripts in the store. Whatever they are, the log reports them
// properly, on one line, and the script gets every item as one argument.
// The input: the script's digest, a text from a client, and, from the third line on, the reply.
#include "events/audit_log.h"
#include "events/life_cycle.h"
#include "platform/config_file.h"
#include "store/resource_names.h"
#include "support/captured_stream.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

namespace session_service {
namespace {

using store::ScriptAnswer;

const std::string collection = "/redfish/v1/Systems/1/LogServices/Audit/Entries";

ScriptAnswer answerIn(const std::string& reply) {
    const FakeConnection connection({reply});
    return store::evalsha(connection.get(), "digest", {});
}

void tryEvents(const std::string& digest, const std::string& text, const std::string& reply,
               const ScriptAnswer& answer) {
    EventList events;
    appendEvent(events, "delete", text, "Session", "17");
    std::string expectedLog;
    if (answer.kind == ScriptAnswer::Kind::refused) {
        expectedLog = errorLine("Failed to generate life cycle event. " + answer.text);
    } else if (answer.kind == ScriptAnswer::Kind::unknown) {
        expectedLog = errorLine("Failed to generate life cycle event. (Unknown error)");
    }
    Commands expected{{"HGET", scriptDigestsKey, "resourceChange"}};
    if (digest.empty()) {
        expectedLog = errorLine("Cannot get SHA script resourceChange.");
    } else {
        expected.push_back(
            {"EVALSHA", digest, "5", "delete", text, "Session", "EventGroupId", "17"});
    }

    const FakeConnection connection({resp::bulk(digest), reply});
    const CapturedStream log(stderr);
    generateLifeCycleEvents(connection.get(), events);
    require(log.written() == expectedLog, "the log says why events were not generated");
    require(connection.takeCommands() == expected, "every item of an event is one argument");
}

// The setting is read once, and that is logged.
void readEventSetting() {
    const CapturedStream log(stderr);
    generateLifeCycleEvents(nullptr, {});
}

std::string auditLog(const ScriptAnswer& answer) {
    switch (answer.kind) {
        case ScriptAnswer::Kind::integer:
            if (answer.value == 0) {
                return debugLine(
                    "The LogEntry cannot be generated since logs already reached the max count.");
            }
            if (answer.value == 2) {
                return debugLine(
                    "The LogEntry is not generated since the severity of the message is not "
                    "desired.");
            }
            return {};
        case ScriptAnswer::Kind::refused:
            return errorLine("Failed to generate LogEntry. " + answer.text);
        case ScriptAnswer::Kind::unknown:
            return errorLine("Failed to generate LogEntry(unknown error).");
        case ScriptAnswer::Kind::lost:
            break;
    }
    return {};
}

void tryAudit(const std::string& digest, const std::string& text, const std::string& reply,
              const ScriptAnswer& answer) {
    const FakeConnection connection({resp::integer(1), resp::bulk(digest), reply});
    const CapturedStream log(stderr);
    generateAuditLogEntry(connection.get(), text, "AuditEvent.1.1.UserLogout", text);
    const Commands commands = connection.takeCommands();
    if (digest.empty()) {
        require(log.written() == errorLine("Cannot get SHA script logGeneratorHelper."),
                "a missing script is logged");
        require(commands.size() == 2, "a missing script is not run");
        return;
    }
    require(log.written() == auditLog(answer), "the log says why no entry was made");

    require(commands.size() == 3 && commands[2].size() >= 9, "one command runs the script");
    const std::string& timestamp = commands[2][5];
    Command expected{
        "EVALSHA", digest, "7", "CREATE", collection, timestamp, "AuditEvent.1.1.UserLogout",
        text,      "1"};
    store::appendWords(expected, text);
    require(commands[2] == expected, "only the message argument splits, at its blanks");
    require(timestamp.size() == 25, "a time stamp has one length");
}

}  // namespace
}  // namespace session_service

// A fake of the controller's configuration file.

std::string getConfigValue(const char* /*file*/, const char* key, std::size_t /*bufferSize*/) {
    return key == std::string("LogEntryCollection") ? session_service::collection : std::string();
}

int getPropertyValue(const char* /*file*/, const char* /*separator*/, const char* /*key*/,
                     char* /*buffer*/, std::size_t /*bufferSize*/) {
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    openLog();
    readEventSetting();
    std::string_view input = textOf(data, size);
    const std::string digest = upToNull(takeLine(input));
    const std::string text = takeLine(input);
    const std::string reply(input);
    const ScriptAnswer answer = answerIn(reply);
    tryEvents(digest, text, reply, answer);
    tryAudit(digest, text, reply, answer);
    return 0;
}
