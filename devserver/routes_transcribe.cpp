// Quick transcription of buffered audio: the body is the ADTS file itself and the answer is
// newline-delimited JSON, streamed so drafts reach the application while it waits.
#include <chrono>
#include <memory>
#include <thread>

#include "devserver/quick_transcriber.h"
#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
constexpr size_t kBodyLimit = 256u << 20;

struct Plan {
    std::vector<std::string> lines;
    size_t holdAfter = SIZE_MAX;  // wait for the admin's release after this line
    size_t cutAfter = SIZE_MAX;   // drop the connection after this line
    int64_t delayMs = 0;          // between lines
};

Plan plan(const AdtsSummary& audio, const std::optional<Fault>& fault, std::chrono::steady_clock::time_point began) {
    Plan p;
    for (const auto& text : draftTexts(audio)) p.lines.push_back(json{{"stage", "draft"}, {"text", text}}.dump());
    const std::string mode = fault ? fault->mode : "";
    if (mode == "error") {
        p.lines.resize(1);
        p.lines.push_back(json{{"stage", "error"}, {"error", "transcription_failed"}}.dump());
        return p;
    }
    if (mode == "cut") {
        p.cutAfter = p.lines.size() - 1;
        return p;
    }
    if (mode == "draftsOnly") return p;
    if (mode == "malformed") {
        p.lines.insert(p.lines.begin() + 1, "{\"stage\": \"draft\", \"text\": ");
        p.lines.insert(p.lines.begin() + 1, "not json at all");
    }
    if (mode == "slow") p.delayMs = fault->delayMs;
    if (mode == "hold") p.holdAfter = 0;
    const auto took = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
    p.lines.push_back(json{{"stage", "final"}, {"text", finalText(audio)}, {"language", "en"},
                           {"durationS", audio.seconds}, {"tookMs", took}}.dump());
    return p;
}
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
        if (!beginTranscription(account->email)) return ex.fail(409, "transcription_in_progress");
        auto steps = std::make_shared<Plan>(plan(summarizeAdts(body), ex.fault, began));
        auto next = std::make_shared<size_t>(0);
        const uint64_t ticket = holdTicket();
        const std::string email = account->email;
        ex.res.status = 200;
        ex.res.set_chunked_content_provider(
            "application/x-ndjson",
            [steps, next, ticket](size_t, httplib::DataSink& sink) {
                const size_t i = (*next)++;
                if (i >= steps->lines.size()) {
                    sink.done();
                    return true;
                }
                if (i > 0 && steps->delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(steps->delayMs));
                std::string line = steps->lines[i] + "\n";
                if (i > 0 && i - 1 == steps->holdAfter && !waitUntilReleased(ticket)) {
                    line = json{{"stage", "error"}, {"error", "not_released"}}.dump() + "\n";
                    *next = steps->lines.size();
                }
                if (!sink.write(line.data(), line.size())) return false;
                // Returning false drops the connection without the chunked terminator.
                return i != steps->cutAfter;
            },
            [email](bool) { endTranscription(email); });
    });
}

}  // namespace vell::devserver
