#pragma once
// The reference service's offline speech recogniser: it decodes the AAC a client sent and
// turns the speech in it into words. A stand-in for the real service's recogniser, good
// enough to tell which words were said into a test microphone.
// Thread-safe: every call builds its own decoder state, so request threads call it freely.
#include <cstdint>
#include <string>
#include <vector>

namespace vell::devserver {

struct RecognizedWord {
    std::string word;
    double startSeconds = 0;
    double endSeconds = 0;
};

struct Recognition {
    std::string text;  // the words joined by single spaces; empty when nothing was heard
    std::vector<RecognizedWord> words;
};

// Decodes AAC (ADTS frames or an MPEG-4 file) to 16 kHz mono 16-bit samples; empty when the
// bytes are not audio FFmpeg reads.
std::vector<int16_t> decodeToSpeechRate(const std::string& audioBytes);

// Recognises 16 kHz mono samples. Never throws; an empty result when no model is installed.
Recognition recognizeSpeech(const std::vector<int16_t>& samples16k);

}  // namespace vell::devserver
