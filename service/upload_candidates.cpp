#include "service/upload_candidates.h"

namespace vell::service {

std::vector<recording::PendingRecording> uploadCandidates(const std::vector<recording::PendingRecording>& pending,
                                                          const std::optional<std::string>& accountID,
                                                          const std::set<std::string>& skip) {
    using Status = recording::PendingRecording::Status;
    std::vector<recording::PendingRecording> out;
    if (!accountID) return out;
    for (const auto& r : pending) {
        if (r.accountID != accountID || skip.count(r.id)) continue;
        if (r.status == Status::ready || r.status == Status::failed) out.push_back(r);
    }
    return out;
}

}  // namespace vell::service
