#include "events/life_cycle.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace session_service
