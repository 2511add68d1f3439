#pragma once
// How the service logic reads a request body without knowing the HTTP library: the route
// hands over a BodyStream that pushes the body through a sink piece by piece.
#include <functional>

namespace vell::devserver {

// Receives one piece of the body; returning false stops reading (the connection is then
// unusable and is dropped).
using BodySink = std::function<bool(const char* data, size_t size)>;
// Pushes the whole body through the sink; false when the body could not be read to its end
// (the client went away, or the sink stopped it).
using BodyStream = std::function<bool(const BodySink& sink)>;

}  // namespace vell::devserver
