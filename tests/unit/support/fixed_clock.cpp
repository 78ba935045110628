#include "support/fixed_clock.h"

#include <stdlib.h>
#include <sys/sysinfo.h>
#include <sys/time.h>

#include <optional>

namespace {

std::optional<timeval> wallClock;
std::optional<long> uptime;

}  // namespace

// The names are the linker's.
extern "C" {
#ifdef __USE_TIME_BITS64
// Where a 32-bit machine's times have 64 bits, the C library calls them otherwise.
int __real_gettimeofday(timeval* now, void* zone) __asm__("__real___gettimeofday64");
int __wrap_gettimeofday(timeval* now, void* zone) __asm__("__wrap___gettimeofday64");
std::time_t __real_time(std::time_t* now) __asm__("__real___time64");
std::time_t __wrap_time(std::time_t* now) __asm__("__wrap___time64");
#endif
int __real_gettimeofday(timeval* now, void* zone);
std::time_t __real_time(std::time_t* now);
int __real_sysinfo(struct sysinfo* info);

int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!wallClock) {
        return __real_gettimeofday(now, zone);
    }
    *now = *wallClock;
    return 0;
}

std::time_t __wrap_time(std::time_t* now) {
    if (!wallClock) {
        return __real_time(now);
    }
    if (now) {
        *now = wallClock->tv_sec;
    }
    return wallClock->tv_sec;
}

int __wrap_sysinfo(struct sysinfo* info) {
    const int status = __real_sysinfo(info);
    if (uptime) {
        info->uptime = *uptime;
    }
    return status;
}
}

namespace session_service {

FixedClock::FixedClock(std::time_t seconds, long microseconds) {
    set(seconds, microseconds);
}

FixedClock::~FixedClock() {
    wallClock.reset();
}

void FixedClock::set(std::time_t seconds, long microseconds) {
    wallClock = timeval{seconds, microseconds};
}

FixedUptime::FixedUptime(long seconds) {
    uptime = seconds;
}

FixedUptime::~FixedUptime() {
    uptime.reset();
}

TimeZone::TimeZone(const char* name) {
    setenv("TZ", name, 1);
}

TimeZone::~TimeZone() {
    unsetenv("TZ");
    tzset();
}

}  // namespace session_service
