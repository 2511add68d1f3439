#include "service/upload_receipts.h"

#include <nlohmann/json.hpp>

#include "base/private_folder.h"
#include "base/files.h"
#include "base/log.h"

namespace vell::service {

namespace {
const log::Logger& logger() {
    static const log::Logger l("UploadQueue");
    return l;
}
}  // namespace

UploadReceipts::UploadReceipts(std::filesystem::path file) : file_(std::move(file)) {
    std::error_code ec;
    auto text = files::read(file_, ec);
    if (!text) return;
    auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) {
        logger().error("upload receipts unreadable; starting afresh: " + file_.string());
        return;
    }
    for (auto& [id, value] : json.items()) {
        if (!value.is_object() || !value.contains("uploadedAt") || !value["uploadedAt"].is_number()) continue;
        UploadReceipt r{fromMillisecondsSince1970(value["uploadedAt"].get<double>()), value.value("recordingId", "")};
        receipts_.emplace(id, std::move(r));
    }
}

std::optional<UploadReceipt> UploadReceipts::find(const std::string& id) const {
    auto it = receipts_.find(id);
    if (it == receipts_.end()) return std::nullopt;
    return it->second;
}

bool UploadReceipts::record(const std::string& id, UploadReceipt receipt) {
    receipts_[id] = std::move(receipt);
    return save();
}

bool UploadReceipts::forget(const std::string& id) {
    if (receipts_.erase(id)) return save();
    return true;
}

bool UploadReceipts::save() const {
    nlohmann::json json = nlohmann::json::object();
    for (const auto& [id, r] : receipts_) {
        json[id] = {{"uploadedAt", millisecondsSince1970(r.uploadedAt)}, {"recordingId", r.recordingID}};
    }
    std::error_code ec;
    files::createPrivateDirectories(file_.parent_path(), ec);
    if (!files::writeAtomically(file_, json.dump(), ec)) {
        logger().error("upload receipts not saved: " + ec.message());
        return false;
    }
    return true;
}

}  // namespace vell::service
