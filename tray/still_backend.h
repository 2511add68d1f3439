#pragma once
// A backend that shows the state it is given and ignores every action: for rendering the
// windows to pictures and for tests of a window's own logic. GUI thread.
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
    void quit(std::function<void()>) override {}

    TrayState state_;
    RecoveryView recovery_;
};

}  // namespace vell::tray
