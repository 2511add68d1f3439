#pragma once
// The speech classifier on the Silero network: one result per window of 31 chunks (about
// one second) at 16 kHz, whatever the input format.
#include <filesystem>
#include <memory>
#include <string>

#include "audio/sound_classifier.h"
#include "platform/silero/silero_vad.h"

namespace vell::silero {

inline constexpr int kChunksPerWindow = 31;

// Where the model is looked for, first match wins: $VELL_SPEECH_MODEL, the data directory
// of an installed program (<prefix>/share/vell beside <prefix>/bin), the build tree.
std::vector<std::filesystem::path> modelCandidates();

// The classifier over the installed model, or the reason it cannot be had.
Expected<std::shared_ptr<audio::SoundClassifier>, std::string> loadSpeechClassifier();
// Over given weights (tests, the benchmark).
std::shared_ptr<audio::SoundClassifier> makeSpeechClassifier(std::shared_ptr<const Weights> weights);

}  // namespace vell::silero
