#include <mutex>

#include "audio/sound_classifier.h"

namespace vell::audio {

namespace {
std::mutex lock;
SpeechClassifierFactory installed;  // guarded by lock
}  // namespace

void setSpeechClassifierFactory(SpeechClassifierFactory factory) {
    std::lock_guard guard(lock);
    installed = std::move(factory);
}

Expected<std::shared_ptr<SoundClassifier>, std::string> makeSpeechClassifier() {
    SpeechClassifierFactory factory;
    {
        std::lock_guard guard(lock);
        factory = installed;
    }
    if (!factory) return unexpected(std::string("no speech classifier is installed"));
    auto made = factory();
    if (made && !*made) return unexpected(std::string("the speech classifier could not be created"));
    return made;
}

}  // namespace vell::audio
