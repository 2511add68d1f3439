#include "app/echo_cancel_setting.h"

#include <nlohmann/json.hpp>

#include "audio/echo_cancellation.h"
#include "base/preference_keys.h"

namespace vell::app {

bool echoCancellationEnabled(const UserDefaults& defaults) {
    return defaults.boolValue(prefs::kEchoCancellation).value_or(prefs::kEchoCancellationDefault);
}

void setEchoCancellationEnabled(UserDefaults& defaults, bool enabled) {
    defaults.set(prefs::kEchoCancellation, enabled);
    audio::EchoCancellation::shared().setEnabled(enabled);
}

void applyEchoCancellationSetting(const UserDefaults& defaults) {
    audio::EchoCancellation::shared().setEnabled(echoCancellationEnabled(defaults));
}

std::string echoCancellationStatusJson(const UserDefaults& defaults) {
    const auto s = audio::EchoCancellation::shared().status();
    nlohmann::ordered_json j{{"enabled", echoCancellationEnabled(defaults)},
                             {"state", audio::echoStateName(s.state)},
                             {"reason", audio::echoBypassName(s.reason)},
                             {"output",
                              {{"device", s.output.device},
                               {"port", s.output.port},
                               {"kind", audio::outputKindName(s.output.kind)}}},
                             {"erleDb", nullptr},
                             {"delayMs", nullptr}};
    if (s.erleDb) j["erleDb"] = *s.erleDb;
    if (s.delayMs) j["delayMs"] = *s.delayMs;
    return j.dump();
}

}  // namespace vell::app
