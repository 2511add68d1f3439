#pragma once
// The process's recording results, made on first use on the main executor over the service
// client, kept under <data>/Vell/Results.
#include "results/recording_results.h"

namespace vell::recording {
class RecorderService;
}

namespace vell::app {

results::RecordingResults& recordingResults();
// The host's side: every recording the upload queue delivers is followed until the service
// has processed it (also those uploaded before a restart whose results are not kept yet).
void followRecordingResults(recording::RecorderService& recorder);

}  // namespace vell::app
