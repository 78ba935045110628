#include "support/store_faults.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace testbed {

namespace {

using Verdict = StoreRelay::Verdict;

// The first byte of a reply tells its kind.
constexpr char statusKind = '+';
constexpr char integerKind = ':';
constexpr char textKind = '$';
constexpr char arrayKind = '*';

constexpr char nil[] = "$-1\r\n";

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
    if (endsTheConnection()) {
        return true;
    }
    const std::string& word = command.at(0);
    // A status other than OK and an array other than a page are faults, too.
    return word == "AUTH" || word == "SCAN" || verdict.reply.front() != kindOfReplyTo(word) ||
           verdict.reply == nil;
}

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
    return out << fault.name;
}

const std::vector<Fault>& storeFaults() {
    static const std::vector<Fault> faults{
        {"CutsTheConnectionBeforeIt", Verdict::cut},
        {"CutsTheConnectionAfterIt", Verdict::cutAfter},
        {"TruncatesTheReply", Verdict::truncate},
        {"RefusesWithAnError", Verdict::answer("-ERR fault\r\n"), "ERR fault"},
        {"IsOutOfMemory",
         Verdict::answer("-OOM command not allowed when used memory > 'maxmemory'.\r\n"),
         "OOM command not allowed when used memory > 'maxmemory'."},
        {"IsReadOnly",
         Verdict::answer("-READONLY You can't write against a read only replica.\r\n"),
         "READONLY You can't write against a read only replica."},
        {"AnswersNothing", Verdict::answer(nil)},
        {"AnswersWithAText", Verdict::answer("$5\r\nfault\r\n")},
        {"AnswersWithAStatus", Verdict::answer("+fault\r\n")},
        {"AnswersWithAnInteger", Verdict::answer(":7\r\n")},
        {"AnswersWithAnArray", Verdict::answer("*2\r\n$5\r\nfirst\r\n$6\r\nsecond\r\n"), "second"},
        arrayWithoutTexts(),
    };
    return faults;
}

const Fault& arrayWithoutTexts() {
    static const Fault fault{"AnswersWithAnArrayWithoutTexts",
                             Verdict::answer("*2\r\n$-1\r\n$-1\r\n"), ""};
    return fault;
}

FaultyStore::FaultyStore(Controller& controller) : relay_(controller) {
    relay_.judge([this](const Words& command) { return judge(command); });
}

FaultyStore::Which FaultyStore::openedFromNowOn() const {
    const std::lock_guard lock(mutex_);
    return [first = static_cast<int>(connections_.size())](const Sent& sent) {
        return sent.connection >= first;
    };
}

void FaultyStore::watch(Which which) {
    begin(nullptr, 0, std::move(which));
}

void FaultyStore::strike(const Fault& fault, std::size_t at, Which which) {
    begin([verdict = fault.verdict](const Words&) { return verdict; }, at, std::move(which));
}

void FaultyStore::strike(StoreRelay::Judge judge, std::size_t at, Which which) {
    begin(std::move(judge), at, std::move(which));
}

void FaultyStore::begin(StoreRelay::Judge judge, std::size_t at, Which which) {
    const std::lock_guard lock(mutex_);
    begin_ = everything_.size();
    passed_ = 0;
    struck_ = std::move(judge);
    at_ = at;
    which_ = std::move(which);
}

std::vector<FaultyStore::Sent> FaultyStore::seen() const {
    const std::lock_guard lock(mutex_);
    std::vector<Sent> record;
    std::copy_if(everything_.begin() + static_cast<std::ptrdiff_t>(begin_), everything_.end(),
                 std::back_inserter(record), which_);
    return record;
}

void FaultyStore::blindTheExpiry() {
    const std::lock_guard lock(mutex_);
    sighted_ = static_cast<int>(connections_.size());
}

StoreRelay::Verdict FaultyStore::judge(const Words& command) {
    StoreRelay::Judge struck;
    std::size_t index = 0;
    {
        const std::lock_guard lock(mutex_);
        // The relay serves each connection with a thread of its own, and joins none before its
        // end, so that no two connections have the same.
        const int connection =
            connections_.try_emplace(std::this_thread::get_id(), connections_.size()).first->second;
        if (connection < sighted_ && command.at(0) == "LRANGE") {
            return Verdict::answer("*0\r\n");
        }
        index = everything_.size();
        everything_.push_back({connection, command, false});
        if (which_ && which_(everything_.back()) && passed_++ == at_) {
            struck = struck_;
        }
    }
    Verdict verdict = struck ? struck(command) : Verdict::pass;
    const std::lock_guard lock(mutex_);
    everything_[index].carriedOut =
        verdict.fate != Verdict::Fate::cut && verdict.fate != Verdict::Fate::answered;
    return verdict;
}

}  // namespace testbed
