#include "sessions/records.h"

#include <gtest/gtest.h>

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
    const long before = uptimeSeconds();
    const Command command = commandOf([](redisContext* store) {
        return writeMetaSessionRecord(store, newSession(), "as stored");
    });
    EXPECT_EQ(command[0], "HSET");
    EXPECT_EQ(command[1], "&&X-AUTH-TOKEN-t0k3n");
    FieldMap fields = fieldsOf(command);
    const long lastAccessed = std::stol(fields["LastAccessed"]);
    EXPECT_GE(lastAccessed, before);
    EXPECT_LE(lastAccessed, uptimeSeconds());
    EXPECT_EQ(fields["LastAccessed"], std::to_string(lastAccessed));
    fields.erase("LastAccessed");
    EXPECT_EQ(fields, (FieldMap{{"UserName", "eve \"the\\cat\""},
                                {"Privilege", "511"},
                                {"SessionID", uri},
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

}  // namespace
}  // namespace session_service
