#pragma once
// The real recorder over fake audio parts on a manual clock, with a calendar that returns
// what the test puts in it, for the calendar and discard machines.
#include <gtest/gtest.h>

#include <mutex>

#include "automation/calendar_auto_recorder.h"
#include "automation/discarded_recordings.h"
#include "base/language.h"
#include "base/log.h"
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::automation::test_rig {

class FakeCalendar final : public CalendarEventSource {
public:
    CalendarAccess access() override { return accessValue; }
    std::vector<CalendarMeeting> events(WallTime from, WallTime to) override {
        ++fetches;
        lastFrom = from;
        lastTo = to;
        std::vector<CalendarMeeting> out;
        for (const auto& m : meetings)
            if (m.end > from && m.start < to) out.push_back(m);
        return out;
    }
    CalendarAccess accessValue = CalendarAccess::granted;
    std::vector<CalendarMeeting> meetings;
    int fetches = 0;
    WallTime lastFrom{}, lastTo{};
};

class AutomationTest : public ::testing::Test {
protected:
    AutomationTest() : exec(clock) {
        runtime::install(&exec, &clock);
        setInterfaceLanguage(Language::English);
        log::setSink([this](log::Level, const std::string& category, const std::string& line) {
            std::lock_guard lock(logMutex);
            logLines.push_back(category + ": " + line);
        });
        rig.speech->isUsable = true;
        makeRecorder();
    }
    ~AutomationTest() override {
        calendar.reset();
        discards.reset();
        recorder.reset();
        log::setSink({});
        runtime::install(nullptr, nullptr);
    }

    void makeRecorder() { recorder = std::make_unique<recording::RecorderService>(rig.parts(), dir()); }
    std::filesystem::path dir() const { return home.dataHome() / "Vell" / "Recordings"; }

    CalendarAutoRecorder& makeCalendar() {
        calendar = std::make_unique<CalendarAutoRecorder>(
            source, *recorder, defaults(), exec, clock,
            CalendarAutoRecorder::Ports{[this] { return ready; },
                                        [this](const AutomationNotice& n) { posted.push_back(n); }});
        return *calendar;
    }
    DiscardedRecordings& makeDiscards() {
        DiscardedRecordings::Ports ports;
        ports.post = [this](const AutomationNotice& n) { posted.push_back(n); };
        ports.restored = [this] { ++restoredCalls; };
        ports.purgeServerCopy = [this](const std::string& id, std::function<void(std::optional<std::string>)> done) {
            purgeCalls.push_back(id);
            done(serviceDown ? std::optional<std::string>("The service cannot be reached.") : std::nullopt);
        };
        discards = std::make_unique<DiscardedRecordings>(*recorder, defaults(), exec, clock, std::move(ports));
        discards->start();
        return *discards;
    }
    UserDefaults& defaults() { return UserDefaults::standard(); }

    bool startAndWait(recording::RecordingStartOptions options = {}) {
        std::optional<bool> result;
        recorder->start(options, [&](bool ok) { result = ok; });
        EXPECT_TRUE(exec.runUntil([&] { return result.has_value(); }));
        return result.value_or(false);
    }
    // Runs the main executor until the recorder has started (the start is asynchronous).
    bool waitRecording() {
        return exec.runUntil([&] { return recorder->state.isRecording.get(); });
    }
    std::optional<recording::PendingRecording> entry(const std::string& id) {
        for (auto& r : recorder->pending())
            if (r.id == id) return r;
        return std::nullopt;
    }
    bool logged(const std::string& fragment) {
        std::lock_guard lock(logMutex);
        for (auto& l : logLines)
            if (l.find(fragment) != std::string::npos) return true;
        return false;
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec;
    recording::fakes::Rig rig;
    std::unique_ptr<recording::RecorderService> recorder;
    FakeCalendar source;
    std::unique_ptr<CalendarAutoRecorder> calendar;
    std::unique_ptr<DiscardedRecordings> discards;
    bool ready = true;
    bool serviceDown = false;
    std::vector<AutomationNotice> posted;
    std::vector<std::string> purgeCalls;
    int restoredCalls = 0;
    std::mutex logMutex;
    std::vector<std::string> logLines;
};

inline CalendarMeeting meetingAt(WallTime now, std::string id, int startOffset, int endOffset, std::string title = "Design review") {
    CalendarMeeting m;
    m.id = std::move(id);
    m.title = std::move(title);
    m.start = now + std::chrono::seconds(startOffset);
    m.end = now + std::chrono::seconds(endOffset);
    m.hasOtherAttendees = true;
    return m;
}

}  // namespace vell::automation::test_rig
