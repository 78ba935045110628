#include "support/store_fault_walk.h"

#include <algorithm>

#include "support/trail.h"

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

Lines together(std::initializer_list<Lines> parts) {
    Lines whole;
    for (const Lines& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

Deeds deedsOf(const Road& road, std::size_t begin, std::size_t end) {
    Deeds deeds;
    for (std::size_t i = begin; i < end; ++i) {
        deeds.insert(road.at(i).does.begin(), road.at(i).does.end());
    }
    return deeds;
}
Lines linesOf(const Road& road, std::size_t begin, std::size_t end) {
    Lines lines;
    for (std::size_t i = begin; i < end; ++i) {
        lines = together({lines, road.at(i).logs});
    }
    return lines;
}

Deeds deedsWith(const Fault& fault, const Road& road, std::size_t at) {
    const Step& step = road.at(at);
    Deeds deeds = deedsOf(road, 0, fault.isCarriedOut() ? at + 1 : at);
    if (fault.endsTheConnection()) {
        deeds.insert(step.alsoWhenLost.begin(), step.alsoWhenLost.end());
        return deeds;
    }
    if (!step.leavesTheRoad) {
        deeds.merge(deedsOf(road, at + 1, road.size()));
    }
    for (const std::string& deed : step.without) {
        deeds.erase(deed);
    }
    deeds.insert(step.instead.begin(), step.instead.end());
    return deeds;
}
Lines linesWith(const Fault& fault, const Road& road, std::size_t at) {
    const Step& step = road.at(at);
    const Lines before = linesOf(road, 0, at);
    if (fault.endsTheConnection()) {
        return together({before, step.lost});
    }
    const Lines after = step.leavesTheRoad ? Lines{} : linesOf(road, at + 1, road.size());
    return together({before, step.answered(fault), after});
}

bool isMeant(const Step& step, const Words& command) {
    return std::all_of(step.command.begin(), step.command.end(), [&](const std::string& word) {
        return std::find(command.begin(), command.end(), word) != command.end();
    });
}

void RequestsOnAFaultyStore::SetUp() {
    WelcomingTest::SetUp();
    // With a fraction each request asks for the maximum. The messages live longer than they
    // do without a setting.
    store().hset("webDefaultValue", {{"MAX_EVENT_GROUP_ID", "65535.5"},
                                     {"REDIS_CONNECTION_DEFAULT_TIMEOUT", "99000"}});
    endTheExpiry();
    // What is told once, at the first event, is told now.
    frontEnd().remove(frontEnd().insertSession().uri);
    lines_ = logLines().size();
}

void RequestsOnAFaultyStore::walk(const Road& road) {
    const std::vector<Words> commands = expectUndisturbed(road);
    ASSERT_EQ(commands.size(), road.size());
    expectLines(linesOf(road, 0, road.size()));
    for (std::size_t at = 0; at < road.size(); ++at) {
        ASSERT_TRUE(isMeant(road[at], commands[at])) << testing::PrintToString(commands[at]);
        if (!GetParam().fits(commands[at])) {
            continue;
        }
        SCOPED_TRACE("at " + testing::PrintToString(commands[at]));
        faulty_.strike(GetParam(), at, faulty_.openedFromNowOn());
        EXPECT_EQ(deedsOfARequest(at + 1), deedsWith(GetParam(), road, at));
        // Requests are served one after the other: what is to be said of the one before is
        // said now.
        expectUndisturbed(road);
        expectLines(together({linesWith(GetParam(), road, at), linesOf(road, 0, road.size())}));
    }
}

// The passes of an expiry that has lost its connection keep nobody waiting.
void RequestsOnAFaultyStore::endTheExpiry() {
    const Words listing{"LRANGE", membersKey, "0", "-1"};
    faulty_.strike([](const Words&) { return StoreRelay::Verdict::cut; }, 0,
                   [=](const FaultyStore::Sent& sent) { return sent.words == listing; });
    waitUntil("the expiry has lost its connection", [this] { return !faulty_.seen().empty(); });
}

// Returns the commands of the request.
std::vector<Words> RequestsOnAFaultyStore::expectUndisturbed(const Road& road) {
    faulty_.watch(faulty_.openedFromNowOn());
    EXPECT_EQ(deedsOfARequest(road.size()), deedsOf(road, 0, road.size()));
    std::vector<Words> commands;
    for (const FaultyStore::Sent& sent : faulty_.seen()) {
        commands.push_back(sent.words);
    }
    return commands;
}

// Of a request that sends that many commands at least.
Deeds RequestsOnAFaultyStore::deedsOfARequest(std::size_t commands) {
    store().del("&&EventStream");
    store().hset(eventServiceUri, {{eventGroupCounter, "41"}});
    Request request = prepare();
    EXPECT_EQ(request.send(), 1);
    waitUntil("the request is over", [&] { return faulty_.seen().size() >= commands && isIdle(); });

    Deeds deeds;
    const Note note = [&](bool isDone, const std::string& deed) {
        if (isDone) {
            deeds.insert(deed);
        }
    };
    noteDeedsOf(request, note);
    const std::string group = store().hget(eventServiceUri, eventGroupCounter);
    note(group != "41", "counts event group " + group);
    for (const Words& event : lifeCycleEvents(store())) {
        note(true, "tells of " + event.at(0) + " in " + event.at(3));
    }
    noteTheAnswer(request, note);
    note(request.publishedAlready() == request.replyKey(), "publishes");
    return deeds;
}

// Messages are looked at as they were written: they leave by themselves.
void RequestsOnAFaultyStore::noteTheAnswer(const Request& request, const Note& note) {
    for (const auto& [field, value] : store().hgetall(request.replyKey())) {
        note(field == "&&ReturnStatus", "answers " + value);
        note(field == "&&ExtendedInfo", "names the messages");
    }
    for (const std::string& owner : {request.requestKey(), request.replyKey()}) {
        const std::string list = owner + "/ExtendedInfo";
        for (const auto& [connection, words, isCarriedOut] : faulty_.seen()) {
            if (!isCarriedOut || words.size() < 3) {
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
bool RequestsOnAFaultyStore::isIdle() {
    constexpr std::ptrdiff_t standardStreams = 3;
    constexpr std::ptrdiff_t threads = 4;
    return openDescriptors() == standardStreams + threads;
}

// What the log holds beyond what was looked at before.
void RequestsOnAFaultyStore::expectLines(const Lines& expected) {
    Lines lines;
    for (const std::vector<LogLine> all = logLines(); lines_ < all.size(); ++lines_) {
        const LogLine& line = all[lines_];
        lines.push_back(line.tag + " " + line.message);
        if (line.tag == "[Error]") {
            expectErrorLine(line.message);
        }
    }
    EXPECT_EQ(lines, expected);
}

}  // namespace testbed
