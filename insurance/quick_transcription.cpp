#include "insurance/quick_transcription.h"

#include <system_error>

namespace vell::insurance {

namespace {
template <class T>
std::optional<T> field(const service::Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end()) return std::nullopt;
    if constexpr (std::is_same_v<T, std::string>) {
        if (!it->is_string()) return std::nullopt;
    } else {
        if (!it->is_number()) return std::nullopt;
    }
    return it->template get<T>();
}
}  // namespace

std::optional<QuickEvent> decodeQuickEvent(const std::string& line) {
    auto json = service::Json::parse(line, nullptr, false);
    if (json.is_discarded() || !json.is_object()) return std::nullopt;
    // A field of the wrong type makes the whole line unreadable, as a strict decoder would.
    for (const char* key : {"stage", "text", "language", "error"}) {
        if (json.contains(key) && !json[key].is_null() && !json[key].is_string()) return std::nullopt;
    }
    for (const char* key : {"durationS", "tookMs"}) {
        if (json.contains(key) && !json[key].is_null() && !json[key].is_number()) return std::nullopt;
    }
    QuickEvent event;
    event.stage = field<std::string>(json, "stage");
    event.text = field<std::string>(json, "text");
    event.language = field<std::string>(json, "language");
    event.durationS = field<double>(json, "durationS");
    event.tookMs = field<double>(json, "tookMs");
    event.error = field<std::string>(json, "error");
    return event;
}

bool QuickStreamReader::feed(const char* data, size_t size) {
    if (failure_) return false;
    pending_.append(data, size);
    size_t start = 0;
    for (size_t newline; (newline = pending_.find('\n', start)) != std::string::npos; start = newline + 1) {
        line(pending_.substr(start, newline - start));
        if (failure_) return false;
    }
    pending_.erase(0, start);
    return true;
}

void QuickStreamReader::line(const std::string& text) {
    auto event = decodeQuickEvent(text);
    if (!event) return;
    if (event->stage == "draft") {
        if (event->text && onDraft_) onDraft_(*event->text);
        return;
    }
    if (event->stage == "error") {
        failure_ = service::APIError::http(500, event->error, std::nullopt);
        return;
    }
    if (event->text) candidate_ = QuickTranscript{*event->text, event->language, event->durationS, event->tookMs};
}

Expected<QuickTranscript, service::APIError> QuickStreamReader::finish() {
    // The last line may end without a newline.
    if (!failure_ && !pending_.empty()) {
        line(pending_);
        pending_.clear();
    }
    if (failure_) return unexpected(*failure_);
    if (candidate_) return *candidate_;
    return unexpected(service::APIError::decoding("quick transcript"));
}

Expected<QuickTranscript, service::APIError> quickTranscribe(const service::APIClient& client,
                                                              const std::filesystem::path& file,
                                                              const std::function<void(const std::string&)>& onDraft) {
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    if (error) return unexpected(service::APIError::transport(0, "cannot read the request body: " + error.message(), false));
    QuickStreamReader reader(onDraft);
    service::ApiRequest request;
    request.method = "POST";
    request.path = kQuickTranscribePath;
    request.headers = {{"Accept", "application/x-ndjson"},
                       {"Content-Type", "audio/aac"},
                       {"Content-Length", std::to_string(size)}};
    request.bodyFile = file;
    request.maxSeconds = kQuickTranscribeTimeout;
    request.onBodyChunk = [&reader](const char* data, size_t n) { return reader.feed(data, n); };
    auto response = client.perform(std::move(request));
    // An error line ends the transfer on purpose; its failure is the answer.
    if (reader.failed()) return reader.finish();
    if (!response) return unexpected(response.error());
    if (response->status < 200 || response->status > 299) {
        auto invalid = service::APIClient::validate(*response);
        if (!invalid) return unexpected(invalid.error());
        return unexpected(service::APIError::http(static_cast<int>(response->status), std::nullopt, std::nullopt));
    }
    return reader.finish();
}

}  // namespace vell::insurance
