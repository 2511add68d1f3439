#pragma once
// The user's calendars on Linux: iCalendar files and http(s) subscription addresses, kept
// as a list of text in the defaults store. Remote calendars are downloaded on their own
// queue at most every 5 minutes into a cache on disk (only a copy that reads as a calendar
// replaces the cached one), so the 15 s tick only reads files. A source that fails keeps
// its last good copy in use and shows its error. Main executor, except the download queue.
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "automation/calendar_meeting.h"
#include "base/executor.h"
#include "base/expected.h"
#include "base/serial_queue.h"
#include "base/user_defaults.h"

namespace vell::calendar {

bool isRemoteSource(const std::string& source);
std::vector<std::string> configuredSources(const UserDefaults& defaults);
// A file becomes its absolute path, "webcal://" becomes "https://"; refused: a file that
// does not exist, another scheme. Gives the stored form. Adding one twice keeps one.
Expected<std::string, std::string> addSource(UserDefaults& defaults, const std::string& fileOrURL);
// By its stored form, or by its position in the list (1-based, as `calendar list` shows).
Expected<std::string, std::string> removeSource(UserDefaults& defaults, const std::string& sourceOrIndex);

struct SourceState {
    std::string source;
    bool remote = false;
    bool readable = false;               // a good copy is in use
    std::optional<std::string> error;    // the last failure, kept until a load succeeds
    std::optional<WallTime> loadedAt;    // the good copy's time (download or file read)
    int events = 0;
};

class IcsCalendarSource final : public automation::CalendarEventSource {
public:
    static constexpr double kRefreshSeconds = 300;
    // How far past a tick's window the expansion it caches reaches.
    static constexpr int kExpansionHours = 6;

    IcsCalendarSource(UserDefaults& defaults, std::filesystem::path cacheDirectory,
                      std::function<std::vector<std::string>()> myAddresses, Executor& main, const Clock& clock);
    ~IcsCalendarSource() override;

    automation::CalendarAccess access() override;
    std::vector<automation::CalendarMeeting> events(WallTime from, WallTime to) override;

    std::vector<SourceState> states();
    // Downloads every remote calendar now and waits (the CLI, tests).
    void refreshNow();

private:
    struct Loaded;
    void load(const std::string& source);
    void refreshIfDue(const std::string& source);
    std::optional<std::string> download(const std::string& source);
    void applyDownload(const std::string& source, const std::optional<std::string>& error);
    std::filesystem::path cacheFile(const std::string& source) const;

    UserDefaults& defaults_;
    std::filesystem::path cacheDirectory_;
    std::function<std::vector<std::string>()> myAddresses_;
    Executor& main_;
    const Clock& clock_;
    std::map<std::string, std::shared_ptr<Loaded>> loaded_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
    std::unique_ptr<SerialQueue> downloads_;  // last: its thread ends first
};

}  // namespace vell::calendar
