#include "devserver/speech_decoder.h"

#include <pocketsphinx.h>
#include <sphinxbase/err.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

namespace vell::devserver {

namespace {

constexpr const char* kDefaultModel = "/usr/share/pocketsphinx/model/en-us";
constexpr int kFramesPerSecond = 100;  // the model's feature rate
constexpr size_t kPoolSize = 2;

// A decoder and the samples it has been given since it was made: the frame numbers of its
// words count from its creation, across utterances and across the requests that reused it.
struct PooledDecoder {
    ps_decoder_t* decoder = nullptr;
    int64_t samples = 0;
};

std::mutex poolMutex;
std::vector<PooledDecoder> pool;  // idle decoders, ready for a new utterance

// Fillers, silences and sentence marks are not words.
bool isWord(const char* word) {
    return word && *word && word[0] != '<' && word[0] != '[';
}

// "read(2)" is the dictionary's second pronunciation of "read".
std::string spelling(const char* word) {
    std::string text(word);
    if (auto paren = text.find('('); paren != std::string::npos && paren > 0) text.erase(paren);
    return text;
}

ps_decoder_t* makeDecoder() {
    static std::once_flag quiet;
    // The library logs every setting and every utterance to standard error.
    std::call_once(quiet, [] { err_set_logfp(nullptr); });
    namespace fs = std::filesystem;
    const fs::path model = speechModelDirectory();
    const std::string hmm = (model / "en-us").string();
    const std::string lm = (model / "en-us.lm.bin").string();
    const std::string dict = (model / "cmudict-en-us.dict").string();
    std::error_code ec;
    if (!fs::exists(hmm, ec) || !fs::exists(lm, ec) || !fs::exists(dict, ec)) return nullptr;
    // Faster than the library's defaults at about the same accuracy on clear speech (a
    // quarter of the CPU time of the audio's length instead of a half): one search pass, a
    // phone-loop look-ahead, and fewer active models and Gaussians per frame.
    cmd_ln_t* config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.c_str(), "-lm", lm.c_str(), "-dict",
                                   dict.c_str(), "-samprate", "16000", "-fwdflat", "no", "-pl_window", "5",
                                   "-maxhmmpf", "2000", "-topn", "2", nullptr);
    if (!config) return nullptr;
    ps_decoder_t* decoder = ps_init(config);
    cmd_ln_free_r(config);  // the decoder keeps its own reference
    return decoder;
}

PooledDecoder takeDecoder() {
    std::lock_guard lock(poolMutex);
    if (!pool.empty()) {
        PooledDecoder taken = pool.back();
        pool.pop_back();
        return taken;
    }
    // Built under the lock: two threads loading the model at once would only double the wait.
    return {makeDecoder(), 0};
}

void giveBack(PooledDecoder decoder) {
    if (!decoder.decoder) return;
    std::lock_guard lock(poolMutex);
    if (pool.size() < kPoolSize) {
        pool.push_back(decoder);
        return;
    }
    ps_free(decoder.decoder);
}

}  // namespace

std::string speechModelDirectory() {
    if (const char* dir = std::getenv("VELL_POCKETSPHINX_MODEL"); dir && *dir) return dir;
    return kDefaultModel;
}

struct SpeechDecoder::Engine {
    ps_decoder_t* decoder = nullptr;
    int64_t samplesBefore = 0;  // what the decoder heard before this object took it
    bool inUtterance = false;
};

SpeechDecoder::SpeechDecoder() : engine_(std::make_unique<Engine>()) {
    const PooledDecoder taken = takeDecoder();
    engine_->decoder = taken.decoder;
    engine_->samplesBefore = taken.samples;
    if (engine_->decoder && ps_start_utt(engine_->decoder) == 0) engine_->inUtterance = true;
}

SpeechDecoder::~SpeechDecoder() {
    if (!engine_->decoder) return;
    if (engine_->inUtterance) ps_end_utt(engine_->decoder);
    giveBack({engine_->decoder, engine_->samplesBefore + fed_});
}

bool SpeechDecoder::ready() const { return engine_->decoder && engine_->inUtterance; }

void SpeechDecoder::feed(const int16_t* samples, size_t count) {
    if (!ready() || finished_) return;
    // Small steps, so a pause is noticed close to where it is.
    constexpr size_t kStep = kRate / 10;
    for (size_t at = 0; at < count; at += kStep) {
        const size_t n = std::min(kStep, count - at);
        ps_process_raw(engine_->decoder, samples + at, n, FALSE, FALSE);
        fed_ += static_cast<int64_t>(n);
        const bool inSpeech = ps_get_in_speech(engine_->decoder) != 0;
        if (inSpeech) heardSpeech_ = true;
        if (!inSpeech && heardSpeech_) endUtterance();
        if (!ready()) return;
    }
}

void SpeechDecoder::endUtterance() {
    ps_decoder_t* decoder = engine_->decoder;
    ps_end_utt(decoder);
    engine_->inUtterance = false;
    // Frame numbers count from the decoder's creation (100 frames a second).
    const double offset = -static_cast<double>(engine_->samplesBefore) / kRate;
    for (ps_seg_t* seg = ps_seg_iter(decoder); seg; seg = ps_seg_next(seg)) {
        const char* word = ps_seg_word(seg);
        if (!isWord(word)) continue;
        int first = 0, last = 0;
        ps_seg_frames(seg, &first, &last);
        words_.push_back({spelling(word), offset + static_cast<double>(first) / kFramesPerSecond,
                          offset + static_cast<double>(last + 1) / kFramesPerSecond});
    }
    heardSpeech_ = false;
    if (!finished_ && ps_start_utt(decoder) == 0) engine_->inUtterance = true;
}

std::string SpeechDecoder::hypothesis() {
    std::string text;
    for (const auto& w : words_) text += (text.empty() ? "" : " ") + w.word;
    if (!ready() || !heardSpeech_) return text;
    int32 score = 0;
    const char* running = ps_get_hyp(engine_->decoder, &score);
    if (!running) return text;
    // A partial hypothesis has no fillers, but may carry alternative pronunciation marks.
    std::string word;
    auto flush = [&] {
        if (!word.empty() && isWord(word.c_str())) text += (text.empty() ? "" : " ") + spelling(word.c_str());
        word.clear();
    };
    for (const char* p = running; *p; ++p) {
        if (*p == ' ') flush();
        else word += *p;
    }
    flush();
    return text;
}

Recognition SpeechDecoder::finish() {
    if (ready() && !finished_) {
        finished_ = true;
        endUtterance();
    }
    finished_ = true;
    Recognition result;
    result.words = words_;
    for (const auto& w : words_) result.text += (result.text.empty() ? "" : " ") + w.word;
    return result;
}

}  // namespace vell::devserver
