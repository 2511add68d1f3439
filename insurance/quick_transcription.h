#pragma once
// The quick-transcription call: the selected buffer audio (one ADTS file) goes to the
// service as it is, and the answer comes back as newline-delimited JSON events, drafts first
// and the final text last, so the user sees words while the service is still working.
//
// Threads: quickTranscribe() blocks its caller (a worker thread of the API client); the
// draft callback runs on that same thread, as each line arrives.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "base/expected.h"
#include "service/api_client.h"
#include "service/api_error.h"

namespace vell::insurance {

inline constexpr const char* kQuickTranscribePath = "api/insurance/transcribe";
inline constexpr double kQuickTranscribeTimeout = 300;

// One line of the answer; every field optional.
struct QuickEvent {
    std::optional<std::string> stage;
    std::optional<std::string> text;
    std::optional<std::string> language;
    std::optional<double> durationS;
    std::optional<double> tookMs;
    std::optional<std::string> error;
};

struct QuickTranscript {
    std::string text;
    std::optional<std::string> language;
    std::optional<double> durationS;
    std::optional<double> tookMs;
};

// Nothing when the line is not a JSON object.
std::optional<QuickEvent> decodeQuickEvent(const std::string& line);

// Splits the answer into lines as bytes arrive and applies each event. Owned by one call.
class QuickStreamReader {
public:
    explicit QuickStreamReader(std::function<void(const std::string&)> onDraft) : onDraft_(std::move(onDraft)) {}
    // False once an "error" event ended the stream (the rest is not read).
    bool feed(const char* data, size_t size);
    // The end of the stream: the last candidate, the error event's failure, or a decoding
    // failure when no line carried a final text.
    Expected<QuickTranscript, service::APIError> finish();
    bool failed() const { return failure_.has_value(); }

private:
    void line(const std::string& text);
    std::function<void(const std::string&)> onDraft_;
    std::string pending_;
    std::optional<QuickTranscript> candidate_;
    std::optional<service::APIError> failure_;
};

// POSTs the file and reads the answer as it arrives.
Expected<QuickTranscript, service::APIError> quickTranscribe(const service::APIClient& client,
                                                              const std::filesystem::path& file,
                                                              const std::function<void(const std::string&)>& onDraft);

}  // namespace vell::insurance
