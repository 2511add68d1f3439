#pragma once
// The general settings: the Dock icon wish and open-at-login. The login-item fields always
// show the platform's real state after an attempt, never the requested one.
#include <functional>

#include "app/login_item.h"
#include "base/published.h"
#include "base/user_defaults.h"

namespace vell::app {

class AppPreferences {
public:
    // applyDockPolicy re-applies the Dock policy (with activation) after the wish changes.
    AppPreferences(UserDefaults& defaults, LoginItemService& loginItem, std::function<void()> applyDockPolicy = {});

    Published<bool> showsDockIcon{true};
    Published<bool> opensAtLogin{false};
    Published<bool> loginNeedsApproval{false};

    void setShowsDockIcon(bool shows);
    // Registers (true) or unregisters (false); failures are logged, never shown.
    void setOpensAtLogin(bool opens);
    void refreshLoginItem();
    // Once per launch, after the first Dock policy: the application opens at login unless
    // the user turned it off. A failed registration leaves the key unset, so the next
    // launch tries again.
    void applyOpenAtLoginDefault();

private:
    UserDefaults& defaults_;
    LoginItemService& loginItem_;
    std::function<void()> applyDockPolicy_;
};

}  // namespace vell::app
