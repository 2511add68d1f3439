#pragma once
// When each recording was confirmed by the service, kept beside the pending list so that
// the local copy is deleted only a retention period after the upload, across restarts.
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "base/clock.h"

namespace vell::service {

struct UploadReceipt {
    WallTime uploadedAt;
    std::string recordingID;  // the service's identifier
};

class UploadReceipts {
public:
    explicit UploadReceipts(std::filesystem::path file);
    std::optional<UploadReceipt> find(const std::string& id) const;
    // Both save the file at once; false when it could not be written (the change is kept
    // in memory and goes out with the next save that succeeds).
    bool record(const std::string& id, UploadReceipt receipt);
    bool forget(const std::string& id);
    const std::map<std::string, UploadReceipt>& all() const { return receipts_; }

private:
    bool save() const;
    std::filesystem::path file_;
    std::map<std::string, UploadReceipt> receipts_;
};

}  // namespace vell::service
