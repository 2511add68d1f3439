#pragma once
// Fakes around the automatic call recorder: a recorder whose state the test sets, a
// notifier that keeps what was posted, and a scanner that answers with the next sample.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "automation/call_recorder_ports.h"
#include "automation/call_scan.h"

namespace vell::test {

struct FakeCallRecorder final : automation::CallRecorderControl {
    bool recording = false, automatic = false, silent = false;
    std::optional<std::string> id;
    int starts = 0, automaticStops = 0, userStops = 0, probes = 0;
    // Unset: answers at once with `startSucceeds`; set: the test answers later.
    bool answerLater = false;
    bool startSucceeds = true;
    std::function<void(bool)> pendingAnswer;
    int nextID = 1;

    bool isRecording() const override { return recording; }
    std::optional<std::string> currentID() const override { return id; }
    bool isAutomaticRecording() const override { return automatic; }
    bool systemAudioSilent() const override { return recording && silent; }
    void refreshSystemAudio() override { ++probes; }
    void startAutomatic(std::function<void(bool)> done) override {
        ++starts;
        if (answerLater) return void(pendingAnswer = std::move(done));
        answer(startSucceeds, std::move(done));
    }
    void answer(bool started, std::function<void(bool)> done) {
        if (started) begin(true);
        done(started);
    }
    void answerPending(bool started) {
        auto done = std::move(pendingAnswer);
        pendingAnswer = nullptr;
        answer(started, std::move(done));
    }
    void begin(bool isAutomatic) {
        recording = true;
        automatic = isAutomatic;
        id = "REC-" + std::to_string(nextID++);
    }
    void end() {
        recording = automatic = false;
        id.reset();
    }
    void stopAutomatic() override { ++automaticStops, end(); }
    void finishByUser() override { ++userStops, end(); }
};

struct FakeCallNotifier final : automation::CallNotifier {
    std::vector<automation::CallNotification> posted;
    std::vector<std::string> withdrawn;
    void post(const automation::CallNotification& n) override { posted.push_back(n); }
    void withdraw(const std::string& id) override { withdrawn.push_back(id); }
};

struct FakeCallScanner final : automation::CallScanner {
    std::optional<automation::CallerScan> next;
    bool hang = false;
    int scans = 0;
    void scan(std::function<void(std::optional<automation::CallerScan>)> done) override {
        ++scans;
        if (!hang) done(next);
    }
};

}  // namespace vell::test
