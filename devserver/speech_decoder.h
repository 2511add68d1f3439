#pragma once
// Incremental recognition of one stretch of 16 kHz speech with PocketSphinx: samples go in
// as they are ready, the words heard so far can be read at any moment (for the drafts of a
// streamed answer), and `finish()` gives the words with their times.
//
// Long audio is cut at pauses (the recogniser's own voice detector): each stretch of speech
// is recognised as its own utterance, so memory stays bounded and the language model starts
// afresh after each pause.
//
// One object per request thread; decoders are taken from a small process-wide pool (loading
// the model takes most of a second) and given back on destruction.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "devserver/speech_recognizer.h"

namespace vell::devserver {

class SpeechDecoder {
public:
    SpeechDecoder();
    ~SpeechDecoder();
    SpeechDecoder(const SpeechDecoder&) = delete;
    SpeechDecoder& operator=(const SpeechDecoder&) = delete;

    // False when no recogniser or model is installed; everything then hears nothing.
    bool ready() const;
    void feed(const int16_t* samples, size_t count);
    // The words so far: finished utterances and the best guess of the running one.
    std::string hypothesis();
    Recognition finish();

    static constexpr int kRate = 16000;

private:
    struct Engine;
    void endUtterance();

    std::unique_ptr<Engine> engine_;
    std::vector<RecognizedWord> words_;
    int64_t fed_ = 0;            // samples since the first
    bool heardSpeech_ = false;   // the running utterance has passed from silence to speech
    bool finished_ = false;
};

// Where the US English model lives (a Debian package's files); VELL_POCKETSPHINX_MODEL
// names another directory with the same layout.
std::string speechModelDirectory();

}  // namespace vell::devserver
