#pragma once
// The interface language: Spanish when the first preferred language begins with "es",
// English otherwise; chosen once per run. Every user-facing sentence is a Text with both.
#include <functional>
#include <string>
#include <string_view>

namespace vell {

enum class Language { English, Spanish };

// Reads LANGUAGE (first entry of its list), LC_ALL, LC_MESSAGES, LANG in that order; the
// first one that is set and not empty decides.
Language chooseLanguage(const std::function<const char*(const char*)>& getenv);

// The process-wide choice, made from the environment on first use.
Language interfaceLanguage();
// Overrides the choice (tests, and the CLI's --lang).
void setInterfaceLanguage(Language language);

struct Text {
    std::string_view en;
    std::string_view es;
    std::string in(Language language) const { return std::string(language == Language::Spanish ? es : en); }
    std::string str() const { return in(interfaceLanguage()); }
    operator std::string() const { return str(); }  // NOLINT: a Text reads as its sentence
};

// For sentences built at run time (a Text only views its two strings).
inline std::string localized(const std::string& en, const std::string& es) {
    return interfaceLanguage() == Language::Spanish ? es : en;
}

}  // namespace vell
