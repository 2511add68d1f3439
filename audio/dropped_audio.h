#pragma once
// How much audio the running recording's mixer dropped because a stream delivered faster
// than real time (a backlog let go at once). Written on the mixer's queue, read from any
// thread (status); one set per process, reset when a recording's mixer opens.
#include <atomic>

namespace vell::audio {

struct DroppedAudio {
    std::atomic<double> microphoneSeconds{0};
    std::atomic<double> systemSeconds{0};

    void reset() {
        microphoneSeconds = 0;
        systemSeconds = 0;
    }
    void add(bool isSystem, double seconds) { (isSystem ? systemSeconds : microphoneSeconds).fetch_add(seconds); }

    static DroppedAudio& shared() {
        static DroppedAudio instance;
        return instance;
    }
};

}  // namespace vell::audio
