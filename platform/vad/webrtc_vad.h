#pragma once
// The audio layer's VoiceActivityDetector on the WebRTC audio-processing voice detector.
#include <memory>
#include <string>

#include "audio/voice_activity_detector.h"

namespace vell::media {

// sampleRate: 16,000 or 48,000 Hz; anything else fails.
Expected<std::unique_ptr<VoiceActivityDetector>, std::string> openWebRtcVad(int sampleRate = 16000);

}  // namespace vell::media
