#include "devserver/store.h"

#include "base/private_folder.h"
#include "base/files.h"

namespace vell::devserver {

namespace fs = std::filesystem;

Store::Store(fs::path dataDir) : dataDir_(std::move(dataDir)) {}

bool Store::load(std::error_code& error) {
    for (const auto& dir : {dataDir_, uploadsDir(), recordingsDir(), liveDir()}) {
        files::createPrivateDirectories(dir, error);
        if (error) return false;
    }
    std::error_code readError;
    auto text = files::read(dataDir_ / "state.json", readError, files::kNoLimit);
    if (!text) {
        if (readError == std::errc::no_such_file_or_directory) return true;
        error = readError;
        return false;
    }
    try {
        auto parsed = nlohmann::json::parse(*text);
        std::lock_guard lock(mutex_);
        state_ = parsed.get<State>();
    } catch (const std::exception&) {
        error = std::make_error_code(std::errc::illegal_byte_sequence);
        return false;
    }
    return true;
}

void Store::saveLocked() {
    std::error_code error;
    if (!files::writeAtomically(dataDir_ / "state.json", nlohmann::json(state_).dump(1), error)) {
        throw std::system_error(error, "saving state.json");
    }
}

}  // namespace vell::devserver
