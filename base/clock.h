#pragma once
// Time as the application sees it: wall time for dates that are stored or sent, and
// monotonic uptime for intervals. Everything that measures time takes a Clock so that
// state machines can be driven by a virtual clock in tests.
#include <chrono>
#include <mutex>

namespace vell {

using WallTime = std::chrono::system_clock::time_point;
using Seconds = std::chrono::duration<double>;

class Clock {
public:
    virtual ~Clock() = default;
    virtual WallTime now() const = 0;
    // Seconds since an arbitrary fixed origin; never goes backwards.
    virtual double uptime() const = 0;
};

class SystemClock final : public Clock {
public:
    WallTime now() const override;
    double uptime() const override;
};

// A clock that moves only when told to; wall time and uptime advance together.
class ManualClock final : public Clock {
public:
    explicit ManualClock(WallTime start = WallTime{std::chrono::seconds{1'800'000'000}}, double uptime = 1000.0);
    WallTime now() const override;
    double uptime() const override;
    void advance(double seconds);
    // Moves wall time only, as when the system clock is set or the machine slept.
    void jumpWallTime(double seconds);

private:
    mutable std::mutex mutex_;
    WallTime wall_;
    double uptime_;
};

// Conversions used by the stored and wire formats.
double secondsSinceReferenceDate(WallTime t);   // seconds since 2001-01-01 00:00:00 UTC
WallTime fromSecondsSinceReferenceDate(double seconds);
long long millisecondsSince1970(WallTime t);    // rounded to the nearest millisecond
WallTime fromMillisecondsSince1970(double ms);
WallTime wallTimeFromSeconds(double secondsSince1970);

}  // namespace vell
