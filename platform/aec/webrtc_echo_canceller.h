#pragma once
// The audio layer's EchoCanceller on WebRTC's echo canceller (webrtc-audio-processing, the
// library behind PulseAudio's echo-cancel module). Any rate whose 10 ms frame is a whole
// number of samples works: the library resamples to its own 48 kHz processing rate (44.1 kHz
// in, 48 kHz inside, three 16 kHz bands, the echo filter on the lowest) and back.
#include <memory>
#include <string>

#include "audio/echo_canceller.h"

namespace vell::aec {

Expected<std::unique_ptr<audio::EchoCanceller>, std::string> openWebRtcEchoCanceller(int sampleRate, int channels);

}  // namespace vell::aec
