#include "cli/json_output.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace vell::cli {

std::string isoTime(WallTime time) {
    const long long ms = millisecondsSince1970(time);
    const std::time_t seconds = static_cast<std::time_t>(std::floor(static_cast<double>(ms) / 1000));
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    const long offset = local.tm_gmtoff;
    const long magnitude = std::labs(offset);
    return fmt::format("{}.{:03}{}{:02}:{:02}", date, ms - static_cast<long long>(seconds) * 1000, offset < 0 ? '-' : '+',
                       magnitude / 3600, magnitude / 60 % 60);
}

nlohmann::json isoTime(const std::optional<WallTime>& time) { return time ? nlohmann::json(isoTime(*time)) : nlohmann::json(); }

nlohmann::json isoFromMilliseconds(const nlohmann::json& msSince1970) {
    if (!msSince1970.is_number()) return nullptr;
    return isoTime(fromMillisecondsSince1970(msSince1970.get<double>()));
}

nlohmann::json isoFromUTC(const nlohmann::json& text) {
    if (!text.is_string()) return text;
    std::tm tm{};
    const std::string s = text.get<std::string>();
    if (!strptime(s.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm)) return text;
    return isoTime(wallTimeFromSeconds(static_cast<double>(timegm(&tm))));
}

std::string plainPath(const std::string& urlOrPath) {
    constexpr std::string_view kScheme = "file://";
    if (urlOrPath.rfind(kScheme, 0) != 0) return urlOrPath;
    std::string out;
    for (size_t i = kScheme.size(); i < urlOrPath.size(); ++i) {
        if (urlOrPath[i] == '%' && i + 2 < urlOrPath.size() && std::isxdigit(static_cast<unsigned char>(urlOrPath[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(urlOrPath[i + 2]))) {
            out += static_cast<char>(std::stoi(urlOrPath.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += urlOrPath[i];
        }
    }
    return out;
}

}  // namespace vell::cli
