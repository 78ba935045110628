#include "protocol/body_conversion.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

using Words = std::vector<std::string>;

// Converts without a store; `log` gets what was logged.
FieldMap converted(FieldMap body, std::string& log) {
    log = standardErrorOf([&] { convertBody(nullptr, body); });
    return body;
}

TEST(SplitWords, GivesThePiecesBetweenSeparators) {
    EXPECT_EQ(splitWords("a b c", ' '), (Words{"a", "b", "c"}));
    EXPECT_EQ(splitWords("a  b", ' '), (Words{"a", "", "b"}));
    EXPECT_EQ(splitWords(" a ", ' '), (Words{"", "a", ""}));
    EXPECT_EQ(splitWords("a b", ','), Words{"a b"});
    EXPECT_EQ(splitWords(" ", ' '), (Words{"", ""}));
    EXPECT_EQ(splitWords("", ' '), Words{""});
}

TEST(RequestBody, OfPlainFieldsStaysAsItIs) {
    const FieldMap body = {{"", ""}, {"&Name", "x"}, {"A b c", "1"}, {"SessionTimeout", "300"}};
    std::string log;
    EXPECT_EQ(converted(body, log), body);
    EXPECT_EQ(log, "");
}

TEST(RequestBody, GetsTheJsonTextOfAReference) {
    std::string log;
    EXPECT_EQ(converted({{"&&ObjectRef Link /redfish/v1/A", "unused"}, {"Plain", "1"}}, log),
              (FieldMap{{"Link", R"({"@odata.id":"/redfish/v1/A"})"}, {"Plain", "1"}}));
    EXPECT_EQ(log, "");
}

TEST(RequestBody, GetsTheJsonTextOfAnArray) {
    const ScriptedStore peer({resp::bulkArray({"1", "two"})});
    FieldMap body = {{"&&Array List some:key", ""}};
    convertBody(peer.connection(), body);
    EXPECT_EQ(body, (FieldMap{{"List", R"([1,"two"])"}}));
    EXPECT_EQ(peer.commands(), (Commands{{"LRANGE", "some:key", "0", "-1"}}));
}

TEST(RequestBody, DropsWhatTheStoreDoesNotGive) {
    const ScriptedStore peer;
    FieldMap body = {{"&&Array List key", ""}, {"Plain", "1"}};
    const std::string log = standardErrorOf([&] { convertBody(peer.connection(), body); });
    EXPECT_EQ(body, (FieldMap{{"Plain", "1"}}));
    EXPECT_EQ(log, "");
}

TEST(RequestBody, DropsTokensOfTheWrongForm) {
    std::string log;
    EXPECT_EQ(converted({{"&&ObjectRef  Link /a", ""}}, log), FieldMap{});
    EXPECT_EQ(log, "[Error]: return false: 4\n");
    EXPECT_EQ(converted({{"&&ObjectRef Link", ""}}, log), FieldMap{});
    EXPECT_EQ(log, "[Error]: return false: 2\n");
    EXPECT_EQ(converted({{"&&", ""}}, log), FieldMap{});
    EXPECT_EQ(log, "[Error]: return false: 1\n");
}

TEST(RequestBody, DropsTokensThatItDoesNotKnow) {
    for (const char* name :
         {"&&objectref Link /a", "&&ObjectReference Link /a", "&& Link /a", "&&Object%s Link %n"}) {
        std::string log;
        EXPECT_EQ(converted({{name, ""}, {"Plain", "1"}}, log), (FieldMap{{"Plain", "1"}}));
        EXPECT_EQ(log, std::string("[Error]: Not containing recognized token ") + name + "\n");
    }
}

TEST(RequestBody, LetsALaterFieldWin) {
    std::string log;
    EXPECT_EQ(converted({{"&&ObjectRef SessionTimeout /a", ""}, {"SessionTimeout", "300"}}, log),
              (FieldMap{{"SessionTimeout", "300"}}));
    EXPECT_EQ(converted({{"&&ObjectRef Link /a", ""}, {"&&ObjectRef Link /b", ""}}, log),
              (FieldMap{{"Link", R"({"@odata.id":"/b"})"}}));
}

TEST(Token, LeavesItsOutputsAloneWhenItFails) {
    std::string property = "property";
    std::string json = "json";
    standardErrorOf(
        [&] { EXPECT_FALSE(convertTokenField(nullptr, "&&Other A b", property, json)); });
    EXPECT_EQ(property, "property");
    EXPECT_EQ(json, "json");
}

TEST(Token, MayHaveEmptyWords) {
    std::string property;
    std::string json;
    EXPECT_TRUE(convertTokenField(nullptr, "&&ObjectRef  ", property, json));
    EXPECT_EQ(property, "");
    EXPECT_EQ(json, R"({"@odata.id":""})");
}

}  // namespace
}  // namespace session_service
