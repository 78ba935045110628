#include "support/fault_injector.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace testbed {

namespace {

using Verdict = StoreProxy::Verdict;

// The first byte of a reply tells its kind.
constexpr char statusKind = '+';
constexpr char integerKind = ':';
constexpr char textKind = '$';
constexpr char arrayKind = '*';

constexpr const char* nil = "$-1\r\n";

char kindOfReplyTo(const std::string& command) {
    const std::map<std::string_view, char> kinds{
        {"AUTH", statusKind},  {"HGET", textKind},  {"HGETALL", arrayKind},
        {"LRANGE", arrayKind}, {"SCAN", arrayKind}, {"SUBSCRIBE", arrayKind},
    };
    const auto found = kinds.find(command);
    return found == kinds.end() ? integerKind : found->second;
}

}  // namespace

bool Fault::fits(const Words& command) const {
    if (endsConnection()) {
        return true;
    }
    const std::string& word = command.at(0);
    // A status other than OK and an array other than a page are faults, too.
    return word == "AUTH" || word == "SCAN" || verdict.bytes.front() != kindOfReplyTo(word) ||
           verdict.bytes == nil;
}

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
    return out << fault.name;
}

const std::vector<Fault>& storeFaults() {
    static const std::vector<Fault> faults{
        {"CutsTheConnectionBeforeIt", Verdict::cut},
        {"CutsTheConnectionAfterIt", Verdict::cutAfter},
        {"TruncatesTheReply", Verdict::truncate},
        {"RefusesWithAnError", Verdict::reply("-ERR fault\r\n"), "ERR fault"},
        {"IsOutOfMemory",
         Verdict::reply("-OOM command not allowed when used memory > 'maxmemory'.\r\n"),
         "OOM command not allowed when used memory > 'maxmemory'."},
        {"IsReadOnly", Verdict::reply("-READONLY You can't write against a read only replica.\r\n"),
         "READONLY You can't write against a read only replica."},
        {"AnswersNothing", Verdict::reply(nil)},
        {"AnswersWithAText", Verdict::reply("$5\r\nfault\r\n")},
        {"AnswersWithAStatus", Verdict::reply("+fault\r\n")},
        {"AnswersWithAnInteger", Verdict::reply(":7\r\n")},
        {"AnswersWithAnArray", Verdict::reply("*2\r\n$5\r\nfirst\r\n$6\r\nsecond\r\n"), "second"},
        arrayWithoutTexts(),
    };
    return faults;
}

const Fault& arrayWithoutTexts() {
    static const Fault fault{"AnswersWithAnArrayWithoutTexts",
                             Verdict::reply("*2\r\n$-1\r\n$-1\r\n"), ""};
    return fault;
}

FaultInjector::FaultInjector(Controller& controller) : proxy(controller) {
    proxy.setFilter([this](const Words& command) { return verdictOn(command); });
}

FaultInjector::Selector FaultInjector::newConnections() const {
    const std::lock_guard lock(mutex);
    return [first = static_cast<int>(connections.size())](const SentCommand& sent) {
        return sent.connection >= first;
    };
}

void FaultInjector::record(Selector selector) {
    begin(nullptr, 0, std::move(selector));
}

void FaultInjector::inject(const Fault& fault, std::size_t position, Selector selector) {
    begin([verdict = fault.verdict](const Words&) { return verdict; }, position,
          std::move(selector));
}

void FaultInjector::inject(StoreProxy::Filter filter, std::size_t position, Selector selector) {
    begin(std::move(filter), position, std::move(selector));
}

void FaultInjector::begin(StoreProxy::Filter filter, std::size_t position, Selector selector) {
    const std::lock_guard lock(mutex);
    recordBegin = sentCommands.size();
    selectedCount = 0;
    faultFilter = std::move(filter);
    faultPosition = position;
    selected = std::move(selector);
}

std::vector<FaultInjector::SentCommand> FaultInjector::recorded() const {
    const std::lock_guard lock(mutex);
    std::vector<SentCommand> commands;
    std::copy_if(sentCommands.begin() + static_cast<std::ptrdiff_t>(recordBegin),
                 sentCommands.end(), std::back_inserter(commands), selected);
    return commands;
}

void FaultInjector::hideSessionsFromExpiry() {
    const std::lock_guard lock(mutex);
    firstConnectionWithSessions = static_cast<int>(connections.size());
}

StoreProxy::Verdict FaultInjector::verdictOn(const Words& command) {
    StoreProxy::Filter filter;
    std::size_t index = 0;
    {
        const std::lock_guard lock(mutex);
        // The proxy serves each connection with a thread of its own, and joins none before its
        // end, so that no two connections have the same.
        const int connection =
            connections.try_emplace(std::this_thread::get_id(), connections.size()).first->second;
        if (connection < firstConnectionWithSessions && command.at(0) == "LRANGE") {
            return Verdict::reply("*0\r\n");
        }
        index = sentCommands.size();
        sentCommands.push_back({connection, command, false});
        if (selected && selected(sentCommands.back()) && selectedCount++ == faultPosition) {
            filter = faultFilter;
        }
    }
    Verdict verdict = filter ? filter(command) : Verdict::pass;
    const std::lock_guard lock(mutex);
    sentCommands[index].executed =
        verdict.action != Verdict::Action::cut && verdict.action != Verdict::Action::reply;
    return verdict;
}

}  // namespace testbed
