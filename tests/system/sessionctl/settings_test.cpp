// sessionctl timeout, enable and disable.
#include <gmock/gmock.h>

#include "support/sessionctl_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class Settings : public RunningSessionctlTest {
  protected:
    std::string service(const char* property) { return store().hget(serviceUri, property); }
    // Blocks until there are so many; without their groups.
    std::vector<Words> events(std::size_t count) {
        std::vector<Words> events;
        waitUntil(std::to_string(count) + " events are there", [&] {
            events = lifeCycleEvents(store());
            return events.size() >= count;
        });
        for (Words& event : events) {
            event.pop_back();
        }
        return events;
    }
    const Words changeOfTheService{"change", serviceUri, "SessionService"};
};

TEST_F(Settings, TheTimeoutIsChangedByTheDaemon) {
    const std::string tag = service("@odata.etag");
    const Outcome outcome = sessionctl({"timeout", "600"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.output,
              "The timeout of new sessions is 600 seconds. It was 300, which sessions that exist "
              "keep.\n");
    EXPECT_EQ(service("SessionTimeout"), "600");
    EXPECT_NE(service("@odata.etag"), tag);
    EXPECT_THAT(controller.readFile(persistentFile), HasSubstr("SessionTimeout=600"));
    EXPECT_EQ(events(1), std::vector<Words>{changeOfTheService});
    EXPECT_THAT(store().keys("&&/sessionctl/*"), IsEmpty());
}

TEST_F(Settings, TheSameTimeoutIsNoChange) {
    EXPECT_EQ(sessionctl({"timeout", "300"}).output, "The timeout is 300 seconds already.\n");
    EXPECT_EQ(sessionctl({"timeout", "300", "--json"}).json(), (json{{"property", "SessionTimeout"},
                                                                     {"value", 300},
                                                                     {"changed", false},
                                                                     {"status", "OK"},
                                                                     {"messages", json::array()}}));
    EXPECT_THAT(lifeCycleEvents(store()), IsEmpty());
}

TEST_F(Settings, ATimeoutThatTheStoreRefusesIsExplained) {
    expectErrorLine("OperationFailed: Failed to SetMultipleFields.");
    store().run({"ACL", "SETUSER", "default", "resetkeys", "%R~/redfish/v1/SessionService", "~&&*",
                 "~webDefaultValue", "~redisSHAScripts"});
    const Outcome outcome = sessionctl({"timeout", "600"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "sessionctl: The daemon answers: EXCEPTION, Base.1.12.OperationFailed (the store "
              "refused the change; see the daemon's log).\n");
    store().run({"ACL", "SETUSER", "default", "allkeys"});
}

TEST_F(Settings, TheServiceIsSwitchedOffAndOn) {
    const Outcome off = sessionctl({"disable"});
    EXPECT_EQ(off.status, 0);
    EXPECT_EQ(off.errors, "");
    EXPECT_THAT(off.output, StartsWith("The service is switched off: logins and logouts are "
                                       "refused; sessions go on and expire.\nThe daemon does not "
                                       "change this on request: it was written into the store"));
    EXPECT_EQ(service("ServiceEnabled"), "false");
    EXPECT_EQ(frontEnd().login(administrator.name, administrator.password).status(), "UNAVAILABLE");
    EXPECT_EQ(sessionctl({"disable"}).output, "The service is switched off already.\n");
    EXPECT_EQ(events(1), std::vector<Words>{changeOfTheService});

    EXPECT_EQ(sessionctl({"enable", "--json"}).json(),
              (json{{"property", "ServiceEnabled"}, {"value", true}, {"changed", true}}));
    EXPECT_EQ(frontEnd().login(administrator.name, administrator.password).status(), "OK");
    EXPECT_EQ(events(2)[1], changeOfTheService);
}

TEST_F(Settings, AChangeHasTheNextEventGroupAndANewEntityTag) {
    const std::string tag = service("@odata.etag");
    store().hset(eventServiceUri, {{eventGroupCounter, "41"}});
    EXPECT_EQ(sessionctl({"disable"}).status, 0);
    const std::vector<Words> found = lifeCycleEvents(store());
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(found[0].back(), "42");
    EXPECT_NE(service("@odata.etag"), tag);
}

TEST_F(Settings, AMissingEventIsSaid) {
    store().run({"HDEL", "redisSHAScripts", "resourceChange"});
    const Outcome unregistered = sessionctl({"disable"});
    EXPECT_EQ(unregistered.status, 0);
    EXPECT_EQ(unregistered.errors,
              "sessionctl: There is no event of the change: its script is not "
              "registered.\n");
    store().hset("redisSHAScripts", {{"resourceChange", std::string(40, '0')}});
    const Outcome unloaded = sessionctl({"enable"});
    EXPECT_EQ(unloaded.status, 0);
    EXPECT_THAT(unloaded.errors,
                StartsWith("sessionctl: There is no event of the change: NOSCRIPT"));
    EXPECT_EQ(service("ServiceEnabled"), "true");
}

TEST_F(Settings, ThereIsNoEventWhereEventsAreSwitchedOff) {
    controller.writeFile(configurationFile, "GenerateResourceEvent=false\n");
    const Outcome outcome = sessionctl({"disable"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(lifeCycleEvents(store()), IsEmpty());
}

class SettingsWithoutADaemon : public SessionctlTest {
  protected:
    void SetUp() override { startStore(); }
};

TEST_F(SettingsWithoutADaemon, ATimeoutIsNotChanged) {
    const Outcome outcome = sessionctl({"timeout", "600"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, StartsWith("sessionctl: Nobody listens for changes"));
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    EXPECT_THAT(store().keys("&&/sessionctl/*"), IsEmpty());
}

TEST_F(SettingsWithoutADaemon, NothingIsMadeOfAMissingResource) {
    store().run({"DEL", serviceUri});
    const Outcome outcome = sessionctl({"disable"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors,
                HasSubstr("has no ServiceEnabled in the store. Start the service that seeds"));
    EXPECT_FALSE(store().exists(serviceUri));
}

TEST_F(SettingsWithoutADaemon, AFullStoreTakesNoChange) {
    store().run({"CONFIG", "SET", "maxmemory", "1"});
    const Outcome outcome = sessionctl({"disable"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, StartsWith("sessionctl: The store does not take the change: OOM"));
}

}  // namespace
}  // namespace testbed
