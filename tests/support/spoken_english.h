#pragma once
// Speech for tests that need words a recogniser can hear: espeak-ng says the sentence, sox
// turns it into 16 kHz mono, and FFmpeg's command-line encoder makes AAC of it when a test
// needs the file a client would send.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace vell::test {

// A sentence of common words, slow and clear; sentences are joined by a second of silence.
inline constexpr const char* kSpokenSentence = "the weather is nice today and we are going to the park";

// 16 kHz mono samples of the sentence (a quarter second of silence around it); empty when
// espeak-ng or sox is missing.
std::vector<int16_t> spokenEnglish(const std::string& text = kSpokenSentence);
// The same as an ADTS AAC file's bytes (16 kHz mono, 32 kbit/s).
std::string spokenEnglishAac(const std::string& text = kSpokenSentence);
// Samples as an ADTS AAC file's bytes.
std::string encodeAac(const std::vector<int16_t>& samples16k);

// Lower-case words of a text, without punctuation.
std::set<std::string> wordsOf(const std::string& text);
// How many words of `said` appear in `heard`.
int wordsHeard(const std::string& said, const std::string& heard);

}  // namespace vell::test
