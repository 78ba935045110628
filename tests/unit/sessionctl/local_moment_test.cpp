#include "sessionctl/local_moment.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace session_service::console {
namespace {

TEST(Timestamp, IsReadWithItsZone) {
    EXPECT_EQ(parseTimestamp("2025-11-21T01:27:00+00:00"), 1763688420);
    EXPECT_EQ(parseTimestamp("2025-11-21T01:27:00Z"), 1763688420);
    EXPECT_EQ(parseTimestamp("2025-11-21T02:57:00+01:30"), 1763688420);
    EXPECT_EQ(parseTimestamp("2025-11-20T20:27:00-05:00"), 1763688420);
    for (const char* text : {"", "x", "2025-11-21", "2025-11-21T01:27:00", "2025-11-21T01:27:00+",
                             "2025-11-21T01:27:00 01:00"}) {
        EXPECT_FALSE(parseTimestamp(text)) << text;
    }
}

TEST(Timestamp, IsReadAsItIsWritten) {
    for (const char* zone : {"UTC0", "XXX-5:45", "XXX9:30"}) {
        setenv("TZ", zone, 1);
        EXPECT_EQ(parseTimestamp(formatTimestamp(1763688420)), 1763688420) << zone;
    }
    setenv("TZ", "XXX-1", 1);
    EXPECT_EQ(formatTimestamp(1763688420), "2025-11-21T02:27:00+01:00");
    EXPECT_EQ(formatShortTime(1763688420), "Nov 21 02:27");
    EXPECT_EQ(formatTimeOfDay(1763688420), "02:27:00");
    unsetenv("TZ");
}

}  // namespace
}  // namespace session_service::console
