#include "support/store_fault_test.h"

#include <algorithm>

#include "testbed/events_and_audit_log.h"

namespace testbed {

std::function<Lines(const Fault&)> always(const Lines& lines) {
    return [=](const Fault&) { return lines; };
}
std::function<Lines(const Fault&)> onAnError(const Lines& lines) {
    return [=](const Fault& fault) { return fault.isError() ? lines : Lines{}; };
}
std::function<Lines(const Fault&)> withReason(const std::string& line, const std::string& unknown) {
    return [=](const Fault& fault) { return Lines{fault.reason ? line + *fault.reason : unknown}; };
}

Lines joined(std::initializer_list<Lines> parts) {
    Lines whole;
    for (const Lines& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

Effects effectsOf(const Steps& steps, std::size_t begin, std::size_t end) {
    Effects effects;
    for (std::size_t i = begin; i < end; ++i) {
        effects.insert(steps.at(i).effects.begin(), steps.at(i).effects.end());
    }
    return effects;
}
Lines linesOf(const Steps& steps, std::size_t begin, std::size_t end) {
    Lines lines;
    for (std::size_t i = begin; i < end; ++i) {
        lines = joined({lines, steps.at(i).logs});
    }
    return lines;
}

Effects effectsWith(const Fault& fault, const Steps& steps, std::size_t at) {
    const Step& step = steps.at(at);
    Effects effects = effectsOf(steps, 0, fault.isExecuted() ? at + 1 : at);
    if (fault.endsConnection()) {
        effects.insert(step.effectsWhenLost.begin(), step.effectsWhenLost.end());
        return effects;
    }
    if (!step.endsTheTask) {
        effects.merge(effectsOf(steps, at + 1, steps.size()));
    }
    for (const std::string& effect : step.missingEffects) {
        effects.erase(effect);
    }
    effects.insert(step.otherEffects.begin(), step.otherEffects.end());
    return effects;
}
Lines linesWith(const Fault& fault, const Steps& steps, std::size_t at) {
    const Step& step = steps.at(at);
    const Lines before = linesOf(steps, 0, at);
    if (fault.endsConnection()) {
        return joined({before, step.logsWhenLost});
    }
    const Lines after = step.endsTheTask ? Lines{} : linesOf(steps, at + 1, steps.size());
    return joined({before, step.logsWhenAnswered(fault), after});
}

bool matches(const Step& step, const Words& command) {
    return std::all_of(step.command.begin(), step.command.end(), [&](const std::string& word) {
        return std::find(command.begin(), command.end(), word) != command.end();
    });
}

void StoreFaultTest::SetUp() {
    PermissivePamTest::SetUp();
    // With a fraction each request asks for the maximum. The messages live longer than they
    // do without a setting.
    store().hset("webDefaultValue", {{"MAX_EVENT_GROUP_ID", "65535.5"},
                                     {"REDIS_CONNECTION_DEFAULT_TIMEOUT", "99000"}});
    endExpiry();
    // What is logged only once, at the first event, is logged now.
    frontEnd().remove(frontEnd().insertSession().uri);
    checkedLines = logLines().size();
}

void StoreFaultTest::injectAtEachCommand(const Steps& steps) {
    const std::vector<Words> commands = expectWithoutFault(steps);
    ASSERT_EQ(commands.size(), steps.size());
    expectLines(linesOf(steps, 0, steps.size()));
    for (std::size_t at = 0; at < steps.size(); ++at) {
        ASSERT_TRUE(matches(steps[at], commands[at])) << testing::PrintToString(commands[at]);
        if (!GetParam().fits(commands[at])) {
            continue;
        }
        SCOPED_TRACE("at " + testing::PrintToString(commands[at]));
        injector.inject(GetParam(), at, injector.newConnections());
        EXPECT_EQ(effectsOfRequest(at + 1), effectsWith(GetParam(), steps, at));
        // Requests are served one after the other: the one before has logged everything when
        // this one is over.
        expectWithoutFault(steps);
        expectLines(joined({linesWith(GetParam(), steps, at), linesOf(steps, 0, steps.size())}));
    }
}

// The passes of an expiry that has lost its connection hold up no request.
void StoreFaultTest::endExpiry() {
    const Words listing{"LRANGE", membersKey, "0", "-1"};
    injector.inject([](const Words&) { return StoreProxy::Verdict::cut; }, 0,
                    [=](const FaultInjector::SentCommand& sent) { return sent.words == listing; });
    waitUntil("the expiry has lost its connection",
              [this] { return !injector.recorded().empty(); });
}

// Returns the commands of the request.
std::vector<Words> StoreFaultTest::expectWithoutFault(const Steps& steps) {
    injector.record(injector.newConnections());
    EXPECT_EQ(effectsOfRequest(steps.size()), effectsOf(steps, 0, steps.size()));
    std::vector<Words> commands;
    for (const FaultInjector::SentCommand& sent : injector.recorded()) {
        commands.push_back(sent.words);
    }
    return commands;
}

// Of a request that sends that many commands at least.
Effects StoreFaultTest::effectsOfRequest(std::size_t commands) {
    store().del(eventStream);
    store().hset(eventServiceUri, {{eventGroupCounter, "41"}});
    Request request = prepare();
    EXPECT_EQ(request.send(), 1);
    waitUntil("the request is over",
              [&] { return injector.recorded().size() >= commands && isIdle(); });

    Effects effects;
    const Note note = [&](bool isDone, const std::string& effect) {
        if (isDone) {
            effects.insert(effect);
        }
    };
    noteEffectsOf(request, note);
    const std::string group = store().hget(eventServiceUri, eventGroupCounter);
    note(group != "41", "counts event group " + group);
    for (const Words& event : lifeCycleEvents(store())) {
        note(true, "tells of " + event.at(0) + " in " + event.at(3));
    }
    noteReply(request, note);
    note(request.publishedAlready() == request.replyKey(), "publishes");
    return effects;
}

// Messages are looked at as they were written: they leave by themselves.
void StoreFaultTest::noteReply(const Request& request, const Note& note) {
    for (const auto& [field, value] : store().hgetall(request.replyKey())) {
        note(field == "&&ReturnStatus", "answers " + value);
        note(field == "&&ExtendedInfo", "names the messages");
    }
    for (const std::string& owner : {request.requestKey(), request.replyKey()}) {
        const std::string list = owner + "/ExtendedInfo";
        for (const auto& [connection, words, isExecuted] : injector.recorded()) {
            if (!isExecuted || words.size() < 3) {
                continue;
            }
            const bool isKept = words[0] == "EXPIRE";
            const std::string time = isKept && words[2] == "6" ? " briefly" : "";
            note(isKept && words[1] == list, "keeps the list" + time);
            note(isKept && words[1] == list + "/1", "keeps the message" + time);
            note(words == Words{"LPUSH", list, list + "/1"}, "lists the message");
            note(words[0] == "HSET" && words[1] == list + "/1", "writes " + words.back());
        }
    }
}

// Whether the daemon has no connection but its threads' own.
bool StoreFaultTest::isIdle() {
    constexpr std::ptrdiff_t standardStreams = 3;
    constexpr std::ptrdiff_t threads = 4;
    return openDescriptors() == standardStreams + threads;
}

// What the log holds beyond what was looked at before.
void StoreFaultTest::expectLines(const Lines& expected) {
    Lines lines;
    for (const std::vector<LogLine> all = logLines(); checkedLines < all.size(); ++checkedLines) {
        const LogLine& line = all[checkedLines];
        lines.push_back(line.tag + " " + line.message);
        if (line.tag == "[Error]") {
            expectErrorLine(line.message);
        }
    }
    EXPECT_EQ(lines, expected);
}

}  // namespace testbed
