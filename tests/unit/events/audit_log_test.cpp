#include "events/audit_log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "support/fixed_clock.h"

namespace session_service {
namespace {

// Not std::time, which may lag behind the clock of the stamps by a tick.
std::time_t secondsNow() {
    return std::chrono::system_clock::to_time_t(
        std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
}

TEST(Timestamp, IsLocalTimeWithTheOffsetOfItsZone) {
    struct Zone {
        const char* name;
        const char* offset;
        std::time_t secondsEast;
    };
    for (const Zone& zone :
         {Zone{"UTC0", "+00:00", 0}, Zone{"CST-8", "+08:00", 28800}, Zone{"EST5", "-05:00", -18000},
          Zone{"NPT-5:45", "+05:45", 20700}, Zone{"NST3:30", "-03:30", -12600}}) {
        const TimeZone here(zone.name);
        const std::time_t before = secondsNow();
        const std::string text = currentTimestamp();
        const std::time_t after = secondsNow();
        std::tm local{};
        const char* offset = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &local);
        ASSERT_NE(offset, nullptr) << text;
        EXPECT_STREQ(offset, zone.offset);
        EXPECT_EQ(text.size(), 25U) << text;
        const std::time_t moment = timegm(&local) - zone.secondsEast;
        EXPECT_LE(before, moment) << text;
        EXPECT_LE(moment, after) << text;
    }
}

}  // namespace
}  // namespace session_service
