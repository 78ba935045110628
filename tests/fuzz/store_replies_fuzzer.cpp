// Any bytes as replies of the store. Whatever they are, each wrapper sends one command with its
// arguments and judges the reply by its rule.
// The first line of the input is the text of every argument.
#include <hiredis/hiredis.h>

#include <cstdlib>
#include <stdexcept>

#include "store/reply.h"
#include "support/captured_stream.h"
#include "support/fake_store.h"
#include "support/input.h"
#include "support/require.h"

namespace session_service {
namespace {

using store::ReplyPtr;
using store::ScriptAnswer;

struct FreeReader {
    void operator()(redisReader* reader) const noexcept { redisReaderFree(reader); }
};

// The first reply in the bytes; null when they do not hold a whole one.
ReplyPtr firstReply(std::string_view bytes) {
    const std::unique_ptr<redisReader, FreeReader> reader(redisReaderCreate());
    void* reply = nullptr;
    redisReaderFeed(reader.get(), bytes.data(), bytes.size());
    redisReaderGetReply(reader.get(), &reply);
    return ReplyPtr(static_cast<redisReply*>(reply));
}

// Calls a wrapper on a connection of its own and returns its result.
template <typename Call>
auto resultOf(const Replies& replies, const Command& expected, Call call) {
    const FakeConnection connection(replies);
    const auto result = call(connection.get());
    require(connection.takeCommands() == Commands{expected}, "a wrapper sends its one command");
    return result;
}

// The value of an integer reply; `otherwise` for any other and for none.
long long integerOf(const ReplyPtr& reply, long long otherwise) {
    return isInteger(reply) ? reply->integer : otherwise;
}

void tryWrites(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const std::string sent = upToNull(text);
    const bool integer = isInteger(reply);
    const bool one = integerOf(reply, 0) == 1;

    require(resultOf(replies, {"HSET", sent, sent, sent},
                     [&](auto* s) { return store::hset(s, text, text, text); }) ==
                (one || integerOf(reply, 1) == 0),
            "hset takes 0 and 1");
    std::int32_t length = -7;
    require(resultOf(replies, {"LPUSH", sent, sent},
                     [&](auto* s) { return store::lpush(s, text, text, length); }) == integer,
            "lpush takes an integer");
    require(length == static_cast<std::int32_t>(integerOf(reply, -7)), "lpush gives the length");
    require(resultOf(replies, {"PUBLISH", sent, sent},
                     [&](auto* s) { return store::publish(s, text, text); }) ==
                (integerOf(reply, 0) > 0),
            "publish wants a receiver");
    require(resultOf(replies, {"PUBLISH", sent, sent},
                     [&](auto* s) { return store::publishAny(s, text, text); }) == integer,
            "publishAny takes an integer");
    require(resultOf(replies, {"DEL", sent}, [&](auto* s) { return store::del(s, text); }) == one,
            "del takes 1");
    require(resultOf(replies, {"EXPIRE", sent, "6"},
                     [&](auto* s) { return store::expire(s, text, 6); }) == one,
            "expire takes 1");
    std::int32_t value = -7;
    require(resultOf(replies, {"HINCRBY", sent, sent, "-1"},
                     [&](auto* s) { return store::hincrby(s, text, text, -1, value); }) ==
                static_cast<bool>(reply),
            "hincrby takes every reply");
    require(value == static_cast<std::int32_t>(integerOf(reply, -7)), "hincrby gives the value");
    require(resultOf(replies, {"HDEL", sent, sent},
                     [&](auto* s) { return store::hdel(s, text, text); }) == one,
            "hdel takes 1");
}

// The writes whose arguments may hold any bytes.
void tryVectors(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const FieldMap fields{{"", text}, {'a' + text, ""}};
    const Command command{"HSET", text, "", text, 'a' + text, ""};
    require(resultOf(replies, command, [&](auto* s) { return store::hsetMany(s, text, fields); }) ==
                (reply && reply->type != REDIS_REPLY_ERROR),
            "hsetMany takes all but an error");
    require(
        resultOf(replies, command, [&](auto* s) { return store::hsetFields(s, text, fields); }) ==
            (integerOf(reply, -1) >= 0),
        "hsetFields takes an integer from 0 on");
    require(resultOf(replies, {"UNLINK", text, text},
                     [&](auto* s) {
                         return store::send(s, {"UNLINK", text, text});
                     }) == static_cast<bool>(reply),
            "send takes every reply");
    const auto integer = resultOf(replies, {"LREM", text}, [&](auto* s) {
        return store::sendForInteger(s, {"LREM", text});
    });
    require(integer.has_value() == isInteger(reply) && (!integer || *integer == reply->integer),
            "sendForInteger gives the integer");
}

// LLEN and LREM, which write to standard output when the connection is lost.
void tryListCounts(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const std::string sent = upToNull(text);
    const CapturedStream output(stdout);
    require(resultOf(replies, {"LLEN", sent}, [&](auto* s) { return store::llen(s, text); }) ==
                static_cast<std::int32_t>(integerOf(reply, -1)),
            "llen gives the integer");
    require(resultOf(replies, {"LREM", sent, "-1", sent},
                     [&](auto* s) { return store::lrem(s, text, -1, text); }) ==
                static_cast<std::int32_t>(integerOf(reply, 0)),
            "lrem gives the integer");
    require(output.written() ==
                (reply ? std::string()
                       : ">>> Failed to get list length on " + sent + ".\n" +
                             ">>> Failed to remove " + sent + " element in " + sent + ".\n"),
            "only a lost connection is told on standard output");

    const auto length =
        resultOf(replies, {"LLEN", sent}, [&](auto* s) { return store::llenUnchecked(s, text); });
    require(length.has_value() == static_cast<bool>(reply) &&
                (!length || *length == integerOf(reply, 0)),
            "llenUnchecked counts what is no integer as 0");
}

void tryFields(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const std::string sent = upToNull(text);
    const Command hget{"HGET", sent, sent};
    const bool isText = reply && reply->type == REDIS_REPLY_STRING;
    require(resultOf(replies, hget, [&](auto* s) { return store::hget(s, text, text); }) ==
                (isText ? std::string(reply->str) : std::string()),
            "hget gives a text up to its first zero byte");
    const auto field =
        resultOf(replies, hget, [&](auto* s) { return store::hgetReply(s, text, text); });
    using Kind = store::FieldReply::Kind;
    require((field.kind == Kind::lost) == !reply && (field.kind == Kind::text) == isText &&
                field.text ==
                    (reply && reply->str ? std::optional<std::string>(reply->str) : std::nullopt),
            "hgetReply tells a field's text from other replies and from none");
    require(resultOf(replies, {"HEXISTS", sent, sent},
                     [&](auto* s) { return store::hexists(s, text, text); }) ==
                (integerOf(reply, 0) == 1),
            "hexists takes 1");
    require(resultOf(replies, {"EXISTS", sent}, [&](auto* s) { return store::exists(s, text); }) ==
                (integerOf(reply, 0) == 1),
            "exists takes 1");
}

// The texts of an array's elements. Empty, with `textless` set, when one has none; `even`
// leaves a last element without a partner out.
std::vector<std::string> elementTexts(const ReplyPtr& reply, bool even, bool& textless) {
    std::vector<std::string> texts;
    const std::size_t count = reply && reply->type == REDIS_REPLY_ARRAY ? reply->elements : 0;
    for (std::size_t i = 0; i < (even ? count / 2 * 2 : count); ++i) {
        if (!reply->element[i]->str) {
            textless = true;
            return {};
        }
        texts.emplace_back(reply->element[i]->str);
    }
    return texts;
}

void tryCollections(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const std::string sent = upToNull(text);
    bool threw = false;
    bool textless = false;
    const std::vector<std::string> elements = elementTexts(reply, false, textless);
    std::vector<std::string> list{"kept"};
    const bool listed = resultOf(replies, {"LRANGE", sent, "0", "-1"}, [&](auto* s) {
        try {
            return store::lrange(s, text, list);
        } catch (const std::logic_error&) {
            threw = true;
            return true;
        }
    });
    require(listed == static_cast<bool>(reply) && threw == textless, "lrange judges by its rule");
    require(threw || (list.front() == "kept" &&
                      std::vector<std::string>(list.begin() + 1, list.end()) == elements),
            "lrange appends the elements");

    threw = false;
    textless = false;
    const std::vector<std::string> pairs = elementTexts(reply, true, textless);
    FieldMap expected{{"kept", ""}};
    for (std::size_t i = 0; i < pairs.size(); i += 2) {
        expected[pairs[i]] = pairs[i + 1];
    }
    FieldMap fields{{"kept", ""}};
    const bool read = resultOf(replies, {"HGETALL", sent}, [&](auto* s) {
        try {
            return store::hgetall(s, text, fields);
        } catch (const std::logic_error&) {
            threw = true;
            return true;
        }
    });
    require(read == static_cast<bool>(reply) && threw == textless, "hgetall judges by its rule");
    require(threw || fields == expected, "hgetall inserts the fields");
}

void tryScan(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const auto page = resultOf(replies, {"SCAN", "-5", "MATCH", upToNull(text), "COUNT", "1000"},
                               [&](auto* s) { return store::scan(s, -5, text); });
    const bool isPage = reply && reply->type == REDIS_REPLY_ARRAY && reply->elements >= 2 &&
                        reply->element[0]->str && reply->element[1]->type == REDIS_REPLY_ARRAY;
    require(page.has_value() == isPage, "a page is a cursor and an array");
    require(!page || page->keys.size() <= reply->element[1]->elements,
            "a page holds no more keys than the reply");
    require(!page || page->nextCursor == static_cast<std::int32_t>(
                                             std::strtoll(reply->element[0]->str, nullptr, 10)),
            "a page has the cursor of the reply");
}

void tryScript(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const ScriptAnswer answer = resultOf(replies, {"EVALSHA", text, "1", text}, [&](auto* s) {
        return store::evalsha(s, text, {"1", text});
    });
    auto kind = ScriptAnswer::Kind::unknown;
    std::string reason;
    if (!reply) {
        kind = ScriptAnswer::Kind::lost;
    } else if (isInteger(reply)) {
        kind = ScriptAnswer::Kind::integer;
    } else if (reply->type == REDIS_REPLY_ERROR) {
        kind = ScriptAnswer::Kind::refused;
        reason = reply->str;
    } else if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 2) {
        kind = ScriptAnswer::Kind::refused;
        reason = store::textOf(reply->element[1]);
    }
    require(answer.kind == kind && answer.text == reason, "an answer is told by its kind");
    require(answer.value == integerOf(reply, 0), "an answer gives its integer");
}

// A subscription and all messages that follow, to the end of the connection.
void trySubscription(const Replies& replies, const std::string& text, const ReplyPtr& reply) {
    const FakeConnection connection(replies);
    require(store::subscribe(connection.get(), text) == static_cast<bool>(reply),
            "a subscription is confirmed by any reply");
    while (const auto notice = store::readNotice(connection.get())) {
        require(!notice->text || notice->elements > 0, "a text is that of an element");
    }
    require(connection.takeCommands() == Commands{{"SUBSCRIBE", upToNull(text)}},
            "a subscribed connection only reads");
    require(store::hget(connection.get(), "key", "field").empty() &&
                !store::send(connection.get(), {"PING"}) && connection.takeCommands().empty(),
            "nothing is sent on a lost connection");
}

void tryWords(const std::string& text) {
    std::vector<std::string> words{"kept"};
    store::appendWords(words, text);
    std::string joined;
    for (std::size_t i = 1; i < words.size(); ++i) {
        require(!words[i].empty() && words[i].find(' ') == std::string::npos,
                "a word is not empty and holds no blank");
        joined += words[i];
    }
    std::string withoutBlanks = text;
    std::erase(withoutBlanks, ' ');
    require(words.front() == "kept" && joined == withoutBlanks, "words hold all but the blanks");
}

}  // namespace
}  // namespace session_service

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    std::string_view input = textOf(data, size);
    const std::string text = takeLine(input);
    const ReplyPtr reply = firstReply(input);
    const Replies replies{std::string(input)};
    tryWrites(replies, text, reply);
    tryVectors(replies, text, reply);
    tryListCounts(replies, text, reply);
    tryFields(replies, text, reply);
    tryCollections(replies, text, reply);
    tryScan(replies, text, reply);
    tryScript(replies, text, reply);
    trySubscription(replies, text, reply);
    tryWords(text);
    return 0;
}
