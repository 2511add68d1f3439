#include "recording/pending_recording.h"

#include <array>
#include <utility>

namespace vell::recording {

namespace {
using Status = PendingRecording::Status;
constexpr std::array<std::pair<Status, const char*>, 6> kStatusNames{{
    {Status::recording, "recording"},
    {Status::ready, "ready"},
    {Status::uploading, "uploading"},
    {Status::uploaded, "uploaded"},
    {Status::failed, "failed"},
    {Status::discarded, "discarded"},
}};
}  // namespace

const char* toString(PendingRecording::Status status) {
    for (const auto& [value, name] : kStatusNames) {
        if (value == status) return name;
    }
    return "unknown";
}

std::optional<PendingRecording::Status> statusFromString(std::string_view text) {
    for (const auto& [value, name] : kStatusNames) {
        if (text == name) return value;
    }
    return std::nullopt;
}

}  // namespace vell::recording
