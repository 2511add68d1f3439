// How well the speech classifiers tell speech from music, noise and silence, and what they
// cost. The labelled set is built here from Debian packages, so anyone can rerun it:
//   speech: read English from pocketsphinx-testdata (LibriVox, the "cards" and digit
//           recordings), espeak-ng in five English and five Spanish voices; each clean at
//           -20 dBFS, quiet at -45 dBFS, and under pink noise, white noise and music at
//           0, 5 and 10 dB SNR;
//   music:  the game soundtracks of asc-music and fb-music-high, at -20 and -10 dBFS;
//   noise:  loud pink, white and brown noise and a fan-like hum (-25 to -10 dBFS);
//   silence: digital zeros and a -70 dBFS hiss.
// Every clip goes through the same path as a recording (44.1 kHz stereo blocks of 0.1 s)
// into the classifier's analyzer; each result window is labelled by what it covers (speech
// windows by the share of active 10 ms frames of the clean speech). Printed per classifier:
// ROC-AUC overall and against each kind, false-positive rates at the detector's threshold
// (0.5), recall on speech per language and condition, and CPU time per hour of audio.
// Usage: bench_speech [music-seconds-per-track (default all)]
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "app/composition.h"
#include "audio/sound_classifier.h"
#include "platform/silero/silero_classifier.h"
#include "tests/support/sound_samples.h"

namespace {

using namespace vell;
constexpr int kRate = 16000;     // the rate the set is built at
constexpr int kMixRate = 44100;  // the rate the classifiers are fed at, as in a recording
constexpr double kThreshold = 0.5;

enum class Kind { speech, music, noise, silence };
const char* name(Kind k) {
    switch (k) {
        case Kind::speech: return "speech";
        case Kind::music: return "music";
        case Kind::noise: return "noise";
        case Kind::silence: return "silence";
    }
    return "";
}

struct Clip {
    std::string label;
    Kind kind;
    std::string language;   // speech: "en" or "es"
    std::string condition;  // speech: clean, quiet, noisy
    std::vector<float> samples;      // what the classifier hears, at kRate
    std::vector<float> cleanSpeech;  // speech clips: the speech alone, for the ground truth
};

struct Window {
    const Clip* clip;
    double score;
};

const char* kEnglish[] = {
    "Good morning everyone. Let us go over the numbers for the third quarter, and then talk about the hiring plan "
    "for next year. I think we are on track, but the budget for travel needs another look.",
    "Could you share your screen for a moment? I would like to see the draft before we send it to the client. "
    "The second page still has the old prices, and the summary at the end is too long.",
};
const char* kSpanish[] = {
    "Buen día a todos. Repasemos los números del tercer trimestre y después hablamos del plan de contrataciones "
    "para el año que viene. Creo que vamos bien, pero hay que revisar el presupuesto de viajes.",
    "¿Podés compartir la pantalla un momento? Quiero ver el borrador antes de mandarlo al cliente. La segunda "
    "página todavía tiene los precios viejos y el resumen del final es demasiado largo.",
};

std::vector<float> trimSilence(std::vector<float> s) {
    auto loud = [](float x) { return std::abs(x) > 1e-3f; };
    auto first = std::find_if(s.begin(), s.end(), loud);
    auto last = std::find_if(s.rbegin(), s.rend(), loud).base();
    if (first >= last) return {};
    return {first, last};
}

std::vector<float> brownNoise(std::size_t n, double level, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> g(0, 1);
    std::vector<float> out(n);
    double y = 0;
    for (auto& x : out) {
        y = 0.995 * y + g(random) * 0.1;
        x = static_cast<float>(y);
    }
    test::setLevel(out, 20 * std::log10(level));
    return out;
}

// A fan: a 50 Hz hum with harmonics over low-passed noise, slowly wavering.
std::vector<float> fanHum(std::size_t n, double dbfs, std::uint32_t seed) {
    auto noise = test::whiteNoise(n, 1.0, seed);
    std::vector<float> out(n);
    double lp = 0;
    for (std::size_t i = 0; i < n; ++i) {
        lp = 0.97 * lp + 0.03 * noise[i];
        const double t = double(i) / kRate;
        const double wobble = 1 + 0.1 * std::sin(2 * M_PI * 0.3 * t);
        out[i] = static_cast<float>(lp * 3 + wobble * (0.5 * std::sin(2 * M_PI * 50 * t) + 0.3 * std::sin(2 * M_PI * 100 * t) +
                                                       0.2 * std::sin(2 * M_PI * 150 * t)));
    }
    test::setLevel(out, dbfs);
    return out;
}

std::vector<float> readRaw16(const std::string& path) {
    std::vector<float> out;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return out;
    short v;
    while (std::fread(&v, 2, 1, f) == 1) out.push_back(v / 32768.0f);
    std::fclose(f);
    return out;
}

std::vector<Clip> buildSet(double musicSeconds) {
    std::vector<Clip> clips;
    // Backgrounds for the mixtures.
    std::vector<float> musicBed;
    for (const auto& file : test::packagedMusic()) {
        auto m = test::decodeMono(file, kRate, musicSeconds);
        if (m.empty()) continue;
        test::setLevel(m, -20);
        musicBed.insert(musicBed.end(), m.begin(), m.end());
        for (double level : {-20.0, -10.0}) {
            Clip c{file.filename().string() + "@" + std::to_string(int(level)), Kind::music, "", "", m, {}};
            test::setLevel(c.samples, level);
            clips.push_back(std::move(c));
        }
    }
    if (musicBed.empty()) {
        std::fprintf(stderr, "bench_speech: no packaged music (install asc-music and fb-music-high)\n");
        std::exit(1);
    }
    const std::size_t minute = 60 * kRate;
    clips.push_back({"pink -10 dBFS", Kind::noise, "", "", test::pinkNoise(2 * minute, std::pow(10, -0.5), 1), {}});
    clips.push_back({"white -15 dBFS", Kind::noise, "", "", test::whiteNoise(2 * minute, std::pow(10, -0.75), 2), {}});
    clips.push_back({"brown -12 dBFS", Kind::noise, "", "", brownNoise(2 * minute, std::pow(10, -0.6), 3), {}});
    clips.push_back({"fan -25 dBFS", Kind::noise, "", "", fanHum(2 * minute, -25, 4), {}});
    clips.push_back({"digital silence", Kind::silence, "", "", std::vector<float>(minute, 0.0f), {}});
    clips.push_back({"hiss -70 dBFS", Kind::silence, "", "", test::whiteNoise(minute, std::pow(10, -3.5), 5), {}});

    // Speech sources.
    struct Source {
        std::string label, language;
        std::vector<float> samples;
    };
    std::vector<Source> sources;
    const std::string data = "/usr/share/pocketsphinx/test/data/";
    std::vector<float> read;
    for (const char* f : {"librivox/sense_and_sensibility_01_austen_64kb-0870.wav", "librivox/sense_and_sensibility_01_austen_64kb-0880.wav",
                          "librivox/sense_and_sensibility_01_austen_64kb-0890.wav", "librivox/sense_and_sensibility_01_austen_64kb-0920.wav",
                          "librivox/sense_and_sensibility_01_austen_64kb-0930.wav", "cards/001.wav", "cards/002.wav",
                          "cards/003.wav", "cards/004.wav", "cards/005.wav"}) {
        auto s = test::decodeMono(data + f, kRate);
        read.insert(read.end(), s.begin(), s.end());
    }
    for (const char* f : {"goforward.raw", "numbers.raw", "something.raw"}) {
        auto s = readRaw16(data + f);
        read.insert(read.end(), s.begin(), s.end());
    }
    if (read.empty()) {
        std::fprintf(stderr, "bench_speech: no recorded speech (install pocketsphinx-testdata)\n");
        std::exit(1);
    }
    sources.push_back({"read English (pocketsphinx-testdata)", "en", read});
    int seed = 10;
    for (const char* voice : {"en-us", "en", "en-us+f3", "en-gb-x-rp+m3", "en+f4"}) {
        std::vector<float> s;
        for (const char* text : kEnglish) {
            auto part = trimSilence(test::speak(text, voice, kRate));
            s.insert(s.end(), part.begin(), part.end());
        }
        sources.push_back({std::string("espeak-ng ") + voice, "en", s});
    }
    for (const char* voice : {"es", "es-419", "es+f3", "es-419+m3", "es+f2"}) {
        std::vector<float> s;
        for (const char* text : kSpanish) {
            auto part = trimSilence(test::speak(text, voice, kRate));
            s.insert(s.end(), part.begin(), part.end());
        }
        sources.push_back({std::string("espeak-ng ") + voice, "es", s});
    }
    for (auto& source : sources) {
        if (source.samples.size() < std::size_t(kRate)) {
            std::fprintf(stderr, "bench_speech: %s produced no audio (espeak-ng, ffmpeg?)\n", source.label.c_str());
            std::exit(1);
        }
        auto clean = source.samples;
        test::setLevel(clean, -20);
        clips.push_back({source.label + " clean", Kind::speech, source.language, "clean", clean, clean});
        auto quiet = clean;
        test::setLevel(quiet, -45);
        clips.push_back({source.label + " quiet", Kind::speech, source.language, "quiet", quiet, clean});
        const std::size_t n = clean.size();
        std::vector<std::pair<std::string, std::vector<float>>> beds = {
            {"pink", test::pinkNoise(n, 0.1, std::uint32_t(++seed))},
            {"white", test::whiteNoise(n, 0.1, std::uint32_t(++seed))},
            {"music", std::vector<float>(musicBed.begin() + std::ptrdiff_t((seed * 7919 * kRate) % (musicBed.size() - n)),
                                         musicBed.begin() + std::ptrdiff_t((seed * 7919 * kRate) % (musicBed.size() - n) + n))}};
        for (auto& [bedName, bed] : beds) {
            for (double snr : {0.0, 5.0, 10.0}) {
                auto mixed = test::mixAtSnr(clean, bed, snr);
                clips.push_back({source.label + " +" + bedName + " " + std::to_string(int(snr)) + " dB", Kind::speech,
                                 source.language, "noisy " + std::to_string(int(snr)) + " dB", mixed, clean});
            }
        }
    }
    return clips;
}

// Share of active 10 ms frames (within 35 dB of the clip's loudest frame) in [from, to).
double activeShare(const std::vector<float>& clean, double from, double to) {
    static std::map<const std::vector<float>*, std::pair<std::vector<double>, double>> cache;
    auto& [energies, peak] = cache[&clean];
    if (energies.empty()) {
        for (std::size_t at = 0; at + 160 <= clean.size(); at += 160) {
            double e = 0;
            for (std::size_t i = at; i < at + 160; ++i) e += double(clean[i]) * clean[i];
            energies.push_back(e / 160);
            peak = std::max(peak, e / 160);
        }
    }
    const std::size_t a = std::size_t(std::max(0.0, from) * 100), b = std::min(energies.size(), std::size_t(to * 100));
    if (a >= b) return 0;
    int active = 0;
    for (std::size_t i = a; i < b; ++i) active += energies[i] > peak * std::pow(10, -3.5);
    return double(active) / double(b - a);
}

struct Collector final : audio::SoundAnalysisObserver {
    std::vector<audio::SoundClassificationResult> results;
    void resultProduced(const audio::SoundClassificationResult& r) override { results.push_back(r); }
    void requestFailed(const std::string& error) override {
        std::fprintf(stderr, "bench_speech: classifier failed: %s\n", error.c_str());
        std::exit(1);
    }
};

double threadCpu() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

struct Run {
    std::vector<Window> windows;
    double cpuSeconds = 0, audioSeconds = 0;
};

Run classify(audio::SoundClassifier& classifier, const std::vector<Clip>& clips,
             const std::vector<std::vector<audio::PcmBufferPtr>>& blocks) {
    Run run;
    for (std::size_t c = 0; c < clips.size(); ++c) {
        const Clip& clip = clips[c];
        Collector collector;
        const double start = threadCpu();
        auto analyzer = classifier.makeAnalyzer(kMixRate, 2, collector);
        if (!analyzer) {
            std::fprintf(stderr, "bench_speech: %s\n", analyzer.error().c_str());
            std::exit(1);
        }
        std::int64_t position = 0;
        for (const auto& b : blocks[c]) {
            (*analyzer)->analyze(*b, position);
            position += std::int64_t(b->frames());
        }
        run.cpuSeconds += threadCpu() - start;
        run.audioSeconds += double(clip.samples.size()) / kRate;
        for (const auto& r : collector.results) {
            double score = 0;
            for (const auto& k : r.classifications)
                if (k.identifier == "speech") score = k.confidence;
            const double from = double(r.framePosition) / kMixRate, to = from + r.durationSeconds;
            if (clip.kind == Kind::speech) {
                const double share = activeShare(clip.cleanSpeech, from, to);
                if (share < 0.5) continue;  // mostly a pause: neither speech nor a false alarm
            }
            run.windows.push_back({&clip, score});
        }
    }
    return run;
}

// Probability that a random positive scores above a random negative (ties count half).
double auc(const std::vector<double>& positives, std::vector<double> negatives) {
    if (positives.empty() || negatives.empty()) return NAN;
    std::sort(negatives.begin(), negatives.end());
    double sum = 0;
    for (double p : positives) {
        auto lo = std::lower_bound(negatives.begin(), negatives.end(), p);
        auto hi = std::upper_bound(negatives.begin(), negatives.end(), p);
        sum += double(lo - negatives.begin()) + 0.5 * double(hi - lo);
    }
    return sum / (double(positives.size()) * double(negatives.size()));
}

template <class Pred>
std::vector<double> scores(const Run& run, Pred pred) {
    std::vector<double> out;
    for (const auto& w : run.windows)
        if (pred(*w.clip)) out.push_back(w.score);
    return out;
}

double above(const std::vector<double>& s) {
    if (s.empty()) return NAN;
    return double(std::count_if(s.begin(), s.end(), [](double x) { return x >= kThreshold; })) / double(s.size());
}

void report(const char* title, const Run& run) {
    auto speech = scores(run, [](const Clip& c) { return c.kind == Kind::speech; });
    auto music = scores(run, [](const Clip& c) { return c.kind == Kind::music; });
    auto noise = scores(run, [](const Clip& c) { return c.kind == Kind::noise; });
    auto silence = scores(run, [](const Clip& c) { return c.kind == Kind::silence; });
    auto other = scores(run, [](const Clip& c) { return c.kind != Kind::speech; });
    std::printf("\n== %s ==\n", title);
    std::printf("windows: %zu speech, %zu music, %zu noise, %zu silence\n", speech.size(), music.size(), noise.size(),
                silence.size());
    std::printf("ROC-AUC  overall %.3f | vs music %.3f | vs noise %.3f | vs silence %.3f\n", auc(speech, other),
                auc(speech, music), auc(speech, noise), auc(speech, silence));
    std::printf("flagged as speech at %.2f: music %.1f %% | noise %.1f %% | silence %.1f %%\n", kThreshold,
                100 * above(music), 100 * above(noise), 100 * above(silence));
    for (const char* language : {"en", "es"}) {
        std::printf("recall %s: all %.3f", language, above(scores(run, [&](const Clip& c) {
                        return c.kind == Kind::speech && c.language == language;
                    })));
        for (const char* condition : {"clean", "quiet", "noisy 10 dB", "noisy 5 dB", "noisy 0 dB"})
            std::printf(" | %s %.3f", condition, above(scores(run, [&](const Clip& c) {
                            return c.kind == Kind::speech && c.language == language && c.condition == condition;
                        })));
        std::printf("\n");
    }
    std::printf("recall under music (all SNRs) %.3f, read speech (clean) %.3f\n",
                above(scores(run, [](const Clip& c) { return c.kind == Kind::speech && c.label.find("+music") != std::string::npos; })),
                above(scores(run, [](const Clip& c) { return c.kind == Kind::speech && c.label.rfind("read", 0) == 0 && c.condition == "clean"; })));
    // Which negatives trip it, worst first.
    std::map<std::string, std::pair<int, int>> perClip;
    for (const auto& w : run.windows)
        if (w.clip->kind != Kind::speech) {
            auto& [flagged, total] = perClip[w.clip->label];
            flagged += w.score >= kThreshold;
            ++total;
        }
    std::printf("negatives flagged:");
    for (const auto& [label, counts] : perClip)
        if (counts.first) std::printf(" %s %d/%d;", label.c_str(), counts.first, counts.second);
    std::printf("\nCPU: %.1f s per hour of audio (%.3f %% of a core), %.0f s of audio\n",
                run.cpuSeconds * 3600 / run.audioSeconds, 100 * run.cpuSeconds / run.audioSeconds, run.audioSeconds);
}

}  // namespace

int main(int argc, char** argv) {
    app::installPlatformBindings();
    const double musicSeconds = argc > 1 ? std::atof(argv[1]) : 0;
    auto clips = buildSet(musicSeconds);
    std::vector<std::vector<audio::PcmBufferPtr>> blocks;
    for (const auto& clip : clips) {
        // As a recording delivers it: 44.1 kHz stereo.
        std::vector<float> mix;
        const std::size_t n = clip.samples.size() * kMixRate / kRate;
        mix.resize(n);
        for (std::size_t i = 0; i < n; ++i) {
            const double at = double(i) * kRate / kMixRate;
            const std::size_t j = std::size_t(at);
            const double f = at - double(j);
            const float a = clip.samples[j], b = j + 1 < clip.samples.size() ? clip.samples[j + 1] : a;
            mix[i] = static_cast<float>(a + (b - a) * f);
        }
        blocks.push_back(test::mixerBlocks(mix, kMixRate));
    }
    std::printf("bench_speech: %zu clips\n", clips.size());

    auto webrtc = audio::makeVoicedShareClassifier();
    if (!webrtc) {
        std::fprintf(stderr, "bench_speech: WebRTC voice detector unavailable\n");
        return 1;
    }
    auto silero = silero::loadSpeechClassifier();
    if (!silero) {
        std::fprintf(stderr, "bench_speech: %s\n", silero.error().c_str());
        return 1;
    }
    report("WebRTC voiced share (old)", classify(*webrtc, clips, blocks));
    report("Silero network (new)", classify(**silero, clips, blocks));
    return 0;
}
