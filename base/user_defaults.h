#pragma once
// The user-defaults store: one JSON document of key/value pairs (Boolean, integer, text,
// list and dictionary values), replaced atomically on every change. A document that does
// not parse is moved aside and the defaults apply, so a bad file never blocks a launch.
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

class UserDefaults {
public:
    explicit UserDefaults(std::filesystem::path file);

    // The store at paths::defaultsFile(), created on first use.
    static UserDefaults& standard();
    // Tests point the shared store at a private file (nullptr restores the default).
    static void overrideStandard(UserDefaults* defaults);

    std::optional<bool> boolValue(std::string_view key) const;
    std::optional<long long> integerValue(std::string_view key) const;
    std::optional<std::string> stringValue(std::string_view key) const;
    std::optional<std::vector<std::string>> stringList(std::string_view key) const;
    std::optional<nlohmann::json> dictionary(std::string_view key) const;  // a JSON object
    bool contains(std::string_view key) const;

    // Stores the value and writes the document; returns false when the write failed (the
    // value is kept in memory for this run either way).
    bool set(std::string_view key, nlohmann::json value);
    bool remove(std::string_view key);

    const std::filesystem::path& file() const { return file_; }

private:
    std::optional<nlohmann::json> raw(std::string_view key) const;
    bool save();

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    nlohmann::json values_ = nlohmann::json::object();
};

}  // namespace vell
