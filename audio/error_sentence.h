#pragma once
// The one sentence a person sees for an audio failure: what to do when no sound server
// runs, the platform's status and failing call otherwise. Any thread.
#include <exception>
#include <string>

namespace vell::audio {

std::string failureSentence(const std::exception& error);

}  // namespace vell::audio
