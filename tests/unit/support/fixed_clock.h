// Clocks that stand still where a test sets them.
#pragma once

#include <ctime>

namespace session_service {

// What the wall clock says while this lives; one at a time.
class FixedClock {
  public:
    explicit FixedClock(std::time_t seconds, long microseconds = 0);
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;
    ~FixedClock();

    void set(std::time_t seconds, long microseconds = 0);
};

// The seconds since the kernel started while this lives; one at a time.
class FixedUptime {
  public:
    explicit FixedUptime(long seconds);
    FixedUptime(const FixedUptime&) = delete;
    FixedUptime& operator=(const FixedUptime&) = delete;
    ~FixedUptime();
};

// The zone of this process while it lives.
class TimeZone {
  public:
    explicit TimeZone(const char* name);
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;
    ~TimeZone();
};

}  // namespace session_service
