// Stored data, converted to JSON and to the properties of a request's body. Whatever it is, the
// result is JSON of bounded depth, or a failure.
// The input is used twice: as replies, and as the elements of lists and hashes.
#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "platform/json_generation.h"
#include "protocol/body_conversion.h"
#include "service/patch.h"
#include "support/captured_stream.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

namespace session_service {
namespace {

using nlohmann::json;

constexpr int maxLevels = 32;
constexpr std::size_t maxConnections = 8;

int levelsOf(const json& value) {
    int levels = 0;
    for (const json& element : value) {
        if (element.is_structured()) {
            levels = std::max(levels, levelsOf(element));
        }
    }
    return levels + 1;
}

// Checks JSON text of an object or array.
void checkJson(const std::string& text, json::value_t kind) {
    const json value = json::parse(text, nullptr, false);
    require(value.type() == kind, "the text is JSON of its kind");
    require(levelsOf(value) <= maxLevels, "the text nests no deeper than its limit");
}

// Takes ownership of a conversion's result, which may be null.
void checkResult(char* text, json::value_t kind) {
    if (text) {
        checkJson(text, kind);
    }
    std::free(text);
}

void tryConversions(const Replies& replies) {
    const FakeConnection connection(replies);
    checkResult(convertArrayDataToJsonString(connection.get(), "list"), json::value_t::array);
    FakeStore server({replies});
    checkResult(convertRedisDataToJsonString("hash"), json::value_t::object);

    for (const Commands& commands :
         {connection.takeCommands(), server.connections()[0].takeCommands()}) {
        require(!commands.empty() && commands.size() <= replies.size() + 1,
                "data that has an end is read once");
        for (const Command& command : commands) {
            require(command.size() == (command[0] == "HGETALL" ? 2 : 4) &&
                        (command[0] == "HGETALL" || command[0] == "LRANGE"),
                    "a conversion only reads");
        }
    }
}

void tryToken(const std::string& field, const Replies& replies) {
    const FakeConnection connection(replies);
    FakeStore server({replies});
    const CapturedStream log(stderr);
    std::string property = "kept";
    std::string text = "kept";
    const bool converted = convertTokenField(connection.get(), field, property, text);
    require(isLog(log.written()), "a token that is wrong is logged on one line");
    if (!converted) {
        require(property == "kept" && text == "kept", "a failure leaves the outputs alone");
        return;
    }
    require(log.written().empty(), "a token that is right is not logged");
    const std::vector<std::string> words = splitWords(field, ' ');
    require(words.size() == 3 && words[1] == property, "a property is the token's second word");
    checkJson(text, words[0] == "&&Array" ? json::value_t::array : json::value_t::object);
}

void tryBody(const Replies& replies) {
    const FakeConnection connection(replies);
    FakeStore server(std::vector<Replies>(maxConnections, replies));
    const CapturedStream log(stderr);
    FieldMap body;
    try {
        store::hgetall(connection.get(), "body", body);
    } catch (const std::logic_error&) {
        return;
    }
    const FieldMap fields = body;
    convertBody(connection.get(), body);
    require(isLog(log.written()), "fields that are wrong are logged on one line each");
    require(body.size() <= fields.size(), "a field gives one property at most");
    for (const auto& [name, value] : fields) {
        // A token field that gives the same property lies before it.
        require(name.starts_with("&&") || fieldOf(body, name) == value,
                "a plain field stays as it is");
    }
}

void tryPatch(const Replies& replies) {
    const FakeConnection connection(replies);
    FakeStore server(std::vector<Replies>(maxConnections, replies));
    const CapturedStream log(stderr);
    bool changed = false;
    FieldMap properties;
    try {
        const BodyStatus status =
            validateBody(connection.get(), "/target", "body", changed, properties);
        require(status == BodyStatus::valid || (!changed && properties.empty()),
                "a body that is not valid changes nothing");
    } catch (const std::logic_error&) {
        require(!changed && properties.empty(), "a body without text changes nothing");
    }
    require(properties.empty() ||
                (properties.size() == 1 && !fieldOf(properties, "SessionTimeout").empty()),
            "a body changes the timeout only");
    require(!changed || !properties.empty(), "what changes is told");
    require(isLog(log.written()), "a body that is wrong is logged on whole lines");
}

void trySplit(const std::string& text) {
    std::string joined;
    for (const std::string& word : splitWords(text, ' ')) {
        require(word.find(' ') == std::string::npos, "a word has no blank");
        joined += word + ' ';
    }
    require(joined == text + ' ', "words and blanks are the text");
}

}  // namespace
}  // namespace session_service

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    openLog();
    const std::string_view input = textOf(data, size);
    for (const Replies& replies : {rawReplies(input), listReplies(input)}) {
        tryConversions(replies);
        tryBody(replies);
        tryPatch(replies);
    }
    std::string_view rest = input;
    const std::string field = takeLine(rest);
    trySplit(field);
    tryToken(upToNull(field), listReplies(rest));
    return 0;
}
