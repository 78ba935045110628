// Texts read as numbers: single ones, lists of privileges, the lifetime of messages. Each result
// is compared with that of reading digit by digit.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "auth/privileges.h"
#include "base/number.h"
#include "protocol/replies.h"
#include "support/captured_stream.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

namespace session_service {
namespace {

constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t smallest = std::numeric_limits<std::int32_t>::min();

// The number at the start of the text, limited to a thousand times the range of 32 bits.
std::optional<std::int64_t> readDigits(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    std::optional<std::int64_t> number;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') {
            break;
        }
        number = std::min(number.value_or(0) * 10 + (digit - '0'), 1000 * (largest + 1));
    }
    return negative && number ? -*number : number;
}

enum class Verdict { number, noDigits, outOfRange };

struct Reading {
    Verdict verdict;
    std::int32_t value = 0;
};

Reading readNumber(std::string_view text) {
    const std::optional<std::int64_t> number = readDigits(text);
    if (!number) {
        return {Verdict::noDigits};
    }
    if (*number < smallest || *number > largest) {
        return {Verdict::outOfRange};
    }
    return {Verdict::number, static_cast<std::int32_t>(*number)};
}

void checkNumber(const std::string& text) {
    const Reading expected = readNumber(text);
    const ParsedInt32 number = parseInt32(text);
    require(number.value.has_value() == (expected.verdict == Verdict::number),
            "a text gives a number when it begins with one of 32 bits");
    require(number.value.value_or(0) == expected.value, "the number is what the digits say");
    require(
        (number.error == NumberError::noDigits) == (expected.verdict == Verdict::noDigits) &&
            (number.error == NumberError::outOfRange) == (expected.verdict == Verdict::outOfRange),
        "what is no number is told by its reason");
}

void checkPrivilegeList(const std::string& text) {
    const CapturedStream log(stderr);
    const std::vector<std::int32_t> masks = parsePrivilegeList(text);
    std::string lines;
    std::string_view rest = text;
    std::int32_t previous = 0;
    for (const std::int32_t mask : masks) {
        const std::size_t comma = rest.find(',');
        const Reading expected = readNumber(rest.substr(0, comma));
        previous = expected.verdict == Verdict::number ? expected.value : previous;
        require(mask == previous, "a piece gives its number, or repeats the one before");
        if (expected.verdict != Verdict::number) {
            lines += expected.verdict == Verdict::noDigits
                         ? "[Error]: Privilege value type error stoi\n"
                         : "[Error]: Privilege value out of range stoi\n";
        }
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    }
    require(
        static_cast<std::ptrdiff_t>(masks.size()) == std::count(text.begin(), text.end(), ',') + 1,
        "a list has one mask more than it has commas");
    require(log.written() == lines, "every piece that is no number makes one line");
}

void checkRequiredPrivilege(const std::string& user, const std::string& list) {
    const CapturedStream log(stderr);
    const std::int32_t privilege = parseUserPrivilege(user);
    const std::vector<std::int32_t> masks = parsePrivilegeList(list);
    require(privilege == readNumber(user).value, "a privilege that is no number is none");
    const bool granted = std::any_of(masks.begin(), masks.end(), [&](std::int32_t mask) {
        return (mask | privilege) == privilege;
    });
    require(hasRequiredPrivilege(privilege, masks) == granted,
            "a privilege that covers one mask of the list is enough, and no other is");
    require(hasRequiredPrivilege(-1, masks), "who has every bit may do everything");
}

// The setting is the text, in milliseconds.
void checkLifetime(const std::string& setting) {
    const std::string text = upToNull(setting);
    const std::int64_t seconds = readDigits(text).value_or(0) / 1000;
    const std::int64_t lifetime =
        text.empty() ? 6 : std::clamp<std::int64_t>(seconds, 0, largest - 1) + 1;
    const FakeConnection store({resp::integer(0), resp::bulk(text), resp::integer(1),
                                resp::integer(1), resp::integer(1), resp::integer(1)});
    writeExtendedMessage(store.get(), "list", "Base.1.12.Success", {});
    const Commands commands = store.takeCommands();
    require(commands.size() == 6, "a message is six commands");
    require(commands[4] == Command{"EXPIRE", "list", std::to_string(lifetime)} &&
                commands[5] == Command{"EXPIRE", "list/1", std::to_string(lifetime)},
            "a message lives for the setting's seconds and one more");
}

}  // namespace
}  // namespace session_service

// The sections: a number, a list of privileges, a user's privilege.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    openLog();
    InputSections sections(data, size);
    const std::string text = sections.next();
    const std::string list = sections.next();
    checkNumber(text);
    checkLifetime(text);
    checkPrivilegeList(list);
    checkRequiredPrivilege(sections.next(), list);
    return 0;
}
