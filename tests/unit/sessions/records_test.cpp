#include "sessions/records.h"

#include <gtest/gtest.h>

#include "support/fixed_clock.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

const std::string uri = "/redfish/v1/SessionService/Sessions/0000a1b2";

NewSession newSession() {
    return {.id = "0000a1b2",
            .token = {"t0k3n"},
            .userName = "eve \"the\\cat\"",
            .remoteIp = "192.0.2.1",
            .origin = "",
            .privilege = "511",
            .mustChangePassword = false};
}

// The fields of a command that writes a hash.
FieldMap fieldsOf(const Command& command) {
    FieldMap fields;
    for (std::size_t i = 2; i + 1 < command.size(); i += 2) {
        fields[command[i]] = command[i + 1];
    }
    return fields;
}

using Write = std::function<bool(redisContext*)>;

// The one command that the write sends.
Command commandOf(const Write& write) {
    const ScriptedStore peer({resp::integer(5)});
    EXPECT_TRUE(write(peer.connection()));
    const Commands commands = peer.commands();
    EXPECT_EQ(commands.size(), 1U);
    return commands.at(0);
}

bool refusedBy(const std::string& reply, const Write& write) {
    const ScriptedStore peer({reply});
    return !write(peer.connection());
}

TEST(StripQuotes, DropsOneEnclosingPair) {
    const std::map<std::string, std::string> texts = {
        {R"("eve")", "eve"},
        {R"("")", ""},
        {R"(""eve"")", R"("eve")"},
        {R"("a\"b")", R"(a\"b)"},
        {R"(" ")", " "},
        {R"(")", R"(")"},
        {"", ""},
        {"eve", "eve"},
        {R"("eve)", R"("eve)"},
        {R"(eve")", R"(eve")"},
        {R"( "eve")", R"( "eve")"},
        {"x", "x"},
    };
    for (const auto& [text, stripped] : texts) {
        EXPECT_EQ(stripQuotes(text), stripped) << text;
    }
}

std::string without(std::string text, const std::string& part) {
    removeSubstring(text, part);
    return text;
}

TEST(RemoveSubstring, TakesTheFirstOccurrenceOut) {
    EXPECT_EQ(without("/a/b/c", "/a/"), "b/c");
    EXPECT_EQ(without("one two one", "one"), " two one");
    EXPECT_EQ(without("middle", "dd"), "mile");
    EXPECT_EQ(without("at the end", " end"), "at the");
    EXPECT_EQ(without("whole", "whole"), "");
    EXPECT_EQ(without("aaa", "aa"), "a");
}

TEST(RemoveSubstring, LeavesATextWithoutThePartAlone) {
    EXPECT_EQ(without("text", "x y"), "text");
    EXPECT_EQ(without("tex", "text"), "tex");
    EXPECT_EQ(without("", "x"), "");
}

TEST(SessionRecord, HoldsItsPropertiesAsJsonAndTheRestBare) {
    const Command command =
        commandOf([](redisContext* store) { return writeSessionRecord(store, newSession()); });
    EXPECT_EQ(command[0], "HSET");
    EXPECT_EQ(command[1], uri);
    EXPECT_EQ(
        fieldsOf(command),
        (FieldMap{
            {"@odata.context", "\"/redfish/v1/$metadata#Session.Session\""},
            {"@odata.type", "\"#Session.v1_3_0.Session\""},
            {"Id", "\"0000a1b2\""},
            {"Name", "\"User Session\""},
            {"Description", "\"This resource represents a session for a Redfish implementation.\""},
            {"UserName", R"("eve \"the\\cat\"")"},
            {"Password", "null"},
            {"@odata.id", '"' + uri + '"'},
            {"@odata.etag", "0"},
            {"&&OwnerName", "eve \"the\\cat\""},
            {"&&RemoteIP", "192.0.2.1"},
            {"ClientOriginIPAddress", "\"192.0.2.1\""},
            {"&&AllowMethod", "GET,HEAD,DELETE"},
            {"SessionType", "\"Redfish\""},
        }));
}

TEST(SessionRecord, HoldsAnOriginThatIsKnown) {
    NewSession session = newSession();
    session.origin = "some origin";
    const Command command =
        commandOf([&](redisContext* store) { return writeSessionRecord(store, session); });
    EXPECT_EQ(fieldOf(fieldsOf(command), "&&Origin"), "some origin");
    EXPECT_EQ(fieldsOf(command).size(), 15U);
}

TEST(SessionRecord, TellsThatTheStoreRefusedIt) {
    EXPECT_TRUE(refusedBy(resp::error("WRONGTYPE"), [](redisContext* store) {
        return writeSessionRecord(store, newSession());
    }));
}

TEST(TokenReference, NamesTheTokenAndTheCollection) {
    const ScriptedStore peer({resp::integer(1), resp::integer(1)});
    writeTokenReference(peer.connection(), newSession());
    EXPECT_EQ(peer.commands(),
              (Commands{
                  {"HSET", "&&" + uri, "XAUTH", "\"t0k3n\""},
                  {"HSET", uri, "&&CRUDprefix", "&&/redfish/v1/SessionService/Sessions"},
              }));
}

TEST(TokenRecord, HoldsBareTexts) {
    const FixedUptime uptime(86400);
    const Command command = commandOf([](redisContext* store) {
        return writeMetaSessionRecord(store, newSession(), "as stored");
    });
    EXPECT_EQ(command[0], "HSET");
    EXPECT_EQ(command[1], "&&X-AUTH-TOKEN-t0k3n");
    EXPECT_EQ(fieldsOf(command),
              (FieldMap{{"UserName", "eve \"the\\cat\""},
                        {"Privilege", "511"},
                        {"SessionID", "/redfish/v1/SessionService/Sessions/0000a1b2"},
                        {"LastAccessed", "86400"},
                        {"Timeout", "as stored"}}));
}

TEST(TokenRecord, HoldsAnOriginAndTheNeedForANewPassword) {
    NewSession session = newSession();
    session.origin = "some origin";
    session.mustChangePassword = true;
    const FieldMap fields = fieldsOf(
        commandOf([&](redisContext* store) { return writeMetaSessionRecord(store, session, ""); }));
    EXPECT_EQ(fieldOf(fields, "&&Origin"), "some origin");
    EXPECT_EQ(fields.count("&&PasswordChangeRequired"), 1U);
    EXPECT_EQ(fieldOf(fields, "&&PasswordChangeRequired"), "");
    EXPECT_EQ(fields.count("Timeout"), 1U) << "empty where the service has none";
}

TEST(TokenRecord, TellsThatTheStoreRefusedIt) {
    EXPECT_TRUE(refusedBy(resp::error("WRONGTYPE"), [](redisContext* store) {
        return writeMetaSessionRecord(store, newSession(), "300");
    }));
}

TEST(Seconds, AreTheNumberAtTheStartOfTheText) {
    const std::map<std::string, std::int32_t> texts = {
        {"300", 300},
        {" 300 ", 300},
        {"+7", 7},
        {"-7", -7},
        {"0300", 300},
        {"12abc", 12},
        {"1.9", 1},
        {"0x10", 0},
        {"", 0},
        {"never", 0},
        {"\"300\"", 0},
        {"- 1", 0},
        {"2147483647", 2147483647},
    };
    for (const auto& [text, seconds] : texts) {
        EXPECT_EQ(parseSeconds(text), seconds) << text;
    }
}

TEST(Seconds, AreCutTo32Bits) {
    const std::map<std::string, std::int32_t> texts = {
        {"2147483648", -2147483647 - 1},
        {"4294967295", -1},
        {"4294967296", 0},
        {"4294967596", 300},
        {"-2147483649", 2147483647},
        {"-4294966996", 300},
        {"9223372036854775807", -1},
        {"-9223372036854775808", 0},
    };
    for (const auto& [text, seconds] : texts) {
        EXPECT_EQ(parseSeconds(text), seconds) << text;
    }
}

}  // namespace
}  // namespace session_service
