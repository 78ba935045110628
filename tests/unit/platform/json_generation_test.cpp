#include "platform/json_generation.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/no_descriptors.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

// Takes the text over; "(null)" for a failure.
std::string textOf(char* json) {
    const std::string text = json ? json : "(null)";
    std::free(json);
    return text;
}

// What a list of the given elements converts to.
std::string arrayOf(const std::vector<std::string>& elements) {
    const ScriptedStore peer({resp::bulkArray(elements)});
    return textOf(convertArrayDataToJsonString(peer.connection(), "list"));
}

std::string nestedText(std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
}

TEST(JsonArray, ReadsTheListThatItIsGiven) {
    const ScriptedStore peer({resp::bulkArray({"1"})});
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "some list")), "[1]");
    EXPECT_EQ(peer.commands(), (Commands{{"LRANGE", "some list", "0", "-1"}}));
}

TEST(JsonArray, TakesElementsThatAreJsonAsTheyAre) {
    EXPECT_EQ(arrayOf({"1", "-2.5", "true", "null", "\"text\"", "{\"b\": [1, 2]}", "[]"}),
              R"([1,-2.5,true,null,"text",{"b":[1,2]},[]])");
}

TEST(JsonArray, MakesAnythingElseAString) {
    EXPECT_EQ(arrayOf({"plain text", "", "say \"hi\"", "01", "{broken", "&&Unknown x", "&&Array"}),
              R"(["plain text","","say \"hi\"","01","{broken","&&Unknown x","&&Array"])");
}

TEST(JsonArray, MakesAReferenceOfAUri) {
    EXPECT_EQ(arrayOf({"&&ObjectRef /redfish/v1/Some/Thing"}),
              R"([{"@odata.id":"/redfish/v1/Some/Thing"}])");
}

TEST(JsonArray, HoldsWhatItsElementsName) {
    const ScriptedStore peer({resp::bulkArray({"&&Object some hash", "&&Array inner", "last"}),
                              resp::bulkArray({"A", "1", "B", "text", "&&ObjectRef Link /uri",
                                               "unused", "&&Internal", "hidden"}),
                              resp::bulkArray({"2"})});
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "outer")),
              R"([{"A":1,"B":"text","Link":{"@odata.id":"/uri"}},[2],"last"])");
    EXPECT_EQ(peer.commands(), (Commands{{"LRANGE", "outer", "0", "-1"},
                                         {"HGETALL", "some hash"},
                                         {"LRANGE", "inner", "0", "-1"}}));
}

TEST(JsonArray, IsEmptyForAMissingListAndForAnotherKindOfValue) {
    EXPECT_EQ(arrayOf({}), "[]");
    const ScriptedStore peer({resp::error("WRONGTYPE")});
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), "[]");
}

TEST(JsonArray, FailsWhenTheConnectionIsLost) {
    const ScriptedStore peer;
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), "(null)");
}

TEST(JsonArray, FailsForAHashThatIsMissing) {
    const ScriptedStore peer({resp::bulkArray({"&&Object missing"}), resp::array({})});
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), "(null)");
}

TEST(JsonArray, FailsForAnElementWithoutText) {
    const ScriptedStore peer({resp::array({resp::bulk("1"), resp::nil()})});
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), "(null)");
}

TEST(JsonArray, EndsAtThirtyTwoLevelsOfLists) {
    std::vector<std::string> replies(31, resp::bulkArray({"&&Array list"}));
    replies.push_back(resp::array({}));
    const ScriptedStore peer(replies);
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), nestedText(32));
}

TEST(JsonArray, FailsForAListThatHoldsItself) {
    const ScriptedStore peer(std::vector<std::string>(40, resp::bulkArray({"&&Array list"})));
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), "(null)");
    EXPECT_EQ(peer.commands().size(), 32U);
}

// What a list that names so many others converts to; `other` is what each of them holds.
std::string arrayThatNames(std::size_t lists, const std::vector<std::string>& other) {
    std::vector<std::string> replies{
        resp::bulkArray(std::vector<std::string>(lists, "&&Array other"))};
    replies.insert(replies.end(), lists, resp::bulkArray(other));
    const ScriptedStore peer(replies);
    return textOf(convertArrayDataToJsonString(peer.connection(), "list"));
}

TEST(JsonArray, IsMadeOfNoMoreThanAThousandAndTwentyFourResources) {
    std::string expected = "[[]";
    for (int i = 1; i < 1023; ++i) {
        expected += ",[]";
    }
    EXPECT_EQ(arrayThatNames(1023, {}), expected + "]");
    EXPECT_EQ(arrayThatNames(1024, {}), "(null)");
}

TEST(JsonArray, IsMadeOfNoMoreThanFourMebibytes) {
    const std::string text(1024 * 1024, 't');
    const std::string json = "[\"" + text + "\"]";
    EXPECT_EQ(arrayThatNames(3, {text}), "[" + json + "," + json + "," + json + "]");
    EXPECT_EQ(arrayThatNames(4, {text}), "(null)");
}

TEST(JsonArray, CountsTheTextOfAHashItsFieldsIncluded) {
    const std::string text(2 * 1024 * 1024, 't');
    const ScriptedStore peer({resp::bulkArray({"&&Object hash"}), resp::bulkArray({text, text})});
    EXPECT_EQ(textOf(convertArrayDataToJsonString(peer.connection(), "list")), "(null)");
}

TEST(JsonArray, CountsTheLevelsInsideAnElement) {
    EXPECT_EQ(arrayOf({nestedText(31)}), nestedText(32));
    EXPECT_EQ(arrayOf({nestedText(32)}), "(null)");
    EXPECT_EQ(arrayOf({std::string(1 << 20, '[')}), "(null)");
}

TEST(JsonArray, ReplacesBytesThatAreNoText) {
    EXPECT_EQ(arrayOf({"caf\xe9"}), "[\"caf\xef\xbf\xbd\"]");
}

TEST(JsonObject, NeedsAConnectionOfItsOwn) {
    const NoDescriptors none;
    EXPECT_EQ(textOf(convertRedisDataToJsonString("some hash")), "(null)");
}

TEST(JsonObjectRef, NeedsNoConnection) {
    EXPECT_EQ(textOf(convertObjectRefDataToJsonString(nullptr, "/redfish/v1/A \"b\"")),
              R"({"@odata.id":"/redfish/v1/A \"b\""})");
}

}  // namespace
}  // namespace session_service
