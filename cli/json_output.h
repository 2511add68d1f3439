#pragma once
// What every --json prints the same way, whatever the command and whether a host answered:
// times in ISO 8601 with the local offset and milliseconds ("2026-11-25T09:30:00.000+01:00"),
// files as plain paths. Stored and bus formats (seconds since 2001, milliseconds since 1970,
// file:// URLs) never reach a script.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/clock.h"

namespace vell::cli {

std::string isoTime(WallTime time);
// JSON null for no time.
nlohmann::json isoTime(const std::optional<WallTime>& time);
nlohmann::json isoFromMilliseconds(const nlohmann::json& msSince1970);
// An ISO 8601 time in UTC ("...Z", as the calendar report has it) in the same form.
nlohmann::json isoFromUTC(const nlohmann::json& text);
// "file:///home/a%20b/x.aac" as "/home/a b/x.aac"; anything else as it is.
std::string plainPath(const std::string& urlOrPath);

}  // namespace vell::cli
