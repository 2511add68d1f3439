#pragma once
// Which pending recordings an upload pass takes, in list order: those of the signed-in
// account, not skipped, that are ready or failed. Failed ones are retried every pass;
// recordings of another account, and unowned ones never adopted, are never uploaded.
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "recording/pending_recording.h"

namespace vell::service {

std::vector<recording::PendingRecording> uploadCandidates(const std::vector<recording::PendingRecording>& pending,
                                                          const std::optional<std::string>& accountID,
                                                          const std::set<std::string>& skip);

}  // namespace vell::service
