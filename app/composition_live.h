#pragma once
// The live advisor of the process, made on first use on the main executor over the service
// client, with the segment writer and the two sides' level meter the recorder feeds.
#include <memory>

#include "live/live_advisor.h"
#include "live/side_levels.h"

namespace vell::recording {
class RecorderService;
}

namespace vell::app {

live::LiveAdvisor& liveAdvisor();
std::shared_ptr<live::SideLevelMeter> sideLevelMeter();
// Follows the recorder's stops and its pending list (uploads and discards); once.
void attachLiveAdvisor(recording::RecorderService& recorder);

}  // namespace vell::app
