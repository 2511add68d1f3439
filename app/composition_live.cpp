#include "app/composition_live.h"

#include <algorithm>
#include <cstdlib>

#include "app/composition.h"
#include "app/core_services.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "recording/recorder_service.h"
#include "results/running_results.h"

namespace vell::app {

namespace {
// VELL_LIVE_SEGMENT_SECONDS shortens the segments for tests and demos, which cannot wait
// 30 seconds per segment; the product's length is the writer's own.
double segmentSeconds() {
    if (const char* text = std::getenv("VELL_LIVE_SEGMENT_SECONDS")) {
        char* end = nullptr;
        const double value = std::strtod(text, &end);
        if (end && *end == '\0' && value >= 1 && value <= 30) return value;
    }
    return double(recording::LiveSegmentWriter::kSegmentFrames) / recording::LiveSegmentWriter::kSampleRate;
}
}  // namespace

std::shared_ptr<live::SideLevelMeter> sideLevelMeter() {
    static auto meter = std::make_shared<live::SideLevelMeter>();
    return meter;
}

live::LiveAdvisor& liveAdvisor() {
    static live::LiveAdvisor* made = [] {
        recording::LiveSegmentWriter::Options options;
        options.segmentFrames = static_cast<std::int64_t>(segmentSeconds() * recording::LiveSegmentWriter::kSampleRate);
        auto writer = std::make_shared<recording::LiveSegmentWriter>(options);
        auto* api = new live::ApiLiveService(core().client());
        live::LiveAdvisorSettings settings;
        settings.segmentSeconds = segmentSeconds();
        auto* advisor = new live::LiveAdvisor(*api, writer, sideLevelMeter(), runtime::main(), settings);
        results::runningResults().advisor = advisor;
        // Also when no host runs the discard automation (a `vell record` serving `vell stop
        // --discard`): the next host purges it.
        advisor->onDiscarded = [](const std::string& sessionID) {
            auto& defaults = UserDefaults::standard();
            auto list = defaults.stringList(prefs::kPendingLiveSessionPurges).value_or(std::vector<std::string>{});
            if (std::find(list.begin(), list.end(), sessionID) != list.end()) return;
            list.push_back(sessionID);
            defaults.set(prefs::kPendingLiveSessionPurges, list);
        };
        return advisor;
    }();
    return *made;
}

void attachLiveAdvisor(recording::RecorderService& recorder) {
    static bool attached = false;
    if (attached) return;
    attached = true;
    static Subscription stops = recorder.state.isRecording.subscribe([&recorder](bool recording) {
        if (!recording) liveAdvisor().recordingStopped(recorder.currentID().value_or(""));
    });
    static Subscription pending = recorder.state.pending.subscribe(
        [](const std::vector<recording::PendingRecording>& list) { liveAdvisor().pendingChanged(list); });
}

}  // namespace vell::app
