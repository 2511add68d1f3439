// Quick transcription of buffered audio: the body is the ADTS file itself and the answer is
// newline-delimited JSON, streamed so drafts reach the application while it waits.
#include <atomic>
#include <chrono>
#include <memory>

#include "devserver/quick_transcriber.h"
#include "devserver/routes.h"
#include "devserver/speech_recognizer.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
constexpr size_t kBodyLimit = 256u << 20;
}  // namespace

void addTranscribeRoutes(Router& router, Services& s) {
    router.post(R"(/api/insurance/transcribe)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        const auto began = std::chrono::steady_clock::now();
        std::string body;
        bool tooLarge = false;
        ex.body()([&](const char* data, size_t size) {
            if (body.size() + size > kBodyLimit) tooLarge = true;
            if (!tooLarge) body.append(data, size);
            return !tooLarge;
        });
        if (tooLarge) return ex.fail(413, "too_large");
        if (body.empty()) return ex.fail(400, "empty_body");
        // Decoded before the busy check, so a body that is not audio never holds the account.
        auto samples = decodeToSpeechRate(body);
        if (samples.empty()) return ex.fail(400, "unreadable_audio");
        if (!beginTranscription(account->email)) return ex.fail(409, "transcription_in_progress");
        auto stream = std::make_shared<TranscriptStream>(std::move(samples), ex.fault ? ex.fault->mode : "",
                                                         ex.fault ? ex.fault->delayMs : 0, began);
        // The account is free again before the last line leaves: a client that asks again as
        // soon as it has read it must not be refused as busy, and the releaser below only runs
        // after the response is gone. Once only, so a late release never frees a newer request.
        auto released = std::make_shared<std::atomic<bool>>(false);
        auto release = [email = account->email, released] {
            if (!released->exchange(true)) endTranscription(email);
        };
        ex.res.status = 200;
        ex.res.set_chunked_content_provider(
            "application/x-ndjson",
            [stream, release](size_t, httplib::DataSink& sink) {
                auto line = stream->next();
                if (!line || stream->ended()) release();
                if (!line) {
                    sink.done();
                    return true;
                }
                if (!line->json.empty()) {
                    const std::string text = line->json + "\n";
                    if (!sink.write(text.data(), text.size())) return false;
                }
                // Returning false drops the connection without the chunked terminator.
                return !line->cutAfter;
            },
            [release](bool) { release(); });
    });
}

}  // namespace vell::devserver
