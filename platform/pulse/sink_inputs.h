#pragma once
// The playback streams (sink inputs) of one sink, with the process that plays each.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/pulse/pulse_connection.h"

namespace vell::pulse {

struct SinkInput {
    uint32_t index = 0;
    bool corked = false;
    std::string processID;  // property "application.process.id", set by libpulse for its clients
};

// Throws CoreAudioError when the server cannot be asked; empty when the sink does not exist.
// Not on the connection's own thread.
std::vector<SinkInput> sinkInputsOf(Connection& connection, const std::string& sinkName);

}  // namespace vell::pulse
