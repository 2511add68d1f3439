#pragma once
// A backend that only shows, for vell-tray-screenshots and the tests that look at every
// window: a user in the middle of a call with insurance mode on, in both languages.
#include <chrono>
#include <nlohmann/json.hpp>

#include "base/language.h"
#include "tray/still_backend.h"

namespace vell::tray {

// A backend that only shows: a user in the middle of a call with insurance mode on.
class SampleBackend final : public StillBackend {
public:
    SampleBackend() {
        using namespace std::chrono;
        const auto now = system_clock::now();
        auto& s = state_;
        s.phase = SignInPhase::signedIn;
        s.email = "ana@example.com";
        s.recording = true;
        s.elapsed = 754;
        s.microphoneLevel = 0.62;
        s.systemLevel = 0.35;
        s.microphone = "USB Headset";
        s.callers = {"Zoom"};
        s.pending = {
            {"a", "uploaded", now - hours(26), now - hours(25), "", 1, std::nullopt},
            {"b", "failed", now - hours(3), now - hours(2), "The service could not be reached.", 2, std::nullopt},
            {"c", "uploading", now - minutes(50), now - minutes(20), "", 0, 0.45},
            {"d", "recording", now - seconds(754), std::nullopt, "", 0, std::nullopt},
        };
        s.insuranceEnabled = s.insuranceListening = s.privacyAccepted = true;
        s.insuranceWindowMinutes = 15;
        s.bufferedSeconds = 14 * 60 + 20;
        s.insuranceDevice = "USB Headset";
        s.callsEnabled = true;
        s.calendarEnabled = true;
        s.calendarSources = {"https://calendar.example.com/team.ics"};
        s.opensAtLogin = true;
        s.microphones = {{"default", "System default (Built-in Audio)", false},
                         {"builtin", "Built-in microphone", false},
                         {"uid:usb", "USB Headset", false}};
        s.recordingMicrophone = "uid:usb";
        s.insuranceMicrophone = "default";
        s.microphoneCount = 2;
        s.live.sessionID = "live-1";
        s.live.tiles = {tile("talk-time", "talkTime", 0.84, {{"shares", {{"1", 71}, {"2", 29}}}}, 600'000),
                        tile("monologue-1", "monologue", 0.62, {{"speaker", 1}, {"durationMs", 112'000}}, 540'000),
                        tile("questions", "questions", 0.4, {{"count", 2}}, 690'000),
                        tile("silence", "silence", 0.22, {{"count", 1}, {"longestMs", 9'000}}, 300'000)};
        results_ = sampleResults();
        recovery_.display = "Let's move the launch to Thursday and ask Marta for the final numbers before the review.";
        recovery_.finished = true;
        recovery_.hasSelection = true;
        recovery_.copyConfirmation = "Copied";
    }
    static live::Tile tile(const char* id, const char* kind, double weight, nlohmann::json data, long long atMs) {
        live::Tile t;
        t.id = id;
        t.kind = kind;
        t.weight = weight;
        t.data = std::move(data);
        t.atMs = atMs;
        return t;
    }
    static std::vector<ResultItem> sampleResults() {
        const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::system_clock::now().time_since_epoch()).count();
        results::RecordingResult weekly;
        weekly.id = "rec_weekly";
        weekly.createdAt = now - 26LL * 3600 * 1000;
        weekly.durationMs = 31 * 60 * 1000 + 12'000;
        weekly.state = "processed";
        weekly.summary = "## Key points\n\n- The launch moves to **Thursday**.\n- Marta sends the final numbers before the review.\n"
                         "- The budget stays at ten thousand dollars.\n";
        weekly.speakers = {{1, "microphone", std::string("Ana"), 14 * 60 * 1000}, {2, "system", std::nullopt, 12 * 60 * 1000}};
        weekly.transcript = {{1, 4'000, 9'000, "Thanks for joining. Shall we start with the launch?"},
                             {2, 10'000, 16'000, "Yes. Engineering needs two more days, so Thursday works better."},
                             {1, 17'000, 22'000, "Fine by me. What is the budget now?"},
                             {2, 23'000, 27'000, "Still ten thousand dollars."}};
        weekly.cues = {tile("talk-time", "talkTime", 0.3, {{"shares", {{"1", 54}, {"2", 46}}}}, 0),
                       tile("questions", "questions", 0.5, {{"count", 4}}, 0)};
        results::RecordingResult processing = weekly;
        processing.id = "rec_today";
        processing.createdAt = now - 40LL * 60 * 1000;
        processing.durationMs = 12 * 60 * 1000 + 34'000;
        processing.state = "processing";
        results::RecordingResult failed = weekly;
        failed.id = "rec_failed";
        failed.createdAt = now - 3LL * 24 * 3600 * 1000;
        failed.durationMs = 45'000;
        failed.state = "failed";
        return {{processing, ""}, {weekly, ""}, {failed, ""}};
    }
    void setLanguage(Language language) {
        state_.microphones[0].label = language == Language::Spanish ? "Predeterminado del sistema (Built-in Audio)"
                                                                     : "System default (Built-in Audio)";
        state_.microphones[1].label = language == Language::Spanish ? "Micrófono integrado" : "Built-in microphone";
        recovery_.copyConfirmation = language == Language::Spanish ? "Copiado" : "Copied";
        emit changed();
        emit recoveryChanged();
    }
};

}  // namespace vell::tray
