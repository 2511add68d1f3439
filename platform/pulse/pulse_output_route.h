#pragma once
// The audio layer's OutputRouteWatcher on the sound server: the default sink, its active
// port's type (PulseAudio 14 and later) and its device.form_factor / device.bus properties,
// followed through server and sink events. A server that cannot be reached leaves the route
// unknown and is asked again every 2 s.
#include <memory>

#include "audio/output_route.h"

namespace vell::platform {

std::unique_ptr<audio::OutputRouteWatcher> makePulseOutputRouteWatcher();

}  // namespace vell::platform
