#include "platform/calendar/ical_expand.h"

#include <libical/ical.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "automation/meeting_rules.h"
#include "base/utf8.h"

namespace vell::calendar {

namespace {

using automation::CalendarMeeting;

std::mutex& libicalLock() {
    static std::mutex m;
    return m;
}

struct ComponentDeleter {
    void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::string address(const char* value) {
    std::string a = lower(value ? value : "");
    if (a.rfind("mailto:", 0) == 0) a = a.substr(7);
    while (!a.empty() && std::isspace(static_cast<unsigned char>(a.back()))) a.pop_back();
    return a;
}

// The clock counts nanoseconds in 64 bits (about 292 years either side of 1970); a date a
// calendar may well hold (year 500, year 9999) is clamped to that range, never overflowed.
WallTime fromTimeT(time_t t) {
    constexpr time_t kLimit = 9'000'000'000;  // about the year 2255
    return std::chrono::system_clock::from_time_t(std::clamp<time_t>(t, -kLimit, kLimit));
}

const icaltimezone* builtinZone(const char* tzid);

// A DATE-TIME in its zone (resolved from the calendar's VTIMEZONE, else the system's zone
// data); UTC as UTC; floating and DATE values in the computer's local time. False when the
// TZID is unknown.
bool toTimeT(icaltimetype t, const char* tzid, time_t& out) {
    if (icaltime_is_null_time(t)) return false;
    if (t.is_date || (!t.zone && !tzid && !icaltime_is_utc(t))) {
        std::tm tm{};
        tm.tm_year = t.year - 1900;
        tm.tm_mon = t.month - 1;
        tm.tm_mday = t.day;
        tm.tm_hour = t.is_date ? 0 : t.hour;
        tm.tm_min = t.is_date ? 0 : t.minute;
        tm.tm_sec = t.is_date ? 0 : t.second;
        tm.tm_isdst = -1;
        out = std::mktime(&tm);
        return true;
    }
    if (icaltime_is_utc(t)) {
        out = icaltime_as_timet_with_zone(t, icaltimezone_get_utc_timezone());
        return true;
    }
    const icaltimezone* zone = t.zone;
    if (!zone) zone = builtinZone(tzid);
    if (!zone) return false;
    out = icaltime_as_timet_with_zone(t, zone);
    return true;
}

// The zone a TZID names when the calendar has no VTIMEZONE for it (system zone data). Some
// exporters prefix the Olson name with a path ("/mozilla.org/20050126_1/Europe/Berlin").
const icaltimezone* builtinZone(const char* tzid) {
    if (!tzid) return nullptr;
    std::string name = tzid;
    const icaltimezone* zone = icaltimezone_get_builtin_timezone(name.c_str());
    for (auto slash = name.find('/'); !zone && slash != std::string::npos; slash = name.find('/', slash + 1)) {
        zone = icaltimezone_get_builtin_timezone(name.c_str() + slash + 1);
    }
    return zone;
}

const char* tzidOf(icalproperty* p) {
    icalparameter* param = icalproperty_get_first_parameter(p, ICAL_TZID_PARAMETER);
    return param ? icalparameter_get_tzid(param) : nullptr;
}

// The property's time in its own zone (icaltime with the zone set when a VTIMEZONE names it).
bool propertyTime(icalcomponent* event, icalproperty* p, icaltimetype& time, time_t& out) {
    time = icalproperty_get_datetime_with_component(p, event);
    if (!time.zone && !time.is_date && !icaltime_is_utc(time)) {
        if (auto* zone = builtinZone(tzidOf(p))) time.zone = zone;
    }
    return toTimeT(time, tzidOf(p), out);
}

std::string text(icalcomponent* event, icalproperty_kind kind) {
    icalproperty* p = icalcomponent_get_first_property(event, kind);
    if (!p) return {};
    const char* value = icalproperty_get_value_as_string(p);
    return validUtf8(value ? value : "");
}

// Descriptions carry escaped line breaks and commas; the link search only needs the words.
std::string unescape(std::string s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size()) {
            char n = s[++i];
            out += (n == 'n' || n == 'N') ? '\n' : n;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::string xProperty(icalcomponent* event, const char* name) {
    for (icalproperty* p = icalcomponent_get_first_property(event, ICAL_X_PROPERTY); p;
         p = icalcomponent_get_next_property(event, ICAL_X_PROPERTY)) {
        const char* x = icalproperty_get_x_name(p);
        if (x && lower(x) == name) {
            const char* v = icalproperty_get_x(p);
            return validUtf8(v ? v : "");
        }
    }
    return {};
}

// What every instance of an event shares.
struct EventFacts {
    std::string uid, title, linkText;
    bool isCanceled = false, declined = false, hasOtherAttendees = false;
};

EventFacts facts(icalcomponent* event, const std::vector<std::string>& me) {
    EventFacts f;
    f.uid = text(event, ICAL_UID_PROPERTY);
    icalproperty* summary = icalcomponent_get_first_property(event, ICAL_SUMMARY_PROPERTY);
    f.title = automation::meetingTitle(
        validUtf8(summary && icalproperty_get_summary(summary) ? icalproperty_get_summary(summary) : ""));
    f.isCanceled = icalcomponent_get_status(event) == ICAL_STATUS_CANCELLED;
    for (icalproperty* a = icalcomponent_get_first_property(event, ICAL_ATTENDEE_PROPERTY); a;
         a = icalcomponent_get_next_property(event, ICAL_ATTENDEE_PROPERTY)) {
        const std::string who = address(icalproperty_get_attendee(a));
        if (std::find(me.begin(), me.end(), who) != me.end()) {
            icalparameter* status = icalproperty_get_first_parameter(a, ICAL_PARTSTAT_PARAMETER);
            if (status && icalparameter_get_partstat(status) == ICAL_PARTSTAT_DECLINED) f.declined = true;
        } else if (!who.empty()) {
            f.hasOtherAttendees = true;
        }
    }
    std::vector<std::string> parts;
    for (auto kind : {ICAL_URL_PROPERTY, ICAL_LOCATION_PROPERTY, ICAL_DESCRIPTION_PROPERTY}) {
        auto t = text(event, kind);
        if (!t.empty()) parts.push_back(unescape(t));
    }
    if (auto conference = xProperty(event, "x-google-conference"); !conference.empty()) parts.push_back(conference);
    for (std::size_t i = 0; i < parts.size(); ++i) f.linkText += (i ? "\n" : "") + parts[i];
    return f;
}

class Expander {
public:
    Expander(time_t from, time_t to, const std::vector<std::string>& me) : from_(from), to_(to), me_(me) {}

    void expand(icalcomponent* root, ExpandedCalendar& out) {
        std::vector<icalcomponent*> events;
        collect(root, events);
        out.events = static_cast<int>(events.size());
        // Instances replaced by an override of their own (RECURRENCE-ID), by UID.
        std::map<std::string, std::set<time_t>> overridden;
        for (auto* e : events) {
            icalproperty* rid = icalcomponent_get_first_property(e, ICAL_RECURRENCEID_PROPERTY);
            if (!rid) continue;
            icaltimetype t;
            time_t when;
            if (propertyTime(e, rid, t, when)) overridden[text(e, ICAL_UID_PROPERTY)].insert(when);
        }
        for (auto* e : events) event(e, overridden, out);
    }

private:
    static void collect(icalcomponent* c, std::vector<icalcomponent*>& events) {
        if (icalcomponent_isa(c) == ICAL_VEVENT_COMPONENT) {
            events.push_back(c);
            return;
        }
        for (icalcomponent* child = icalcomponent_get_first_component(c, ICAL_ANY_COMPONENT); child;
             child = icalcomponent_get_next_component(c, ICAL_ANY_COMPONENT)) {
            collect(child, events);
        }
    }

    void event(icalcomponent* e, const std::map<std::string, std::set<time_t>>& overridden, ExpandedCalendar& out) {
        EventFacts f = facts(e, me_);
        icalproperty* dtstartProperty = icalcomponent_get_first_property(e, ICAL_DTSTART_PROPERTY);
        if (!dtstartProperty) return out.problems.push_back("\"" + f.title + "\": no start");
        icaltimetype start;
        time_t startT;
        if (!propertyTime(e, dtstartProperty, start, startT)) {
            const char* tzid = tzidOf(dtstartProperty);
            return out.problems.push_back("\"" + f.title + "\": unknown time zone " + validUtf8(tzid ? tzid : "?"));
        }
        const bool allDay = start.is_date;
        // The length: DTEND, else DURATION, else a day for a date and nothing for a time.
        time_t length = allDay ? 86'400 : 0;
        if (icalproperty* dtend = icalcomponent_get_first_property(e, ICAL_DTEND_PROPERTY)) {
            icaltimetype end;
            time_t endT;
            if (!propertyTime(e, dtend, end, endT)) {
                return out.problems.push_back("\"" + f.title + "\": unknown time zone of its end");
            }
            length = endT - startT;  // may be negative: such an event never qualifies
        } else if (icalproperty* duration = icalcomponent_get_first_property(e, ICAL_DURATION_PROPERTY)) {
            length = icaldurationtype_as_int(icalproperty_get_duration(duration));
        }

        auto add = [&](time_t instanceStart, const std::string& id) {
            const time_t instanceEnd = instanceStart + length;
            // Overlapping the window (an event of no length counts at its start).
            if (instanceStart >= to_ || std::max(instanceEnd, instanceStart + 1) <= from_) return;
            CalendarMeeting m;
            m.id = id;
            m.title = f.title;
            m.start = fromTimeT(instanceStart);
            m.end = fromTimeT(instanceEnd);
            m.isAllDay = allDay;
            m.isCanceled = f.isCanceled;
            m.declined = f.declined;
            m.hasOtherAttendees = f.hasOtherAttendees;
            m.linkText = f.linkText;
            out.meetings.push_back(std::move(m));
        };
        const std::string uid = f.uid.empty() ? f.title + "@" + std::to_string(startT) : f.uid;
        auto instanceID = [&](time_t originalStart) { return uid + "/" + std::to_string(originalStart); };

        // An override stands for the instance it replaces, under that instance's identifier.
        if (icalproperty* rid = icalcomponent_get_first_property(e, ICAL_RECURRENCEID_PROPERTY)) {
            icaltimetype t;
            time_t original;
            if (!propertyTime(e, rid, t, original)) original = startT;
            return add(startT, instanceID(original));
        }

        const bool recurring = icalcomponent_get_first_property(e, ICAL_RRULE_PROPERTY) ||
                               icalcomponent_get_first_property(e, ICAL_RDATE_PROPERTY);
        if (!recurring) return add(startT, uid);

        std::set<time_t> excluded;
        // An EXDATE given as a date removes the instances of that day: the day's starts.
        std::set<time_t> excludedDays;
        if (auto it = overridden.find(f.uid); it != overridden.end()) excluded = it->second;
        if (icalcomponent_count_properties(e, ICAL_EXDATE_PROPERTY) > kMaximumExclusionsPerEvent) {
            return out.problems.push_back("\"" + f.title + "\": more than " + std::to_string(kMaximumExclusionsPerEvent) +
                                          " excluded dates");
        }
        for (icalproperty* x = icalcomponent_get_first_property(e, ICAL_EXDATE_PROPERTY); x;
             x = icalcomponent_get_next_property(e, ICAL_EXDATE_PROPERTY)) {
            icaltimetype t;
            time_t when;
            if (!propertyTime(e, x, t, when)) continue;
            excluded.insert(when);
            if (t.is_date && !allDay) excludedDays.insert(when);
        }
        auto isExcluded = [&](time_t s) {
            if (excluded.count(s)) return true;
            auto day = excludedDays.upper_bound(s);
            return day != excludedDays.begin() && s < *std::prev(day) + 86'400;
        };
        std::set<time_t> starts{startT};
        for (icalproperty* r = icalcomponent_get_first_property(e, ICAL_RRULE_PROPERTY); r;
             r = icalcomponent_get_next_property(e, ICAL_RRULE_PROPERTY)) {
            if (walked_ >= kMaximumInstancesPerCalendar) {
                out.problems.push_back("\"" + f.title + "\": repeat rule not expanded, the calendar's rules already walked " +
                                       std::to_string(kMaximumInstancesPerCalendar) + " instances");
                break;
            }
            struct icalrecurrencetype rule = icalproperty_get_rrule(r);
            icalrecur_iterator* it = icalrecur_iterator_new(rule, start);
            if (!it) {
                out.problems.push_back("\"" + f.title + "\": unreadable repeat rule");
                continue;
            }
            // An open-ended rule that began long ago jumps close to the window instead of
            // walking every instance since its start (a COUNT needs the walk).
            const time_t jumpTo = from_ - std::max<time_t>(length, 0) - 2 * 86'400;
            if (rule.count == 0 && jumpTo > startT) {
                icaltimetype jump = icaltime_from_timet_with_zone(jumpTo, start.is_date, start.zone);
                if (!start.is_date) jump.zone = start.zone;
                icalrecur_iterator_set_start(it, jump);
            }
            int produced = 0;
            for (icaltimetype next = icalrecur_iterator_next(it); !icaltime_is_null_time(next);
                 next = icalrecur_iterator_next(it)) {
                if (++produced > kMaximumInstancesPerRule || ++walked_ > kMaximumInstancesPerCalendar) {
                    out.problems.push_back("\"" + f.title + "\": repeat rule cut off after " +
                                           std::to_string(produced - 1) + " instances");
                    break;
                }
                next.zone = start.zone;
                time_t s;
                if (!toTimeT(next, tzidOf(dtstartProperty), s)) break;
                if (s >= to_) break;
                if (s + std::max<time_t>(length, 1) > from_) starts.insert(s);
            }
            icalrecur_iterator_free(it);
        }
        for (icalproperty* r = icalcomponent_get_first_property(e, ICAL_RDATE_PROPERTY); r;
             r = icalcomponent_get_next_property(e, ICAL_RDATE_PROPERTY)) {
            icaltimetype t;
            time_t when;
            if (propertyTime(e, r, t, when)) starts.insert(when);
        }
        for (time_t s : starts) {
            if (!isExcluded(s)) add(s, instanceID(s));
        }
    }

    time_t from_, to_;
    int walked_ = 0;  // instances walked by every rule so far
    const std::vector<std::string>& me_;
};

// How deep BEGIN lines nest (folded continuation lines start with white space and never
// open a component).
int nestingDepth(std::string_view text) {
    constexpr std::string_view kBegin = "begin:", kEnd = "end:";
    auto startsWith = [](std::string_view line, std::string_view word) {
        if (line.size() < word.size()) return false;
        for (std::size_t i = 0; i < word.size(); ++i) {
            if (std::tolower(static_cast<unsigned char>(line[i])) != word[i]) return false;
        }
        return true;
    };
    int depth = 0, deepest = 0;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = text.find('\n', at);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(at, end - at);
        if (startsWith(line, kBegin)) deepest = std::max(deepest, ++depth);
        else if (startsWith(line, kEnd) && depth > 0) --depth;
        at = end + 1;
    }
    return deepest;
}

}  // namespace

bool looksLikeICalendar(std::string_view text) {
    if (text.size() >= 3 && static_cast<unsigned char>(text[0]) == 0xEF) text.remove_prefix(3);  // byte-order mark
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    constexpr std::string_view kBegin = "BEGIN:VCALENDAR";
    if (text.size() < kBegin.size()) return false;
    return lower(std::string(text.substr(0, kBegin.size()))) == lower(std::string(kBegin));
}

Expected<ExpandedCalendar, std::string> expandCalendar(std::string_view text, WallTime from, WallTime to,
                                                      const std::vector<std::string>& myAddresses) {
    if (text.size() > kMaximumCalendarBytes) {
        return unexpected(std::string("the calendar is larger than ") + std::to_string(kMaximumCalendarBytes / 1024 / 1024) +
                          " MB");
    }
    if (!looksLikeICalendar(text)) return unexpected(std::string("not an iCalendar file"));
    if (nestingDepth(text) > kMaximumNesting) {
        return unexpected("the calendar nests its parts more than " + std::to_string(kMaximumNesting) + " deep");
    }
    std::vector<std::string> me;
    for (const auto& a : myAddresses) me.push_back(address(a.c_str()));

    std::lock_guard guard(libicalLock());
    icalerror_set_errors_are_fatal(0);
    const std::string copy(text);
    std::unique_ptr<icalcomponent, ComponentDeleter> root(icalparser_parse_string(copy.c_str()));
    icalerror_clear_errno();
    if (!root) return unexpected(std::string("the calendar could not be read"));
    ExpandedCalendar out;
    Expander(std::chrono::system_clock::to_time_t(from), std::chrono::system_clock::to_time_t(to), me)
        .expand(root.get(), out);
    return out;
}

}  // namespace vell::calendar
