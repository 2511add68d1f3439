#pragma once
// Turns a stretch of the insurance buffer back into words: picks the chunks of the chosen
// range, sends them to the quick-transcription call, shows each draft and then the final
// text, and keeps finished texts by the exact chunk files they came from.
//
// Main executor only. The network call runs elsewhere (the `transcribe` dependency hands
// its drafts and result back on the main executor); every result is tagged with the run
// that asked for it and dropped once a reset started a new run.
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/expected.h"
#include "base/published.h"
#include "base/executor.h"
#include "insurance/insurance_buffer_store.h"
#include "insurance/preview_player.h"
#include "service/api_error.h"

namespace vell::service {
class APIClient;
}

namespace vell::insurance {

class InsuranceRecorder;

enum class Range { lastMinute, lastFive, custom, all };

struct Phase {
    enum class Kind { idle, transcribing, improving, failed };
    Kind kind = Kind::idle;
    std::string message;  // failed only
    bool operator==(const Phase&) const = default;
};

struct Transcript {
    std::string text;
    WallTime from;
    WallTime to;
    bool operator==(const Transcript&) const = default;
};

struct Selection {
    WallTime from;
    WallTime to;
    bool operator==(const Selection&) const = default;
};

// The answers of 409 "transcription_in_progress" that are waited out (1, 2, 4 s).
inline constexpr int kBusyRetries = 3;
inline constexpr double kCustomMinutesMin = 1;
inline constexpr double kCustomMinutesMax = 60;

struct RecoveryDependencies {
    std::function<std::vector<InsuranceChunk>()> chunks;
    std::function<void()> seal;  // blocks until the open chunk is sealed
    std::function<Expected<Unit, std::string>(const std::vector<InsuranceChunk>&, const std::filesystem::path&)> concatenate;
    // Drafts and the result arrive on the main executor.
    std::function<void(const std::filesystem::path& file, std::function<void(std::string)> onDraft,
                       std::function<void(Expected<std::string, service::APIError>)> done)>
        transcribe;
    std::function<bool()> signedIn;
    std::function<bool(const std::string&)> copy;
    std::function<WallTime()> now;
    std::function<std::optional<std::string>()> accountID;
    std::function<void(const service::APIError&)> handleError;
    // Calls done on the main executor after that many seconds.
    std::function<void(double seconds, std::function<void()> done)> wait;
    // The preview's player; empty or null: nothing can be played.
    PreviewPlayerFactory makePlayer;
};

// How often the position of a playing preview is read.
inline constexpr double kPlayTimerSeconds = 0.1;

// The production record over the shared recorder and the client; `signedIn`, `accountID`
// `copy` and `handleError` come from the caller.
RecoveryDependencies recoveryDependencies(InsuranceRecorder& recorder, const service::APIClient& client);

// The span of a range at `now`: a number of minutes back (reaching back one more chunk
// length so the chunk that holds the span's first moment is in), or everything buffered.
std::optional<Selection> selectionFor(Range range, int customMinutes, WallTime now, const std::vector<InsuranceChunk>& chunks);

class InsuranceRecoveryController {
public:
    explicit InsuranceRecoveryController(RecoveryDependencies dependencies);
    ~InsuranceRecoveryController();
    InsuranceRecoveryController(const InsuranceRecoveryController&) = delete;
    InsuranceRecoveryController& operator=(const InsuranceRecoveryController&) = delete;

    Published<std::vector<InsuranceChunk>> chunks;
    Published<std::optional<Selection>> selection;
    Published<Range> range{Range::lastMinute};
    Published<int> customMinutes{10};
    Published<Phase> phase;
    Published<std::optional<Transcript>> transcript;
    Published<std::string> text;
    Published<std::string> copyConfirmation;

    // Picks a range (and for custom, its minutes), recomputes the selection and resets.
    void choose(Range range, int customMinutes = 10);
    // Rereads the chunks and recomputes the selection from the range at this moment.
    void refresh();
    // Starts a new run over the current selection; late results of the old one are void.
    void reset();
    // The chunks the selection covers, in listing order.
    std::vector<InsuranceChunk> selectedChunks() const;
    // What the result area shows: the draft behind "Improving… · " while a request runs.
    std::string displayText() const;
    void copy();
    int run() const { return run_; }

    // The preview of the selection: play (or go on after a pause), pause, stop. The preview
    // file is removed when playing stops, by the end of the file or by stop().
    Published<bool> isPlaying{false};
    Published<double> position{0};
    void play();
    void pause();
    void stop();
    std::optional<std::filesystem::path> previewFile() const { return previewURL_; }

private:
    using Key = std::vector<std::filesystem::path>;
    void request(int run);
    void attempt(int run, Key key, std::filesystem::path file, Selection span, int busyAnswers);
    void finish(const Transcript& result);
    void playTick();
    bool current(int run) const { return run == run_; }

    RecoveryDependencies deps_;
    int run_ = 0;
    std::optional<Key> activeKey_;
    std::map<Key, Transcript> cache_;
    std::optional<std::optional<std::string>> owner_;
    std::unique_ptr<PreviewPlayer> player_;
    std::optional<std::filesystem::path> previewURL_;
    TimerHandle playTimer_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::insurance
