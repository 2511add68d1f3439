#include "base/user_defaults.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>

#include "base/private_folder.h"
#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"

namespace vell {

namespace fs = std::filesystem;

namespace {
const log::Logger kLog("Defaults");
UserDefaults* gOverride = nullptr;
}  // namespace

UserDefaults::UserDefaults(fs::path file) : file_(std::move(file)) {
    std::error_code error;
    auto text = files::read(file_, error);
    if (!text) {
        if (error != std::errc::no_such_file_or_directory) {
            kLog.error("defaults unreadable (" + error.message() + "): " + file_.string());
        }
        return;
    }
    try {
        auto parsed = nlohmann::json::parse(*text);
        if (!parsed.is_object()) throw std::runtime_error("not an object");
        values_ = std::move(parsed);
    } catch (const std::exception& e) {
        // Keep the damaged document for inspection; start from the defaults.
        auto stamp = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
        fs::path aside = file_;
        aside += ".corrupt-" + std::to_string(stamp);
        std::error_code renameError;
        fs::rename(file_, aside, renameError);
        kLog.error(std::string("defaults file is corrupt (") + e.what() + "); kept as " + aside.string());
    }
}

UserDefaults& UserDefaults::standard() {
    if (gOverride) return *gOverride;
    static UserDefaults shared(paths::defaultsFile());
    return shared;
}

void UserDefaults::overrideStandard(UserDefaults* defaults) { gOverride = defaults; }

std::optional<nlohmann::json> UserDefaults::raw(std::string_view key) const {
    std::lock_guard lock(mutex_);
    auto it = values_.find(std::string(key));
    if (it == values_.end() || it->is_null()) return std::nullopt;
    return *it;
}

std::optional<bool> UserDefaults::boolValue(std::string_view key) const {
    auto v = raw(key);
    if (!v) return std::nullopt;
    if (v->is_boolean()) return v->get<bool>();
    if (v->is_number()) return v->get<double>() != 0;
    return std::nullopt;
}

std::optional<long long> UserDefaults::integerValue(std::string_view key) const {
    auto v = raw(key);
    if (!v) return std::nullopt;
    // A number beyond what an integer holds, as a hand-edited file may have, reads as the
    // nearest one it can hold (converting it as it stands is undefined).
    constexpr auto kMax = std::numeric_limits<long long>::max();
    if (v->is_number_unsigned()) return static_cast<long long>(std::min<unsigned long long>(v->get<unsigned long long>(), kMax));
    if (v->is_number_integer()) return v->get<long long>();
    if (v->is_number()) {
        const double d = v->get<double>();
        if (d >= 0x1p63) return kMax;
        if (d <= -0x1p63) return std::numeric_limits<long long>::min();
        return static_cast<long long>(d);
    }
    if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
    return std::nullopt;
}

std::optional<std::string> UserDefaults::stringValue(std::string_view key) const {
    auto v = raw(key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}

std::optional<std::vector<std::string>> UserDefaults::stringList(std::string_view key) const {
    auto v = raw(key);
    if (!v || !v->is_array()) return std::nullopt;
    std::vector<std::string> out;
    for (const auto& item : *v) {
        if (item.is_string()) out.push_back(item.get<std::string>());
    }
    return out;
}

std::optional<nlohmann::json> UserDefaults::dictionary(std::string_view key) const {
    auto v = raw(key);
    if (!v || !v->is_object()) return std::nullopt;
    return v;
}

bool UserDefaults::contains(std::string_view key) const { return raw(key).has_value(); }

bool UserDefaults::set(std::string_view key, nlohmann::json value) {
    // A value that cannot be written out (text that is not UTF-8) must not stay behind
    // and make every later save fail.
    try {
        (void)value.dump();
    } catch (const nlohmann::json::exception& e) {
        kLog.error(std::string("defaults value refused for ") + std::string(key) + ": " + e.what());
        return false;
    }
    std::lock_guard lock(mutex_);
    values_[std::string(key)] = std::move(value);
    return save();
}

bool UserDefaults::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    values_.erase(std::string(key));
    return save();
}

bool UserDefaults::save() {
    std::error_code error;
    files::createPrivateDirectories(file_.parent_path(), error);
    if (!files::writeAtomically(file_, values_.dump(2), error)) {
        kLog.error("defaults write failed (" + error.message() + "): " + file_.string());
        return false;
    }
    return true;
}

}  // namespace vell
