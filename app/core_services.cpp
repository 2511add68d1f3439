#include "app/core_services.h"

#include <random>

#include "base/log.h"
#include "recording/recorder_service.h"

namespace vell::app {

namespace {
const log::Logger kLog("App");
}

CoreServices::CoreServices(service::APIClient& client, std::function<recording::RecorderService&()> recorder,
                           UserDefaults& defaults, Executor& main, const Clock& clock)
    : client_(client), account_(client), makeRecorder_(std::move(recorder)), main_(main), clock_(clock) {
    // The adoption of unowned recordings goes through the recorder, so its recovery has run.
    appState_ = std::make_unique<AppState>(
        account_, defaults, [this](const std::string& accountID) {
            auto& recorder = this->recorder();
            recorder.assignAccountToUnowned(accountID);
            return !recorder.saveFailure();
        },
        main);
    meWatch_ = appState_->me.subscribe([this](const std::optional<service::Me>& me) {
        accountChanged(me ? std::optional<std::string>(me->id) : std::nullopt);
    });
}

CoreServices::~CoreServices() = default;

recording::RecorderService& CoreServices::recorder() {
    if (recorder_) return *recorder_;
    recorder_ = &makeRecorder_();
    if (auto account = accountID()) recorder_->assignAccountToThisRun(*account);
    return *recorder_;
}

service::UploadQueue& CoreServices::uploads() {
    if (uploads_) return *uploads_;
    auto& store = recorder();
    uploader_ = std::make_unique<service::ApiRecordingUploader>(client_);
    auto random = std::make_shared<std::mt19937_64>(std::random_device{}());
    uploads_ = std::make_unique<service::UploadQueue>(store, *uploader_, main_, clock_, [random] {
        return std::uniform_real_distribution<double>(0, 1)(*random);
    });
    uploads_->onUnauthenticated = [this] { appState_->handleUnauthenticated(); };
    if (auto me = appState_->me.get()) uploads_->setAccount(me->id);
    return *uploads_;
}

void CoreServices::bootstrap(AppState::Settled settled) { appState_->bootstrap(std::move(settled)); }

void CoreServices::startUploading() {
    if (uploading_) return;
    uploading_ = true;
    auto& queue = uploads();
    recordingWatch_ = recorder().state.isRecording.subscribe([this](bool recording) {
        if (!recording) main_.post([this] { uploads_->wake(); });
    });
    queue.start();
}

void CoreServices::stopUploading() {
    recordingWatch_.reset();
    if (uploads_) uploads_->setAccount(std::nullopt);
}

void CoreServices::accountChanged(const std::optional<std::string>& accountID) {
    if (accountID && recorder_) recorder_->assignAccountToThisRun(*accountID);
    if (uploads_) uploads_->setAccount(accountID);
    if (accountID) kLog.debug("signed in; uploads follow the account");
}

}  // namespace vell::app
