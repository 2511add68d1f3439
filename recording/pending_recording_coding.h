#pragma once
// The stored form of the pending list: a JSON array of objects with the keys "id",
// "fileURL", "startedAt", "finishedAt", "status", "lastError", "attempts",
// "lastErrorIsNetwork", "accountID", "liveSessionID", "discardedAt". Dates are seconds
// since 2001-01-01 as floating point, the file is a "file://" URL, absent optionals are
// left out. One undecodable entry makes the whole document fail: a list that is only
// half understood must not be saved back over the original.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "recording/pending_recording.h"

namespace vell::recording::coding {

nlohmann::ordered_json encode(const PendingRecording& recording);
// Nothing when a required key is missing, a value has the wrong type or the status is
// not one of the six.
std::optional<PendingRecording> decode(const nlohmann::json& object);

// Compact JSON (no spaces, keys in the order above).
std::string encodeList(const std::vector<PendingRecording>& list);
// Nothing when the text is not a JSON array or any entry fails to decode.
std::optional<std::vector<PendingRecording>> decodeList(std::string_view text);
// For a list that failed to decode: the entries that decode on their own, in order, when
// the text is still a JSON array (one unknown status must not cost every other entry its
// state and owner); nothing when it is not.
std::optional<std::vector<PendingRecording>> decodeReadableEntries(std::string_view text);

}  // namespace vell::recording::coding
