// The quick-transcription answer: newline-delimited JSON read as the bytes arrive. The first
// input byte says where the stream is cut into pieces; the same bytes in one piece must give
// the same drafts and the same end, so no line is lost or joined at a piece's edge.
#include <cstdlib>
#include <vector>

#include "fuzz_support.h"
#include "insurance/quick_transcription.h"

namespace {

struct Outcome {
    std::vector<std::string> drafts;
    bool ok = false;
    std::string text;
    bool failedEarly = false;
};

Outcome read(const char* data, std::size_t size, std::size_t piece) {
    Outcome outcome;
    vell::insurance::QuickStreamReader reader([&](const std::string& draft) { outcome.drafts.push_back(draft); });
    for (std::size_t at = 0; at < size; at += piece) {
        if (!reader.feed(data + at, std::min(piece, size - at))) {
            outcome.failedEarly = true;
            break;
        }
    }
    auto end = reader.finish();
    outcome.ok = bool(end);
    if (end) outcome.text = end->text;
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t piece = 1 + data[0] % 17;
    const char* body = reinterpret_cast<const char*>(data + 1);
    const Outcome whole = read(body, size - 1, size);
    const Outcome pieces = read(body, size - 1, piece);
    if (whole.drafts != pieces.drafts || whole.ok != pieces.ok || whole.text != pieces.text ||
        whole.failedEarly != pieces.failedEarly) {
        std::abort();
    }
    for (std::size_t start = 0; start < size - 1;) {
        auto end = std::string_view(body + start, size - 1 - start).find('\n');
        const std::size_t length = end == std::string_view::npos ? size - 1 - start : end;
        (void)vell::insurance::decodeQuickEvent(std::string(body + start, length));
        start += length + 1;
    }
    return 0;
}
