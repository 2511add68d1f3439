#pragma once
// Decides once whether pending recordings made before accounts were recorded in them go to
// the first account that signs in. Open while the decision is still to be made; closing it
// stores the decision for good.
#include <string>

#include "base/preference_keys.h"
#include "base/user_defaults.h"

namespace vell::app {

class LegacyAdoptionWindow {
public:
    explicit LegacyAdoptionWindow(UserDefaults& defaults, std::string key = std::string(prefs::kOwnershipAdoptionDecided))
        : defaults_(&defaults), key_(std::move(key)) {
        reload();
    }
    bool isOpen() const { return isOpen_; }
    void close() {
        isOpen_ = false;
        defaults_->set(key_, true);
    }
    // Reads the stored decision again (at sign-out, for the next account).
    void reload() { isOpen_ = !defaults_->boolValue(key_).value_or(false); }
    const std::string& key() const { return key_; }

private:
    UserDefaults* defaults_;
    std::string key_;
    bool isOpen_ = true;
};

}  // namespace vell::app
