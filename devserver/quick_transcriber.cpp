#include "devserver/quick_transcriber.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <set>

namespace vell::devserver {

namespace {
constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

std::mutex busyMutex;
std::set<std::string> busy;

std::mutex gateMutex;
std::condition_variable gate;
uint64_t releases = 0;

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}
}  // namespace

AdtsSummary summarizeAdts(const std::string& body) {
    AdtsSummary summary;
    summary.bytes = static_cast<int64_t>(body.size());
    const auto* p = reinterpret_cast<const unsigned char*>(body.data());
    size_t at = 0;
    while (at + 7 <= body.size()) {
        if (p[at] != 0xFF || (p[at + 1] & 0xF6) != 0xF0) break;
        const int rateIndex = (p[at + 2] >> 2) & 0x0F;
        const size_t length = ((p[at + 3] & 0x03) << 11) | (p[at + 4] << 3) | (p[at + 5] >> 5);
        const int blocks = (p[at + 6] & 0x03) + 1;
        if (rateIndex >= 13 || length < 7 || at + length > body.size()) break;
        summary.frames += 1;
        summary.seconds += 1024.0 * blocks / kRates[rateIndex];
        at += length;
    }
    return summary;
}

std::vector<std::string> draftTexts(const AdtsSummary& audio) {
    return {"Recovered " + seconds(audio.seconds) + " seconds",
            "Recovered " + seconds(audio.seconds) + " seconds of audio"};
}

std::string finalText(const AdtsSummary& audio) {
    return "Recovered " + seconds(audio.seconds) + " seconds of audio (" + std::to_string(audio.bytes) + " bytes, " +
           std::to_string(audio.frames) + " frames).";
}

bool beginTranscription(const std::string& email) {
    std::lock_guard lock(busyMutex);
    return busy.insert(email).second;
}

void endTranscription(const std::string& email) {
    std::lock_guard lock(busyMutex);
    busy.erase(email);
}

void releaseHeldStreams() {
    std::lock_guard lock(gateMutex);
    releases += 1;
    gate.notify_all();
}

uint64_t holdTicket() {
    std::lock_guard lock(gateMutex);
    return releases;
}

bool waitUntilReleased(uint64_t ticket) {
    std::unique_lock lock(gateMutex);
    return gate.wait_for(lock, std::chrono::seconds(10), [&] { return releases != ticket; });
}

}  // namespace vell::devserver
