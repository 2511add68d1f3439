#include "audio/error_sentence.h"

#include "audio/capture_messages.h"
#include "audio/errors.h"

namespace vell::audio {

std::string failureSentence(const std::exception& error) {
    if (dynamic_cast<const SoundServerAbsent*>(&error)) return messages::kNoSoundServerRunning.str();
    return error.what();
}

}  // namespace vell::audio
