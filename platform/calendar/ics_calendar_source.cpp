#include "platform/calendar/ics_calendar_source.h"

#include <algorithm>
#include <ctime>

#include <nlohmann/json.hpp>

#include "base/private_folder.h"
#include "base/files.h"
#include "base/log.h"
#include "base/preference_keys.h"
#include "base/utf8.h"
#include "platform/calendar/calendar_fetch.h"
#include "platform/calendar/ical_expand.h"

namespace vell::calendar {

namespace fs = std::filesystem;
using automation::CalendarAccess;

namespace {
const log::Logger kLog("Calendar");

std::string lowerPrefix(const std::string& s, std::size_t n) {
    std::string p = s.substr(0, n);
    for (auto& c : p) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return p;
}
}  // namespace

bool isRemoteSource(const std::string& source) {
    return lowerPrefix(source, 7) == "http://" || lowerPrefix(source, 8) == "https://";
}

std::vector<std::string> configuredSources(const UserDefaults& defaults) {
    return defaults.stringList(prefs::kCalendarSources).value_or(std::vector<std::string>{});
}

Expected<std::string, std::string> addSource(UserDefaults& defaults, const std::string& fileOrURL) {
    // Stored in the preferences (JSON) and shown on the bus: UTF-8 only.
    if (!isValidUtf8(fileOrURL)) return unexpected(std::string("the name is not valid UTF-8 text"));
    std::string source = fileOrURL;
    if (lowerPrefix(source, 9) == "webcal://") source = "https://" + source.substr(9);
    if (!isRemoteSource(source)) {
        if (source.find("://") != std::string::npos && lowerPrefix(source, 7) != "file://") {
            return unexpected(std::string("only iCalendar files and http(s) addresses can be added"));
        }
        if (lowerPrefix(source, 7) == "file://") source = source.substr(7);
        std::error_code ec;
        fs::path path = fs::absolute(source, ec);
        if (ec || !fs::is_regular_file(path, ec)) return unexpected("no such file: " + source);
        source = path.lexically_normal().string();
    }
    auto list = configuredSources(defaults);
    if (std::find(list.begin(), list.end(), source) == list.end()) {
        list.push_back(source);
        defaults.set(prefs::kCalendarSources, list);
    }
    return source;
}

Expected<std::string, std::string> removeSource(UserDefaults& defaults, const std::string& sourceOrIndex) {
    auto list = configuredSources(defaults);
    auto it = std::find(list.begin(), list.end(), sourceOrIndex);
    if (it == list.end() && !sourceOrIndex.empty() &&
        std::all_of(sourceOrIndex.begin(), sourceOrIndex.end(), [](unsigned char c) { return std::isdigit(c); })) {
        const auto index = std::stoul(sourceOrIndex);
        if (index >= 1 && index <= list.size()) it = list.begin() + static_cast<long>(index - 1);
    }
    if (it == list.end()) {
        std::error_code ec;
        const auto absolute = fs::absolute(sourceOrIndex, ec).lexically_normal().string();
        it = std::find(list.begin(), list.end(), absolute);
    }
    if (it == list.end()) return unexpected("no such calendar: " + sourceOrIndex);
    std::string removed = *it;
    list.erase(it);
    defaults.set(prefs::kCalendarSources, list);
    return removed;
}

// What one source holds now: the last good text and its state. The download queue writes
// only the cache file; everything here changes on the main executor.
struct IcsCalendarSource::Loaded {
    std::string goodText;
    // The meetings of a span around the tick's window, expanded once: reparsing a large
    // calendar every 15 s costs a tenth of a second each time. Dropped when the text or the
    // user's addresses change, or the window leaves the span.
    struct Expansion {
        WallTime from{}, to{};
        std::vector<std::string> addresses;
        std::vector<automation::CalendarMeeting> meetings;
    };
    std::optional<Expansion> expansion;
    SourceState state;
    std::optional<fs::file_time_type> readStamp;
    std::optional<double> lastDownload;  // uptime of the last attempt
    bool downloading = false;
};

IcsCalendarSource::IcsCalendarSource(UserDefaults& defaults, fs::path cacheDirectory,
                                     std::function<std::vector<std::string>()> myAddresses, Executor& main,
                                     const Clock& clock)
    : defaults_(defaults),
      cacheDirectory_(std::move(cacheDirectory)),
      myAddresses_(std::move(myAddresses)),
      main_(main),
      clock_(clock),
      downloads_(std::make_unique<SerialQueue>("app.quillon.mac.calendar")) {}

IcsCalendarSource::~IcsCalendarSource() { alive_.reset(); }

fs::path IcsCalendarSource::cacheFile(const std::string& source) const {
    return cacheDirectory_ / (std::to_string(std::hash<std::string>{}(source)) + ".ics");
}

void IcsCalendarSource::load(const std::string& source) {
    auto& slot = loaded_[source];
    if (!slot) {
        slot = std::make_shared<Loaded>();
        slot->state.source = source;
        slot->state.remote = isRemoteSource(source);
    }
    Loaded& l = *slot;
    const fs::path file = l.state.remote ? cacheFile(source) : fs::path(source);
    std::error_code ec;
    const auto stamp = fs::last_write_time(file, ec);
    if (ec) {
        if (!l.state.remote) l.state.error = "cannot read the file: " + ec.message();
        return;
    }
    if (l.readStamp == stamp) return;  // unchanged since the last read
    // Only a regular file of a calendar's size is read: a FIFO would block the main
    // executor, a device or a huge file would fill the memory.
    const auto status = fs::status(file, ec);
    if (!ec && !fs::is_regular_file(status)) {
        l.readStamp = stamp;
        l.state.error = std::string("not a regular file");
        return;
    }
    if (const auto size = fs::file_size(file, ec); !ec && size > kMaximumCalendarBytes) {
        l.readStamp = stamp;
        l.state.error = "the calendar is larger than " + std::to_string(kMaximumCalendarBytes / 1024 / 1024) + " MB";
        return;
    }
    auto text = files::read(file, ec);
    if (!text) {
        l.state.error = "cannot read the file: " + ec.message();
        return;
    }
    l.readStamp = stamp;
    // Reading a whole day around now proves the calendar can be read; the tick reads its own window.
    const WallTime now = clock_.now();
    auto parsed = expandCalendar(*text, now - std::chrono::hours(24), now + std::chrono::hours(24), {});
    if (!parsed) {
        l.state.error = parsed.error();
        kLog.error("calendar " + source + " not used: " + parsed.error());
        return;
    }
    l.goodText = std::move(*text);
    l.expansion.reset();
    l.state.readable = true;
    l.state.events = parsed->events;
    if (!l.state.remote) {
        l.state.error.reset();
        l.state.loadedAt = now;
    }
}

void IcsCalendarSource::refreshIfDue(const std::string& source) {
    auto& l = *loaded_[source];
    const double uptime = clock_.uptime();
    if (l.downloading || (l.lastDownload && uptime - *l.lastDownload < kRefreshSeconds)) return;
    l.lastDownload = uptime;
    l.downloading = true;
    std::weak_ptr<int> alive = alive_;
    downloads_->post([this, alive, source] {
        if (alive.expired()) return;
        auto error = download(source);
        main_.post([this, alive, source, error] {
            if (!alive.expired()) applyDownload(source, error);
        });
    });
}

// On the download queue: the error, or nothing when the cached copy is current.
std::optional<std::string> IcsCalendarSource::download(const std::string& source) {
    const fs::path file = cacheFile(source);
    fs::path meta = file;
    meta.replace_extension(".json");
    std::error_code ec;
    FetchValidators validators;
    if (auto text = files::read(meta, ec)) {
        auto j = nlohmann::json::parse(*text, nullptr, false);
        if (j.is_object() && fs::exists(file, ec)) {
            validators.etag = j.value("etag", "");
            validators.lastModified = j.value("lastModified", "");
        }
    }
    auto fetched = fetchCalendar(source, validators);
    std::optional<std::string> error;
    if (!fetched) {
        error = fetched.error();
    } else if (!fetched->notModified) {
        // Only a copy that reads as a calendar replaces the good one.
        auto parsed = expandCalendar(fetched->body, WallTime{}, WallTime{}, {});
        if (!parsed) {
            error = parsed.error();
        } else {
            files::createPrivateDirectories(cacheDirectory_, ec);
            if (!files::writeAtomically(file, fetched->body, ec)) error = "cannot save the copy: " + ec.message();
            nlohmann::json j{{"etag", fetched->etag}, {"lastModified", fetched->lastModified}};
            files::writeAtomically(meta, j.dump(), ec);
        }
    }
    if (error) kLog.error("calendar " + source + " not refreshed: " + *error);
    return error;
}

void IcsCalendarSource::applyDownload(const std::string& source, const std::optional<std::string>& error) {
    auto it = loaded_.find(source);
    if (it == loaded_.end()) return;
    it->second->downloading = false;
    it->second->state.error = error;
    if (!error) it->second->state.loadedAt = clock_.now();
    load(source);
}

CalendarAccess IcsCalendarSource::access() {
    const auto sources = configuredSources(defaults_);
    if (sources.empty()) return CalendarAccess::notDetermined;
    for (const auto& s : sources) {
        load(s);
        if (isRemoteSource(s)) refreshIfDue(s);
        if (loaded_[s]->state.readable) return CalendarAccess::granted;
    }
    return CalendarAccess::denied;
}

std::vector<automation::CalendarMeeting> IcsCalendarSource::events(WallTime from, WallTime to) {
    std::vector<automation::CalendarMeeting> all;
    const auto addresses = myAddresses_ ? myAddresses_() : std::vector<std::string>{};
    for (const auto& s : configuredSources(defaults_)) {
        load(s);
        if (isRemoteSource(s)) refreshIfDue(s);
        auto& l = *loaded_[s];
        if (!l.state.readable) continue;
        auto& cached = l.expansion;
        if (!cached || from < cached->from || to > cached->to || cached->addresses != addresses) {
            const WallTime spanFrom = from - std::chrono::hours(1);
            const WallTime spanTo = to + std::chrono::hours(kExpansionHours);
            auto parsed = expandCalendar(l.goodText, spanFrom, spanTo, addresses);
            if (!parsed) continue;
            cached = Loaded::Expansion{spanFrom, spanTo, addresses, std::move(parsed->meetings)};
        }
        // What the expansion of [from, to] itself would give: the meetings that overlap it,
        // to the second (an event of no length counts at its start).
        const time_t fromT = std::chrono::system_clock::to_time_t(from), toT = std::chrono::system_clock::to_time_t(to);
        for (const auto& m : cached->meetings) {
            const time_t start = std::chrono::system_clock::to_time_t(m.start), end = std::chrono::system_clock::to_time_t(m.end);
            if (start < toT && std::max(end, start + 1) > fromT) all.push_back(m);
        }
    }
    return all;
}

std::vector<SourceState> IcsCalendarSource::states() {
    std::vector<SourceState> out;
    for (const auto& s : configuredSources(defaults_)) {
        load(s);
        out.push_back(loaded_[s]->state);
    }
    return out;
}

void IcsCalendarSource::refreshNow() {
    for (const auto& s : configuredSources(defaults_)) {
        if (!isRemoteSource(s)) continue;
        load(s);
        std::optional<std::string> error;
        downloads_->sync([&] { error = download(s); });
        applyDownload(s, error);
    }
}

}  // namespace vell::calendar
