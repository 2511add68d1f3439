// vell speech-test FILE [--json]: runs the recorder's speech classifier over an audio file
// and prints each window's speech confidence and label, so a user can see why a recording
// did or did not stop itself after 10 minutes without speech.
#include <fmt/format.h>

#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

#include "audio/sound_classifier.h"
#include "audio/speech_activity_detector.h"
#include "cli/command.h"
#include "cli/speech_messages.h"
#include "platform/codec/audio_file_reader.h"

namespace vell::cli {

namespace {
namespace msg = messages;
using Json = nlohmann::ordered_json;

struct Window {
    double start = 0, duration = 0, speech = 0;
    std::string label;
};

struct Collector final : audio::SoundAnalysisObserver {
    double rate = 0;
    std::vector<Window> windows;
    std::optional<std::string> failure;
    void resultProduced(const audio::SoundClassificationResult& r) override {
        Window w{double(r.framePosition) / rate, r.durationSeconds, 0, ""};
        for (const auto& c : r.classifications)
            if (c.identifier == "speech") w.speech = c.confidence;
        if (!r.classifications.empty()) w.label = r.classifications.front().identifier;
        windows.push_back(std::move(w));
    }
    void requestFailed(const std::string& error) override { failure = error; }
};

bool isSpeech(const Window& w) { return w.speech >= audio::SpeechActivityDetector::kMinimumConfidence; }

std::string clockTime(double seconds) {
    const auto whole = static_cast<long>(seconds);
    return fmt::format("{}:{:02}:{:04.1f}", whole / 3600, (whole / 60) % 60, std::fmod(seconds, 60.0));
}

int speechTest(const std::string& file, bool json) {
    auto classifier = audio::makeSpeechClassifier();
    if (!classifier) {
        std::cerr << "vell: " << msg::kNoSpeechClassifier.str() << classifier.error() << "\n";
        return kExitFailure;
    }
    Collector collector;
    std::unique_ptr<audio::SoundStreamAnalyzer> analyzer;
    std::pair<double, int> format{0, 0};
    std::int64_t position = 0;
    double seconds = 0;
    auto read = media::readAudioFile(file, [&](audio::PcmBufferPtr block) {
        if (collector.failure) return;
        // A stream that changes format midway starts a new analysis, as the detector does.
        if (!analyzer || format != std::pair{block->sampleRate, block->channelCount()}) {
            format = {block->sampleRate, block->channelCount()};
            auto made = (*classifier)->makeAnalyzer(block->sampleRate, block->channelCount(), collector);
            if (!made) {
                collector.failure = made.error();
                return;
            }
            analyzer = std::move(*made);
            collector.rate = block->sampleRate;
            position = std::llround(seconds * block->sampleRate);
        }
        analyzer->analyze(*block, position);
        position += std::int64_t(block->frames());
        seconds += double(block->frames()) / block->sampleRate;
    });
    if (!read) {
        std::cerr << "vell: " << msg::kCannotReadAudio.str() << read.error() << "\n";
        return kExitFailure;
    }
    if (collector.failure) {
        std::cerr << "vell: " << msg::kNoSpeechClassifier.str() << *collector.failure << "\n";
        return kExitFailure;
    }

    // The longest run without a speech window, from the start or the last speech to the
    // next speech or the end: what the 10-minute stop measures.
    int speechWindows = 0;
    double lastSpeechEnd = 0, longest = 0;
    for (const auto& w : collector.windows) {
        if (!isSpeech(w)) continue;
        ++speechWindows;
        longest = std::max(longest, w.start - lastSpeechEnd);
        lastSpeechEnd = w.start + w.duration;
    }
    longest = std::max(longest, seconds - lastSpeechEnd);

    if (json) {
        Json out{{"file", file},
                 {"seconds", seconds},
                 {"threshold", audio::SpeechActivityDetector::kMinimumConfidence},
                 {"speechWindows", speechWindows},
                 {"longestWithoutSpeech", longest},
                 {"windows", Json::array()}};
        for (const auto& w : collector.windows)
            out["windows"].push_back({{"start", w.start},
                                      {"duration", w.duration},
                                      {"speech", std::round(w.speech * 1000) / 1000},
                                      {"label", w.label},
                                      {"isSpeech", isSpeech(w)}});
        std::cout << out.dump() << "\n";
        return kExitOK;
    }
    for (const auto& w : collector.windows)
        std::cout << fmt::format("{}  {:5.3f}  {}\n", clockTime(w.start), w.speech, w.label);
    std::cout << msg::kSpeechIn.str() << speechWindows << msg::kWindowsOf.str() << collector.windows.size()
              << msg::kWindowsTail.str() << "\n"
              << msg::kLongestWithoutSpeech.str() << clockTime(longest) << "\n"
              << (longest >= 600 ? msg::kWouldStop : msg::kWouldNotStop).str() << "\n";
    return kExitOK;
}

void setup(CLI::App& app, Context& context) {
    auto* cmd = app.add_subcommand("speech-test", msg::kSpeechTestDescription.str());
    auto file = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    cmd->add_option("file", *file, msg::kSpeechTestFileOption.str())->required();
    cmd->add_flag("--json", *json, msg::kSpeechTestJsonOption.str());
    cmd->callback([&context, file, json] { context.exitCode = speechTest(*file, *json); });
}

}  // namespace

VELL_COMMAND(43, setup);

}  // namespace vell::cli
