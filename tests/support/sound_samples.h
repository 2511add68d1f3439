#pragma once
// Real and generated sounds for the speech tests, as mono float samples at a chosen rate:
// espeak-ng speech, packaged music decoded by FFmpeg, and noises from a seeded generator.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "audio/pcm_buffer.h"

namespace vell::test {

// espeak-ng speaking `text` in `voice` ("en", "es", "en-us+f3", ...); empty on failure.
std::vector<float> speak(const std::string& text, const std::string& voice, int rate, int wordsPerMinute = 150);
// Any file FFmpeg reads, as mono at `rate`, at most `seconds` long (0: all of it).
std::vector<float> decodeMono(const std::filesystem::path& file, int rate, double seconds = 0);
// Pink noise (1/f, Paul Kellet's filter) and white noise with the given RMS level.
std::vector<float> pinkNoise(std::size_t samples, double rms, std::uint32_t seed);
std::vector<float> whiteNoise(std::size_t samples, double rms, std::uint32_t seed);

double rmsOf(const std::vector<float>& samples);
// Scales `signal` to the given RMS level (dB re full scale) in place.
void setLevel(std::vector<float>& signal, double dbfs);
// `speech` laid over `background` (repeated as needed) at the given speech-to-background
// ratio in dB; the result keeps the background's level.
std::vector<float> mixAtSnr(const std::vector<float>& speech, const std::vector<float>& background, double snrDb);

// The packaged music the tests and the benchmark use (game soundtracks from Debian).
std::vector<std::filesystem::path> packagedMusic();

// Blocks in the mixer's format (stereo, 0.1 s) from mono samples at `rate`.
std::vector<audio::PcmBufferPtr> mixerBlocks(const std::vector<float>& mono, int rate);

}  // namespace vell::test
