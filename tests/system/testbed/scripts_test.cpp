// The two server-side scripts that are shipped.
#include "support/system_test.h"

namespace testbed {
namespace {

class Scripts : public SystemTest {
  protected:
    void SetUp() override { startStore(); }

    Value call(const std::string& script, const Words& keys, const Words& arguments = {}) {
        Words words{"EVALSHA", store().hget("redisSHAScripts", script),
                    std::to_string(keys.size())};
        words.insert(words.end(), keys.begin(), keys.end());
        words.insert(words.end(), arguments.begin(), arguments.end());
        return store().run(words);
    }
    // The reason that a script gives for not using its input.
    static std::string refusal(const Value& value) {
        return value.elements.size() == 2 ? value.elements[1].text : "no refusal";
    }
};

class ResourceChange : public Scripts {
  protected:
    Value change(const Words& items, const Words& arguments = {}) {
        return call("resourceChange", items, arguments);
    }
};

TEST_F(ResourceChange, AppendsAnEntryForEachGroup) {
    EXPECT_EQ(change({"add", "/a", "Session", "EventGroupId", "7", "change", "/b",
                      "SessionCollection", "EventGroupId", "7"})
                  .integer,
              2);
    const Value entries = store().run({"XRANGE", "&&EventStream", "-", "+"});
    ASSERT_EQ(entries.elements.size(), 2U);
    Words items;
    for (const Value& item : entries.elements[1].elements[1].elements) {
        items.push_back(item.text);
    }
    EXPECT_EQ(items, (Words{"Action", "change", "Resource", "/b", "ResourceType",
                            "SessionCollection", "EventGroupId", "7"}));
}

TEST_F(ResourceChange, KeepsTheLatestEntriesOnly) {
    for (int i = 1; i <= 3000; ++i) {
        change({"change", "/a", "Session", "EventGroupId", std::to_string(i)});
    }
    const long long kept = store().run({"XLEN", "&&EventStream"}).integer;
    EXPECT_GE(kept, 1000);
    EXPECT_LE(kept, 1200);
    const Value latest = store().run({"XREVRANGE", "&&EventStream", "+", "-", "COUNT", "1"});
    EXPECT_EQ(latest.elements.at(0).elements.at(1).elements.back().text, "3000");
}

TEST_F(ResourceChange, KeepsAsManyEntriesAsTheEventServiceSays) {
    store().hset("/redfish/v1/EventService", {{"&&MaxEntries", "2000"}});
    for (int i = 1; i <= 2000; ++i) {
        change({"change", "/a", "Session", "EventGroupId", std::to_string(i)});
    }
    EXPECT_EQ(store().run({"XLEN", "&&EventStream"}).integer, 2000);
}

TEST_F(ResourceChange, PublishesEachEntry) {
    StoreClient listener = controller.connect();
    listener.subscribe("&&EventStream/Announcements");
    change({"delete", "/a", "Session", "EventGroupId", "8"});
    const Value entries = store().run({"XRANGE", "&&EventStream", "-", "+"});
    EXPECT_EQ(listener.nextMessage(), entries.elements.at(0).elements.at(0).text);
}

TEST_F(ResourceChange, RefusesInputThatItCannotUseAndRecordsNothing) {
    const std::string size = "The items do not come in groups of 5.";
    EXPECT_EQ(refusal(change({})), size);
    EXPECT_EQ(refusal(change({"add", "/a"})), size);
    EXPECT_EQ(refusal(change({"add", "/a", "Session", "EventGroupId", "1"}, {"more"})), size);
    EXPECT_EQ(refusal(change({"add", "/a", "Session", "EventGroupId", "1", "destroy", "/b",
                              "Session", "EventGroupId", "1"})),
              "Unknown action destroy.");
    const std::string group = "An event of /a lacks its group identifier.";
    EXPECT_EQ(refusal(change({"add", "/a", "Session", "Group", "1"})), group);
    EXPECT_EQ(refusal(change({"add", "/a", "Session", "EventGroupId", "one"})), group);
    EXPECT_FALSE(store().exists("&&EventStream"));
}

class LogGeneratorHelper : public Scripts {
  protected:
    Value log(const Words& keys) { return call("logGeneratorHelper", keys); }
    Value login(const std::string& user) {
        return log({"CREATE", collection, "2024-05-06T07:08:09+08:00", "AuditEvent.1.1.UserLogin",
                    "/session", "1", user});
    }

    const std::string collection = "/redfish/v1/Managers/1/LogServices/AuditLog/Entries";
    const std::string members = "&&" + collection + "/Members";
};

TEST_F(LogGeneratorHelper, CreatesAnEntryResource) {
    EXPECT_EQ(login("ad\"min").integer, 1);
    const Fields entry = store().hgetall(collection + "/1");
    EXPECT_EQ(entry.at("Id"), "\"1\"");
    EXPECT_EQ(entry.at("@odata.id"), "\"" + collection + "/1\"");
    EXPECT_EQ(entry.at("Created"), "\"2024-05-06T07:08:09+08:00\"");
    EXPECT_EQ(entry.at("Message"), "\"User ad\\\"min logged in.\"");
    EXPECT_EQ(entry.at("MessageId"), "\"AuditEvent.1.1.UserLogin\"");
    EXPECT_EQ(entry.at("MessageArgs"), "[\"ad\\\"min\"]");
    EXPECT_EQ(entry.at("Links"), "{\"OriginOfCondition\":{\"@odata.id\":\"/session\"}}");
}

TEST_F(LogGeneratorHelper, KeepsMembersAndCountOfTheCollection) {
    login("first");
    login("%1 second");
    EXPECT_EQ(store().lrange(members),
              (Words{"&&ObjectRef " + collection + "/2", "&&ObjectRef " + collection + "/1"}));
    EXPECT_EQ(store().hget(collection, "Members@odata.count"), "2");
    EXPECT_EQ(store().hget(collection + "/2", "Message"), "\"User %1 second logged in.\"");
}

TEST_F(LogGeneratorHelper, CreatesNothingOnceTheLogIsFull) {
    store().hset(collection, {{"&&MaxEntries", "1"}, {"&&WhenFull", "keep"}});
    EXPECT_EQ(login("first").integer, 1);
    EXPECT_EQ(login("second").integer, 0);
    EXPECT_EQ(store().llen(members), 1);
}

TEST_F(LogGeneratorHelper, ReplacesTheOldestEntryOfAFullLogThatIsShipped) {
    EXPECT_EQ(store().hget(collection, "&&MaxEntries"), "1000");
    store().hset(collection, {{"&&MaxEntries", "2"}});
    for (const char* user : {"first", "second", "third"}) {
        EXPECT_EQ(login(user).integer, 1);
    }
    EXPECT_EQ(store().lrange(members),
              (Words{"&&ObjectRef " + collection + "/3", "&&ObjectRef " + collection + "/2"}));
    EXPECT_EQ(store().hget(collection, "Members@odata.count"), "2");
    EXPECT_FALSE(store().exists(collection + "/1"));
}

TEST_F(LogGeneratorHelper, CreatesNothingOfASeverityThatIsSwitchedOff) {
    store().hset(collection, {{"&&Severities", "Warning,Critical"}});
    EXPECT_EQ(login("first").integer, 2);
    EXPECT_EQ(store().llen(members), 0);
    store().hset(collection, {{"&&Severities", "Critical,OK"}});
    EXPECT_EQ(login("first").integer, 1);
}

TEST_F(LogGeneratorHelper, RefusesInputThatItCannotUseAndCreatesNothing) {
    const std::string id = "AuditEvent.1.1.UserLogin";
    EXPECT_EQ(refusal(log({"CREATE", collection})), "Seven keys and no arguments are needed.");
    EXPECT_EQ(refusal(log({"DELETE", collection, "t", id, "/s", "1", "u"})),
              "Unknown operation DELETE.");
    EXPECT_EQ(refusal(log({"CREATE", collection, "t", id, "/s", "2", "u"})),
              "One message argument is needed.");
    EXPECT_EQ(refusal(log({"CREATE", collection, "t", "No.Such", "/s", "1", "u"})),
              "Unknown message No.Such.");
    EXPECT_EQ(refusal(log({"CREATE", "/other", "t", id, "/s", "1", "u"})),
              "No log entry collection /other.");
    EXPECT_EQ(store().llen(members), 0);
}

}  // namespace
}  // namespace testbed
