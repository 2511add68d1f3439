#include "base/clock.h"

#include <algorithm>
#include <cmath>

namespace vell {

namespace {
constexpr double kReferenceDateOffset = 978307200.0;  // 2001-01-01 in seconds since 1970

double toSeconds1970(WallTime t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}
}  // namespace

WallTime SystemClock::now() const { return std::chrono::system_clock::now(); }

double SystemClock::uptime() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

ManualClock::ManualClock(WallTime start, double uptime) : wall_(start), uptime_(uptime) {}

WallTime ManualClock::now() const {
    std::lock_guard lock(mutex_);
    return wall_;
}

double ManualClock::uptime() const {
    std::lock_guard lock(mutex_);
    return uptime_;
}

void ManualClock::advance(double seconds) {
    std::lock_guard lock(mutex_);
    wall_ += std::chrono::duration_cast<WallTime::duration>(Seconds(seconds));
    uptime_ += seconds;
}

void ManualClock::jumpWallTime(double seconds) {
    std::lock_guard lock(mutex_);
    wall_ += std::chrono::duration_cast<WallTime::duration>(Seconds(seconds));
}

WallTime wallTimeFromSeconds(double secondsSince1970) {
    // Times from files and the service can be anything: outside the clock's range (about
    // 292 years either side of 1970) the conversion would overflow, so they are clamped.
    constexpr double kLimit = 9.2e9;
    if (std::isnan(secondsSince1970)) secondsSince1970 = 0;
    secondsSince1970 = std::clamp(secondsSince1970, -kLimit, kLimit);
    return WallTime{std::chrono::duration_cast<WallTime::duration>(Seconds(secondsSince1970))};
}

double secondsSinceReferenceDate(WallTime t) { return toSeconds1970(t) - kReferenceDateOffset; }

WallTime fromSecondsSinceReferenceDate(double seconds) {
    return wallTimeFromSeconds(seconds + kReferenceDateOffset);
}

long long millisecondsSince1970(WallTime t) {
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
    return static_cast<long long>(std::llround(static_cast<double>(us) / 1000.0));
}

WallTime fromMillisecondsSince1970(double ms) { return wallTimeFromSeconds(ms / 1000.0); }

}  // namespace vell
