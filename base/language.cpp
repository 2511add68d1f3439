#include "base/language.h"

#include <atomic>
#include <cctype>
#include <cstdlib>

namespace vell {

namespace {
std::atomic<int> gLanguage{-1};
}

Language chooseLanguage(const std::function<const char*(const char*)>& getenv) {
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = getenv(name);
        if (!value || !*value) continue;
        std::string first(value);
        if (auto colon = first.find(':'); colon != std::string::npos) first.resize(colon);
        if (first.empty()) continue;
        std::string lower;
        for (char c : first) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return lower.rfind("es", 0) == 0 ? Language::Spanish : Language::English;
    }
    return Language::English;
}

Language interfaceLanguage() {
    int value = gLanguage.load();
    if (value < 0) {
        value = static_cast<int>(chooseLanguage([](const char* name) { return std::getenv(name); }));
        gLanguage.store(value);
    }
    return static_cast<Language>(value);
}

void setInterfaceLanguage(Language language) { gLanguage.store(static_cast<int>(language)); }

}  // namespace vell
