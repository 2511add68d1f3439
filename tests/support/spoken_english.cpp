#include "tests/support/spoken_english.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/temp_home.h"

namespace vell::test {

namespace fs = std::filesystem;

namespace {

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

fs::path scratch(const char* suffix) {
    static int counter = 0;
    return fs::temp_directory_path() /
           ("vell-spoken-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + suffix);
}

std::string readAll(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace

std::vector<int16_t> spokenEnglish(const std::string& text) {
    const auto raw = scratch(".raw");
    // Repeatable dither (-R): sox otherwise seeds the noise it adds when it converts at
    // random, and the same sentence would not always be heard the same way.
    const std::string command = "espeak-ng -v en-us -s 140 --stdout " + quoted(text) +
                                " | sox -q -R -t wav - -t raw -r 16000 -c 1 -b 16 -e signed-integer " + quoted(raw.string()) +
                                " pad 0.25 0.25";
    std::vector<int16_t> samples;
    if (runCommand(command).status == 0) {
        const std::string bytes = readAll(raw);
        samples.resize(bytes.size() / 2);
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    }
    std::error_code ec;
    fs::remove(raw, ec);
    return samples;
}

std::string encodeAac(const std::vector<int16_t>& samples16k) {
    const auto raw = scratch(".raw");
    const auto aac = scratch(".aac");
    std::ofstream(raw, std::ios::binary)
        .write(reinterpret_cast<const char*>(samples16k.data()), static_cast<std::streamsize>(samples16k.size() * 2));
    const std::string command = "ffmpeg -loglevel error -y -f s16le -ar 16000 -ac 1 -i " + quoted(raw.string()) +
                                " -c:a aac -b:a 32k -f adts " + quoted(aac.string());
    std::string bytes;
    if (runCommand(command).status == 0) bytes = readAll(aac);
    std::error_code ec;
    fs::remove(raw, ec);
    fs::remove(aac, ec);
    return bytes;
}

std::string spokenEnglishAac(const std::string& text) { return encodeAac(spokenEnglish(text)); }

std::set<std::string> wordsOf(const std::string& text) {
    std::set<std::string> words;
    std::string word;
    for (char c : text + " ") {
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '\'') {
            word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (!word.empty()) {
            words.insert(word);
            word.clear();
        }
    }
    return words;
}

int wordsHeard(const std::string& said, const std::string& heard) {
    const auto spoken = wordsOf(said);
    int count = 0;
    for (const auto& w : wordsOf(heard)) count += spoken.count(w) ? 1 : 0;
    return count;
}

}  // namespace vell::test
