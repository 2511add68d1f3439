#include "app/dock_policy.h"

#include <algorithm>
#include <array>

namespace vell::app {

bool isApplicationWindow(std::string_view identifier) {
    static constexpr std::array<std::string_view, 5> kPrefixes{"onboarding", "login", "main", "settings", "recover"};
    return std::any_of(kPrefixes.begin(), kPrefixes.end(),
                       [&](std::string_view prefix) { return identifier.substr(0, prefix.size()) == prefix; });
}

ActivationPolicy dockPolicy(bool showsDockIcon, const std::vector<std::string>& visibleWindowIdentifiers) {
    if (showsDockIcon) return ActivationPolicy::regular;
    bool anyOwn = std::any_of(visibleWindowIdentifiers.begin(), visibleWindowIdentifiers.end(),
                              [](const std::string& id) { return isApplicationWindow(id); });
    return anyOwn ? ActivationPolicy::regular : ActivationPolicy::accessory;
}

}  // namespace vell::app
