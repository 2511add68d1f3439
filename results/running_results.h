#pragma once
// The live advisor and the recording results of the running process, for the parts that
// serve other programs (the control interface); set by the composition root when it makes
// them. Main executor only.
namespace vell::live {
class LiveAdvisor;
}

namespace vell::results {

class RecordingResults;

struct RunningResults {
    live::LiveAdvisor* advisor = nullptr;
    RecordingResults* results = nullptr;
};

RunningResults& runningResults();

}  // namespace vell::results
