#pragma once
// The process's core services, put together once: the service client, the signed-in
// identity (AppState), the recorder and the upload queue that drains its pending list.
// Every program that records, lists or uploads goes through this one object, so that
//  - a new recording carries the account that is signed in (or that the stored session
//    belongs to, before the launch check has answered);
//  - the recorder exists, with its recovery of interrupted recordings done, before the
//    legacy adoption or an upload pass looks at the pending list;
//  - a rejected session anywhere ends in the same local sign-out.
// Lives on the main executor; made by the composition root (app/composition.h).
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/app_state.h"
#include "base/published.h"
#include "service/account_client.h"
#include "service/upload_queue.h"

namespace vell::recording {
class RecorderService;
}

namespace vell::app {

class CoreServices {
public:
    // recorder: made on first use (its creation runs the recovery scan).
    CoreServices(service::APIClient& client, std::function<recording::RecorderService&()> recorder, UserDefaults& defaults,
                 Executor& main, const Clock& clock);
    ~CoreServices();
    CoreServices(const CoreServices&) = delete;
    CoreServices& operator=(const CoreServices&) = delete;

    service::APIClient& client() { return client_; }
    service::AccountClient& account() { return account_; }
    AppState& appState() { return *appState_; }
    // The recorder, created on first use with the pending list settled.
    recording::RecorderService& recorder();
    // The upload queue over the recorder's pending list (created with it).
    service::UploadQueue& uploads();

    // The account new recordings are stamped with.
    std::optional<std::string> accountID() const { return appState_->accountID(); }

    // Runs the launch check once (AppState::bootstrap).
    void bootstrap(AppState::Settled settled = {});
    // The long-lived side of uploading: a pass now when signed in, after every sign-in,
    // whenever a recording stops, and on the queue's own backoff timer.
    void startUploading();
    // At quit: no new upload starts (one that began now would only be cut off; the entry
    // stays ready for the next run).
    void stopUploading();

private:
    void accountChanged(const std::optional<std::string>& accountID);

    service::APIClient& client_;
    service::AccountClient account_;
    std::function<recording::RecorderService&()> makeRecorder_;
    Executor& main_;
    const Clock& clock_;
    std::unique_ptr<AppState> appState_;
    recording::RecorderService* recorder_ = nullptr;
    std::unique_ptr<service::ApiRecordingUploader> uploader_;
    std::unique_ptr<service::UploadQueue> uploads_;
    bool uploading_ = false;
    Subscription meWatch_, recordingWatch_;
};

}  // namespace vell::app
