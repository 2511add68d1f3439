// iCalendar text from a file or a subscription, expanded over a window as the calendar
// source does (time zones, recurrence rules, attendees).
#include <chrono>

#include "fuzz_support.h"
#include "platform/calendar/ical_expand.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace std::chrono;
    auto text = vell::fuzz::text(data, size);
    (void)vell::calendar::looksLikeICalendar(text);
    // 2024-01-01 to 2024-03-01: wide enough for weekly and monthly rules to repeat.
    vell::WallTime from{seconds(1'704'067'200)};
    vell::WallTime to{seconds(1'709'251'200)};
    (void)vell::calendar::expandCalendar(text, from, to, {"me@example.com"});
    return 0;
}
