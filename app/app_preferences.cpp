#include "app/app_preferences.h"

#include "base/log.h"
#include "base/preference_keys.h"

namespace vell::app {

namespace {
const log::Logger kLog("Preferences");
}

AppPreferences::AppPreferences(UserDefaults& defaults, LoginItemService& loginItem, std::function<void()> applyDockPolicy)
    : defaults_(defaults), loginItem_(loginItem), applyDockPolicy_(std::move(applyDockPolicy)) {
    showsDockIcon.set(defaults_.boolValue(prefs::kShowsDockIcon).value_or(prefs::kShowsDockIconDefault));
    refreshLoginItem();
}

void AppPreferences::setShowsDockIcon(bool shows) {
    showsDockIcon.set(shows);
    defaults_.set(prefs::kShowsDockIcon, shows);
    if (applyDockPolicy_) applyDockPolicy_();
}

void AppPreferences::refreshLoginItem() {
    auto status = loginItem_.status();
    opensAtLogin.set(status == LoginItemStatus::enabled);
    loginNeedsApproval.set(status == LoginItemStatus::requiresApproval);
}

void AppPreferences::setOpensAtLogin(bool opens) {
    auto result = opens ? loginItem_.registerItem() : loginItem_.unregisterItem();
    if (!result) kLog.error("Vell login item: " + result.error());
    refreshLoginItem();
}

void AppPreferences::applyOpenAtLoginDefault() {
    if (defaults_.boolValue(prefs::kOpenAtLoginDefaultApplied).value_or(false)) return;
    if (loginItem_.status() == LoginItemStatus::notRegistered) {
        auto result = loginItem_.registerItem();
        if (!result) {
            kLog.error("Vell login item: " + result.error());
            refreshLoginItem();
            return;
        }
    }
    defaults_.set(prefs::kOpenAtLoginDefaultApplied, true);
    refreshLoginItem();
}

}  // namespace vell::app
