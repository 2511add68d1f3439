#pragma once
// A backend that shows the state it is given and ignores every action: for rendering the
// windows to pictures and for tests of a window's own logic. The recordings' results it
// is given are answered at once; renaming and sharing are never answered. GUI thread.
#include "tray/backend.h"

namespace vell::tray {

class StillBackend : public Backend {
public:
    const TrayState& state() const override { return state_; }
    bool remote() const override { return false; }
    void startRecording() override {}
    void stopRecording(bool) override {}
    void retryUploads() override {}
    void undo() override {}
    void enableInsurance() override {}
    void disableInsurance() override {}
    void setInsuranceWindow(int) override {}
    void signIn(const std::string&, const std::string&, std::function<void(Expected<bool, std::string>)>) override {}
    void verifyCode(const std::string&, Reply) override {}
    void cancelSecondFactor() override {}
    void signOut() override {}
    void setCallsEnabled(bool) override {}
    void setCalendarEnabled(bool) override {}
    void addCalendarSource(const std::string&, Reply) override {}
    void removeCalendarSource(const std::string&, Reply) override {}
    void setShowsDockIcon(bool) override {}
    void setOpensAtLogin(bool) override {}
    void setMicrophone(bool, const std::string&) override {}
    void recoverChoose(RecoveryRange, int) override {}
    void recoverClose() override {}
    const RecoveryView& recovery() const override { return recovery_; }
    void recoverCopy(const std::string&) override {}
    void recoverPlay() override {}
    void recoverPause() override {}
    void listRecordings(Answer<std::vector<ResultItem>> done) override { done(results_); }
    void recordingDetail(const std::string& id, Answer<ResultItem> done) override {
        for (const auto& item : results_)
            if (item.result.id == id) return done(item);
    }
    void renameSpeakers(const std::string&, const std::map<int, std::string>&, Answer<results::RecordingResult>) override {}
    void shareRecording(const std::string&, Answer<SharedLink>) override {}
    void quit(std::function<void()>) override {}

    TrayState state_;
    RecoveryView recovery_;
    std::vector<ResultItem> results_;
};

}  // namespace vell::tray
