#pragma once
// What the automatic call recorder needs around it: the recorder service (recording.h
// adapter: automation/recorder_call_control.h), the desktop's notifications (the host)
// and whether a user is signed in. All called on the main executor.
#include <functional>
#include <optional>
#include <string>

namespace vell::automation {

class CallRecorderControl {
public:
    virtual ~CallRecorderControl() = default;
    virtual bool isRecording() const = 0;
    virtual std::optional<std::string> currentID() const = 0;
    virtual bool isAutomaticRecording() const = 0;
    // The system audio is being recorded and has been exact digital silence for 2 s or more.
    virtual bool systemAudioSilent() const = 0;
    // Re-reads what the system audio is (runs at most every 30 s).
    virtual void refreshSystemAudio() = 0;
    // Starts an automatic call recording; done(started) on the main executor.
    virtual void startAutomatic(std::function<void(bool started)> done) = 0;
    // Ends the automatic recording (not the user's doing); what was recorded is kept.
    virtual void stopAutomatic() = 0;
    // The user's stop from a notification: ends the running recording and keeps it.
    virtual void finishByUser() = 0;
};

struct CallNotification {
    std::string identifier;
    std::string category;
    std::string title;
    std::string body;
};

class CallNotifier {
public:
    virtual ~CallNotifier() = default;
    virtual void post(const CallNotification& notification) = 0;
    virtual void withdraw(const std::string& identifier) = 0;
};

}  // namespace vell::automation
