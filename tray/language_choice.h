#pragma once
// The interface language the user picked in the settings ("system", "en" or "es"), kept
// in the defaults store, and the signal every window re-reads its words on.
#include <QObject>
#include <string>
#include <string_view>

namespace vell {
class UserDefaults;
}

namespace vell::tray {

// Text: "system" (or absent), "en", "es".
inline constexpr std::string_view kInterfaceLanguageKey = "app.quillon.mac.interfaceLanguage";
// Boolean: the onboarding was finished once.
inline constexpr std::string_view kOnboardingDoneKey = "app.quillon.mac.onboardingDone";

class LanguageSignal : public QObject {
    Q_OBJECT
signals:
    void changed();
};
LanguageSignal& languageSignal();

std::string storedLanguageChoice(const UserDefaults& defaults);
// Applies the stored choice to the process (at start-up).
void applyStoredLanguage(const UserDefaults& defaults);
// Stores and applies a new choice, then tells the windows.
void chooseLanguage(UserDefaults& defaults, const std::string& choice);

}  // namespace vell::tray
