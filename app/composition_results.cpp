#include "app/composition_results.h"

#include "app/composition.h"
#include "app/core_services.h"
#include "base/paths.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "results/running_results.h"
#include "service/upload_receipts.h"

namespace vell::app {

results::RecordingResults& recordingResults() {
    static auto* made = [] {
        auto* r = new results::RecordingResults(core().client(), runtime::main(), paths::vellDataDirectory() / "Results");
        results::runningResults().results = r;
        return r;
    }();
    return *made;
}

namespace {
void followUploaded(recording::RecorderService& recorder) {
    // The receipt names the service's id; it is written just after the entry turns
    // "uploaded", so it is read on the next turn of the main loop.
    runtime::main().post([&recorder] {
        service::UploadReceipts receipts(paths::vellDataDirectory() / "upload-receipts.json");
        for (const auto& r : recorder.pending()) {
            if (r.status != recording::PendingRecording::Status::uploaded) continue;
            auto receipt = receipts.find(r.id);
            if (!receipt || receipt->recordingID.empty()) continue;
            recordingResults().follow(receipt->recordingID, r.fileURL);
        }
    });
}
}  // namespace

void followRecordingResults(recording::RecorderService& recorder) {
    static bool following = false;
    if (following) return;
    following = true;
    // Made now, not at the first upload: the front ends list the account's recordings (and
    // the copies kept here) from the launch on.
    recordingResults();
    static Subscription watch = recorder.state.pending.subscribe(
        [&recorder](const std::vector<recording::PendingRecording>&) { followUploaded(recorder); });
    // Uploads of an earlier run whose results never arrived.
    followUploaded(recorder);
}

}  // namespace vell::app
