#include "tests/support/sound_samples.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <algorithm>
#include <random>

namespace vell::test {

namespace {

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::vector<float> readFloats(const std::string& command) {
    std::vector<float> samples;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return samples;
    float buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, sizeof(float), 4096, pipe.get())) > 0) samples.insert(samples.end(), buffer, buffer + n);
    return samples;
}

}  // namespace

std::vector<float> speak(const std::string& text, const std::string& voice, int rate, int wordsPerMinute) {
    return readFloats("espeak-ng -v " + quoted(voice) + " -s " + std::to_string(wordsPerMinute) + " --stdout " +
                      quoted(text) + " 2>/dev/null | ffmpeg -v error -i - -f f32le -ac 1 -ar " + std::to_string(rate) +
                      " - 2>/dev/null");
}

std::vector<float> decodeMono(const std::filesystem::path& file, int rate, double seconds) {
    std::string limit = seconds > 0 ? " -t " + std::to_string(seconds) : "";
    return readFloats("ffmpeg -v error -i " + quoted(file.string()) + limit + " -f f32le -ac 1 -ar " +
                      std::to_string(rate) + " - 2>/dev/null");
}

std::vector<float> pinkNoise(std::size_t samples, double level, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> gaussian(0.0, 1.0);
    std::vector<float> out(samples);
    double b0 = 0, b1 = 0, b2 = 0, b3 = 0, b4 = 0, b5 = 0, b6 = 0;
    for (auto& x : out) {
        const double white = gaussian(random);
        b0 = 0.99886 * b0 + white * 0.0555179;
        b1 = 0.99332 * b1 + white * 0.0750759;
        b2 = 0.96900 * b2 + white * 0.1538520;
        b3 = 0.86650 * b3 + white * 0.3104856;
        b4 = 0.55000 * b4 + white * 0.5329522;
        b5 = -0.7616 * b5 - white * 0.0168980;
        x = static_cast<float>(b0 + b1 + b2 + b3 + b4 + b5 + b6 + white * 0.5362);
        b6 = white * 0.115926;
    }
    const double scale = level / std::max(rmsOf(out), 1e-12);
    for (auto& x : out) x = static_cast<float>(x * scale);
    return out;
}

std::vector<float> whiteNoise(std::size_t samples, double level, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::normal_distribution<float> gaussian(0.0f, static_cast<float>(level));
    std::vector<float> out(samples);
    for (auto& x : out) x = gaussian(random);
    return out;
}

double rmsOf(const std::vector<float>& samples) {
    double sum = 0;
    for (float x : samples) sum += double(x) * x;
    return samples.empty() ? 0 : std::sqrt(sum / double(samples.size()));
}

void setLevel(std::vector<float>& signal, double dbfs) {
    const double scale = std::pow(10.0, dbfs / 20) / std::max(rmsOf(signal), 1e-12);
    for (auto& x : signal) x = static_cast<float>(x * scale);
}

std::vector<float> mixAtSnr(const std::vector<float>& speech, const std::vector<float>& background, double snrDb) {
    std::vector<float> out(speech.size());
    if (background.empty()) return speech;
    const double speechScale = rmsOf(background) * std::pow(10.0, snrDb / 20) / std::max(rmsOf(speech), 1e-12);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<float>(speech[i] * speechScale + background[i % background.size()]);
    return out;
}

std::vector<std::filesystem::path> packagedMusic() {
    std::vector<std::filesystem::path> files;
    for (const char* dir : {"/usr/share/games/asc/music", "/usr/share/games/frozen-bubble/snd"}) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
            const auto ext = entry.path().extension();
            if (ext == ".mp3" || ext == ".ogg" || ext == ".xm") files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<audio::PcmBufferPtr> mixerBlocks(const std::vector<float>& mono, int rate) {
    std::vector<audio::PcmBufferPtr> out;
    const std::size_t block = static_cast<std::size_t>(rate / 10);
    for (std::size_t at = 0; at < mono.size(); at += block) {
        const std::size_t n = std::min(block, mono.size() - at);
        auto b = audio::PcmBuffer::make(rate, 2, n);
        std::copy_n(mono.begin() + std::ptrdiff_t(at), n, b->channels[0].begin());
        b->channels[1] = b->channels[0];
        out.push_back(std::move(b));
    }
    return out;
}

}  // namespace vell::test
