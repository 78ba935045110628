#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

constexpr int maxLevels = 32;

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

// Calls the library by itself, without the daemon.
class JsonGeneration : public SystemTest {
  protected:
    explicit JsonGeneration(const ControllerOptions& options = {}) : SystemTest(options) {
        controller.install(TEST_JSON_PROBE, "/usr/local/bin/json_probe");
    }
    void SetUp() override { startStore(); }

    static constexpr char failure[] = "failure";

    // What the library makes of the sources: "failure" or JSON text.
    Words convert(const Words& operationsAndSources) {
        Launch launch{.command = {"/usr/local/bin/json_probe", "/tmp/json"}, .ofThisBuild = true};
        launch.command.insert(launch.command.end(), operationsAndSources.begin(),
                              operationsAndSources.end());
        EXPECT_EQ(controller.startProgram(launch)->wait(), ExitStatus{});
        Words results = splitAtZeroBytes(controller.readFile("/tmp/json"));
        for (std::string& result : results) {
            result = result == failure ? failure : result.substr(std::string("text ").size());
        }
        return results;
    }
    std::string object(const std::string& source) { return convert({"object", source}).at(0); }
    std::string array(const std::string& source) { return convert({"array", source}).at(0); }

    void push(const std::string& key, const Words& elements) {
        Words command{"RPUSH", key};
        command.insert(command.end(), elements.begin(), elements.end());
        store().run(command);
    }
};

TEST_F(JsonGeneration, OfAPlainFieldGivesItsValueAsJsonWhereItIsJson) {
    store().hset("source", {{"String", "\"text\""},
                            {"Number", "300"},
                            {"Negative", "-1.5"},
                            {"True", "true"},
                            {"Null", "null"},
                            {"Object", R"({"b": [1, {"c": null}]})"},
                            {"Array", "[ ]"}});
    EXPECT_EQ(object("source"), R"({"Array":[],"Negative":-1.5,"Null":null,"Number":300,)"
                                R"("Object":{"b":[1,{"c":null}]},"String":"text","True":true})");
}

TEST_F(JsonGeneration, OfAPlainFieldGivesAStringWhereItsValueIsNoJson) {
    store().hset("source", {{"Bare", "some text"},
                            {"Empty", ""},
                            {"Half", "{\"a\":"},
                            {"LeadingZero", "0300"},
                            {"Quote", "a\"b\\c"},
                            {"Trailing", "1 2"},
                            {"True", "True"}});
    EXPECT_EQ(object("source"),
              R"({"Bare":"some text","Empty":"","Half":"{\"a\":","LeadingZero":"0300",)"
              R"("Quote":"a\"b\\c","Trailing":"1 2","True":"True"})");
}

TEST_F(JsonGeneration, OfANumberBeyondAllRangesGivesAString) {
    store().hset("source", {{"Huge", "1e999"}});
    EXPECT_EQ(object("source"), R"({"Huge":"1e999"})");
}

TEST_F(JsonGeneration, OfTokenFieldsGivesWhatTheirSourcesHold) {
    store().hset("source", {{"&&Object Inner inner", "unused"},
                            {"&&Array List list", ""},
                            {"&&ObjectRef Link /redfish/v1/Chassis", ""},
                            {"Plain", "1"}});
    store().hset("inner", {{"A", "1"}, {"&&Array Deep list", ""}});
    push("list", {"1", "two"});
    EXPECT_EQ(object("source"), R"({"Inner":{"A":1,"Deep":[1,"two"]},"Link":{"@odata.id":)"
                                R"("/redfish/v1/Chassis"},"List":[1,"two"],"Plain":1})");
}

TEST_F(JsonGeneration, LeavesInternalFieldsOut) {
    store().hset("source", {{"&&", "1"},
                            {"&&AllowMethod", "GET"},
                            {"&&Object", "1"},
                            {"&&Object Name", "1"},
                            {"&&Object  source", "1"},
                            {"&&object Name source", "1"},
                            {"&&Objects Name source", "1"},
                            {"Kept", "1"}});
    EXPECT_EQ(object("source"), R"({"Kept":1})");
}

TEST_F(JsonGeneration, OfAHashWithInternalFieldsOnlyIsAnEmptyObject) {
    store().hset("source", {{"&&AllowMethod", "GET"}});
    EXPECT_EQ(object("source"), "{}");
}

TEST_F(JsonGeneration, OfAMissingHashFails) {
    push("list", {"1"});
    EXPECT_EQ(convert({"object", "missing", "object", "list", "object", ""}),
              (Words{failure, failure, failure}));
}

TEST_F(JsonGeneration, FailsWhenAHashThatATokenNamesIsMissing) {
    store().hset("source", {{"A", "1"}, {"&&Object Inner missing", ""}});
    push("list", {"1", "&&Object missing"});
    EXPECT_EQ(convert({"object", "source", "array", "list"}), (Words{failure, failure}));
}

TEST_F(JsonGeneration, OfAnArrayConvertsEachElement) {
    push("list", {"1", "\"two\"", "three", "", "{\"four\":4}", "&&ObjectRef /redfish/v1/Chassis",
                  "&&Object hash", "&&Array inner", "&&Array missing"});
    store().hset("hash", {{"A", "1"}});
    push("inner", {"true"});
    EXPECT_EQ(array("list"),
              R"([1,"two","three","",{"four":4},{"@odata.id":"/redfish/v1/Chassis"},)"
              R"({"A":1},[true],[]])");
}

TEST_F(JsonGeneration, OfAnArrayTakesAnUnknownTokenForAString) {
    push("list", {"&&ObjectRef", "&&Objectref x", "&&Other x", "&&ObjectRef "});
    EXPECT_EQ(array("list"), R"(["&&ObjectRef","&&Objectref x","&&Other x","&&ObjectRef "])");
}

TEST_F(JsonGeneration, OfAMissingListIsAnEmptyArray) {
    EXPECT_EQ(array("missing"), "[]");
}

TEST_F(JsonGeneration, OfTheMembersOfACollectionGivesReferences) {
    const InsertedSession older = frontEnd().insertSession();
    const InsertedSession newer = frontEnd().insertSession();
    EXPECT_EQ(array(membersKey),
              "[{\"@odata.id\":\"" + newer.uri + "\"},{\"@odata.id\":\"" + older.uri + "\"}]");
}

TEST_F(JsonGeneration, OfTheServiceResourceGivesWhatAClientSees) {
    EXPECT_EQ(object(serviceUri),
              R"({"@odata.id":"/redfish/v1/SessionService",)"
              R"("@odata.type":"#SessionService.v1_1_8.SessionService",)"
              R"("Description":"Sessions of the management interface","Id":"SessionService",)"
              R"("Name":"Session Service","ServiceEnabled":true,"SessionTimeout":300,)"
              R"("Sessions":{"@odata.id":"/redfish/v1/SessionService/Sessions"},)"
              R"("Status":{"Health":"OK","State":"Enabled"}})");
}

TEST_F(JsonGeneration, OfAReferenceNeedsNoStore) {
    EXPECT_EQ(convert({"reference", "/redfish/v1/Chassis", "reference", "a \"b\" %s"}),
              (Words{R"({"@odata.id":"/redfish/v1/Chassis"})", R"({"@odata.id":"a \"b\" %s"})"}));
}

TEST_F(JsonGeneration, ReplacesWhatIsNoUtf8) {
    store().hset("source", {{"A", "a\xff"}, {"B", "\"b\xc3\""}, {"C\xfe", "1"}});
    push("list", {"\xe2\x82"});
    EXPECT_EQ(convert({"object", "source", "array", "list", "reference", "x\x80"}),
              (Words{"{\"A\":\"a\ufffd\",\"B\":\"\\\"b\ufffd\\\"\",\"C\ufffd\":1}", "[\"\ufffd\"]",
                     "{\"@odata.id\":\"x\ufffd\"}"}));
}

TEST_F(JsonGeneration, KeepsUtf8AndEscapesControlCharacters) {
    store().hset("source", {{"A", "\u00e4\u20ac"}, {"B", "a\nb\x01"}});
    EXPECT_EQ(object("source"), "{\"A\":\"\u00e4\u20ac\",\"B\":\"a\\nb\\u0001\"}");
}

TEST_F(JsonGeneration, TakesPercentSignsAndBlanksInASourceAsTheyAre) {
    store().hset("%s %n", {{"A", "1"}});
    store().hset("outer", {{"&&Object Inner %s %n", ""}});
    EXPECT_EQ(convert({"object", "%s %n", "object", "outer"}),
              (Words{R"({"A":1})", R"({"Inner":{"A":1}})"}));
}

TEST_F(JsonGeneration, ReachesDownToTheDeepestLevel) {
    for (int i = 1; i < maxLevels; ++i) {
        store().hset("hash" + std::to_string(i), {{"&&Object a hash" + std::to_string(i + 1), ""}});
        push("list" + std::to_string(i), {"&&Array list" + std::to_string(i + 1)});
    }
    store().hset("hash" + std::to_string(maxLevels), {{"A", "1"}});
    push("list" + std::to_string(maxLevels), {"1"});
    EXPECT_EQ(
        convert({"object", "hash1", "array", "list1"}),
        (Words{repeated("{\"a\":", maxLevels - 1) + "{\"A\":1}" + repeated("}", maxLevels - 1),
               repeated("[", maxLevels) + "1" + repeated("]", maxLevels)}));

    store().hset("above", {{"&&Object a hash1", ""}});
    push("aboveList", {"&&Array list1"});
    EXPECT_EQ(convert({"object", "above", "array", "aboveList"}), (Words{failure, failure}));
}

TEST_F(JsonGeneration, CountsTheLevelsInsideJsonTextToo) {
    const auto nested = [](int levels) { return repeated("[", levels) + repeated("]", levels); };
    store().hset("fits", {{"A", nested(maxLevels - 1)}});
    store().hset("deeper", {{"A", nested(maxLevels)}});
    store().hset("farDeeper", {{"A", nested(100'000)}});
    store().hset("outer", {{"&&Object a fits", ""}});
    push("fitsList", {nested(maxLevels - 1)});
    push("deeperList", {nested(maxLevels)});
    EXPECT_EQ(convert({"object", "fits", "object", "deeper", "object", "farDeeper", "object",
                       "outer", "array", "fitsList", "array", "deeperList"}),
              (Words{"{\"A\":" + nested(maxLevels - 1) + "}", failure, failure, failure,
                     nested(maxLevels), failure}));
}

TEST_F(JsonGeneration, CountsAReferenceAsALevel) {
    const std::string reference = "&&ObjectRef /redfish/v1/Chassis";
    for (int i = 1; i < maxLevels; ++i) {
        push("list" + std::to_string(i), {"&&Array list" + std::to_string(i + 1)});
    }
    push("list" + std::to_string(maxLevels), {reference});
    EXPECT_EQ(convert({"array", "list2", "array", "list1"}),
              (Words{repeated("[", maxLevels - 1) + R"({"@odata.id":"/redfish/v1/Chassis"})" +
                         repeated("]", maxLevels - 1),
                     failure}));
}

TEST_F(JsonGeneration, OfCircularDataFails) {
    store().hset("self", {{"&&Object a self", ""}, {"&&Object b self", ""}});
    push("selfList", {"&&Array selfList", "&&Array selfList"});
    store().hset("there", {{"&&Array a back", ""}});
    push("back", {"&&Object there"});
    EXPECT_EQ(convert({"object", "self", "array", "selfList", "object", "there", "array", "back"}),
              (Words{failure, failure, failure, failure}));
}

TEST_F(JsonGeneration, OfDataThatBranchesAtEachLevelFails) {
    for (int i = 1; i < maxLevels; ++i) {
        const std::string next = std::to_string(i + 1);
        store().hset("hash" + std::to_string(i),
                     {{"&&Object a hash" + next, ""}, {"&&Object b hash" + next, ""}});
        push("list" + std::to_string(i), {"&&Array list" + next, "&&Array list" + next});
    }
    store().hset("hash" + std::to_string(maxLevels), {{"A", "1"}});
    EXPECT_EQ(convert({"object", "hash1", "array", "list1"}), (Words{failure, failure}));
}

// The same through the daemon: a structured property of a PATCH body.
class BodyConversion : public RunningSystemTest {
  protected:
    explicit BodyConversion(const ControllerOptions& options = {}) : RunningSystemTest(options) {}

    // Sends a body with these fields and returns the timeout that results.
    std::string patched(const Fields& body) {
        EXPECT_EQ(frontEnd().patch(body).status(), "OK");
        const std::string result = store().hget(serviceUri, "SessionTimeout");
        if (result != "300") {
            waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
        }
        return result;
    }
    void expectError(const std::string& message) {
        expectErrorLine(message);
        expected.push_back(message);
    }
    void TearDown() override {
        for (const std::string& message : expected) {
            EXPECT_EQ(countLogged(message), 1) << message;
        }
        RunningSystemTest::TearDown();
    }

  private:
    Words expected;
};

TEST_F(BodyConversion, TakesAPlainFieldAsItIs) {
    EXPECT_EQ(patched({{"SessionTimeout", " {\"a\": 1} "}}), " {\"a\": 1} ");
}

TEST_F(BodyConversion, TurnsAnObjectIntoJson) {
    store().hset("source", {{"A", "1"}, {"B", "text"}});
    EXPECT_EQ(patched({{"&&Object SessionTimeout source", "unused"}}), R"({"A":1,"B":"text"})");
}

TEST_F(BodyConversion, TurnsAnArrayIntoJson) {
    store().run({"RPUSH", "source", "1", "&&ObjectRef /redfish/v1/Chassis"});
    EXPECT_EQ(patched({{"&&Array SessionTimeout source", ""}}),
              R"([1,{"@odata.id":"/redfish/v1/Chassis"}])");
}

TEST_F(BodyConversion, TurnsAReferenceIntoJson) {
    EXPECT_EQ(patched({{"&&ObjectRef SessionTimeout /redfish/v1/Chassis", ""}}),
              R"({"@odata.id":"/redfish/v1/Chassis"})");
}

TEST_F(BodyConversion, PrefersThePlainField) {
    EXPECT_EQ(patched({{"&&ObjectRef SessionTimeout x", ""}, {"SessionTimeout", "600"}}), "600");
}

TEST_F(BodyConversion, LetsTheLaterOfTwoTokenFieldsWin) {
    EXPECT_EQ(patched({{"&&ObjectRef SessionTimeout b", ""},
                       {"&&Array SessionTimeout missing", ""},
                       {"&&ObjectRef SessionTimeout a", ""}}),
              R"({"@odata.id":"b"})");
}

TEST_F(BodyConversion, DropsATokenFieldWithAnotherNumberOfWords) {
    expectError("return false: 4");
    expectError("return false: 2");
    expectError("return false: 1");
    expectError("return false: 5");
    EXPECT_EQ(patched({{"&&ObjectRef  SessionTimeout x", ""},
                       {"&&ObjectRef SessionTimeout", ""},
                       {"&&ObjectRef", ""},
                       {"&&ObjectRef SessionTimeout x y z", ""}}),
              "300");
}

TEST_F(BodyConversion, CountsABlankAtTheEndAsAnEmptyWord) {
    expectError("return false: 4");
    EXPECT_EQ(patched({{"&&ObjectRef SessionTimeout x ", ""}}), "300");
}

TEST_F(BodyConversion, TakesAnEmptySourceForOne) {
    EXPECT_EQ(patched({{"&&ObjectRef SessionTimeout ", ""}}), R"({"@odata.id":""})");
}

TEST_F(BodyConversion, DropsAnUnknownToken) {
    for (const char* token : {"&&object", "&&ObjectReference", "&&", "&&Arra"}) {
        expectError("Not containing recognized token " + std::string(token) + " SessionTimeout x");
    }
    EXPECT_EQ(patched({{"&&object SessionTimeout x", ""},
                       {"&&ObjectReference SessionTimeout x", ""},
                       {"&& SessionTimeout x", ""},
                       {"&&Arra SessionTimeout x", ""}}),
              "300");
}

TEST_F(BodyConversion, LogsAnUnknownTokenOnOneLineWhateverItHolds) {
    expectError("Not containing recognized token &&%s%n\\x0a\\x1b[Error]: SessionTimeout x");
    EXPECT_EQ(patched({{"&&%s%n\n\x1b[Error]: SessionTimeout x", ""}}), "300");
}

TEST_F(BodyConversion, DropsWhatTheLibraryCannotConvertWithoutAWord) {
    const std::size_t before = logLines().size();
    EXPECT_EQ(patched({{"&&Object SessionTimeout missing", ""}}), "300");
    EXPECT_EQ(logLines().size(), before);
}

TEST_F(BodyConversion, GoesOnWithTheOtherFieldsWhenOneIsDropped) {
    expectError("return false: 1");
    EXPECT_EQ(
        patched(
            {{"&&Bad", ""}, {"&&Object SessionTimeout missing", ""}, {"SessionTimeout", "600"}}),
        "600");
}

TEST_F(BodyConversion, SurvivesCircularData) {
    store().hset("self", {{"&&Object a self", ""}});
    EXPECT_EQ(patched({{"&&Object SessionTimeout self", ""}}), "300");
    EXPECT_EQ(patched({{"SessionTimeout", "600"}}), "600");
}

TEST_F(BodyConversion, SurvivesDataThatBranchesAtEachLevel) {
    for (int i = 1; i < maxLevels; ++i) {
        const std::string next = std::to_string(i + 1);
        store().hset("hash" + std::to_string(i),
                     {{"&&Object a hash" + next, ""}, {"&&Object b hash" + next, ""}});
    }
    store().hset("hash" + std::to_string(maxLevels), {{"A", "1"}});
    EXPECT_EQ(patched({{"&&Object SessionTimeout hash1", ""}}), "300");
    EXPECT_EQ(patched({{"SessionTimeout", "600"}}), "600");
}

class BodyConversionOverTcp : public BodyConversion {
  protected:
    BodyConversionOverTcp() : BodyConversion({.storeOverTcp = true}) {}

    // The connection of the command, and all that it carried.
    static std::string clientOf(const std::vector<MonitoredCommand>& commands, const Words& words) {
        for (const MonitoredCommand& command : commands) {
            if (command.words == words) {
                return command.client;
            }
        }
        return {};
    }
};

TEST_F(BodyConversionOverTcp, ReadsAnArrayOverTheConnectionOfTheRequest) {
    store().run({"RPUSH", "source", "1"});
    Monitor monitor = controller.monitor();
    Request request = frontEnd().preparePatch({{"&&Array SessionTimeout source", ""}});
    request.send();
    request.reply();
    const auto commands = monitor.soFar();
    const std::string client = clientOf(commands, {"LRANGE", "source", "0", "-1"});
    EXPECT_EQ(client, clientOf(commands, {"HGETALL", request.bodyKey()}));
    EXPECT_NE(client, "");
    waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
}

TEST_F(BodyConversionOverTcp, ReadsAnObjectOverAConnectionOfItsOwn) {
    store().hset("source", {{"A", "1"}});
    Monitor monitor = controller.monitor();
    Request request = frontEnd().preparePatch({{"&&Object SessionTimeout source", ""}});
    request.send();
    request.reply();
    const auto commands = monitor.soFar();
    const std::string client = clientOf(commands, {"HGETALL", "source"});
    EXPECT_NE(client, clientOf(commands, {"HGETALL", request.bodyKey()}));
    EXPECT_EQ(commandsOf(commands, client),
              (std::vector<Words>{{"AUTH", "(redacted)"}, {"HGETALL", "source"}}));
    waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
}

TEST_F(BodyConversionOverTcp, ReadsNothingForAReference) {
    Monitor monitor = controller.monitor();
    Request request = frontEnd().preparePatch({{"&&ObjectRef SessionTimeout source", ""}});
    request.send();
    request.reply();
    for (const MonitoredCommand& command : monitor.soFar()) {
        ASSERT_GE(command.words.size(), 2U);
        EXPECT_NE(command.words[1], "source");
    }
    waitUntil("the event is there", [&] { return !lifeCycleEvents(store()).empty(); });
}

}  // namespace
}  // namespace testbed
