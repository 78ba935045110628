#include "events/life_cycle.h"

#include <gtest/gtest.h>

#include "support/scripted_store.h"

namespace session_service {
namespace {

TEST(EventListOf, ARequestGrowsInGroupsOfFive) {
    EventList events;
    appendEvent(events, "delete", "/redfish/v1/A b", "Session", "17");
    appendEvent(events, "change", "/redfish/v1/A", "SessionCollection", "17");
    EXPECT_EQ(events,
              (EventList{"delete", "/redfish/v1/A b", "Session", "EventGroupId", "17", "change",
                         "/redfish/v1/A", "SessionCollection", "EventGroupId", "17"}));
}

TEST(EventListOf, LessThanTwoItemsIsNotSent) {
    const ScriptedStore peer;
    generateLifeCycleEvents(peer.connection(), {});
    generateLifeCycleEvents(peer.connection(), {"add"});
    EXPECT_EQ(peer.commands(), Commands{});
}

TEST(EventListOf, TwoItemsIsSentAsItIs) {
    const ScriptedStore peer({resp::bulk("d1"), resp::integer(1)});
    generateLifeCycleEvents(peer.connection(), {"add", "/redfish/v1/A"});
    EXPECT_EQ(peer.commands(), (Commands{{"HGET", "redisSHAScripts", "resourceChange"},
                                         {"EVALSHA", "d1", "2", "add", "/redfish/v1/A"}}));
}

}  // namespace
}  // namespace session_service
