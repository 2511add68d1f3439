#include "tray/language_choice.h"

#include <cstdlib>

#include "base/language.h"
#include "base/user_defaults.h"

namespace vell::tray {

LanguageSignal& languageSignal() {
    static LanguageSignal* signal = new LanguageSignal();
    return *signal;
}

std::string storedLanguageChoice(const UserDefaults& defaults) {
    auto choice = defaults.stringValue(kInterfaceLanguageKey).value_or("system");
    return choice == "en" || choice == "es" ? choice : "system";
}

namespace {
void apply(const std::string& choice) {
    if (choice == "en") setInterfaceLanguage(Language::English);
    else if (choice == "es") setInterfaceLanguage(Language::Spanish);
    else setInterfaceLanguage(vell::chooseLanguage([](const char* name) { return std::getenv(name); }));
}
}  // namespace

void applyStoredLanguage(const UserDefaults& defaults) { apply(storedLanguageChoice(defaults)); }

void chooseLanguage(UserDefaults& defaults, const std::string& choice) {
    defaults.set(kInterfaceLanguageKey, choice);
    apply(choice);
    emit languageSignal().changed();
}

}  // namespace vell::tray
