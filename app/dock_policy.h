#pragma once
// Whether the application shows itself in the task switcher ("Dock icon"): always when
// the user asked for it, otherwise only while one of its own windows is visible.
#include <string>
#include <string_view>
#include <vector>

namespace vell::app {

enum class ActivationPolicy { regular, accessory };

// The application's windows have identifiers beginning with "onboarding", "login",
// "main", "settings" or "recover".
bool isApplicationWindow(std::string_view identifier);

ActivationPolicy dockPolicy(bool showsDockIcon, const std::vector<std::string>& visibleWindowIdentifiers);

}  // namespace vell::app
