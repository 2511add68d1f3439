#include "platform/dbus/control_arguments.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>
#include <nlohmann/json.hpp>

#include "audio/microphone_settings.h"
#include "base/language.h"
#include "base/utf8.h"

namespace vell::dbus::arguments {

namespace {

std::string tooLong(std::size_t limit) {
    return localized("The value is too long for Vell (at most " + std::to_string(limit) + " bytes).",
                     "El valor es demasiado largo para Vell (como máximo " + std::to_string(limit) + " bytes).");
}

std::string notAllowed(const std::string& en, const std::string& es) { return localized(en, es); }

bool isDigits(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

}  // namespace

Checked<std::string> text(std::string_view value, std::size_t limit) {
    if (value.size() > limit) return unexpected(tooLong(limit));
    if (!isValidUtf8(value)) return unexpected(notAllowed("The value is not valid UTF-8 text.", "El valor no es texto UTF-8 válido."));
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; })) {
        return unexpected(notAllowed("The value holds control characters.", "El valor contiene caracteres de control."));
    }
    return std::string(value);
}

Checked<service::MfaAnswer> verifyCode(std::string_view code) {
    auto checked = text(code, kMaximumCode);
    if (!checked) return unexpected(checked.error());
    const std::string_view inner = trimmed(code);
    if (inner.empty()) return unexpected(notAllowed("The code is empty.", "El código está vacío."));
    service::MfaAnswer answer;
    if (inner.size() == 6 && isDigits(inner)) answer.code = std::string(inner);
    else answer.backupCode = std::string(code);
    return answer;
}

Checked<std::string> email(std::string_view value) { return text(value, kMaximumEmail); }

Checked<std::string> password(std::string_view value) {
    // Any character may be part of a password; only its length is bounded.
    if (value.size() > kMaximumPassword) return unexpected(tooLong(kMaximumPassword));
    return std::string(value);
}

Checked<std::string> microphone(std::string_view value) {
    auto checked = text(value, kMaximumMicrophone);
    if (!checked) return checked;
    if (!audio::MicrophoneSelection::parse(*checked)) {
        return unexpected(notAllowed("The microphone must be \"default\", \"builtin\" or \"uid:NAME\".",
                                     "El micrófono debe ser \"default\", \"builtin\" o \"uid:NOMBRE\"."));
    }
    return checked;
}

Checked<int32_t> minutes(int32_t value) {
    if (value < 1 || value > kMaximumMinutes) {
        return unexpected(localized("The minutes must lie between 1 and " + std::to_string(kMaximumMinutes) + ".",
                                    "Los minutos deben estar entre 1 y " + std::to_string(kMaximumMinutes) + "."));
    }
    return value;
}

Checked<std::string> exportPath(std::string_view value) {
    auto checked = text(value, kMaximumPath);
    if (!checked) return checked;
    if (checked->empty() || checked->front() != '/') {
        return unexpected(notAllowed("The file must be given as an absolute path.",
                                     "El archivo debe darse con una ruta absoluta."));
    }
    return checked;
}

Checked<std::string> calendarSource(std::string_view value) {
    auto checked = text(value, kMaximumCalendarSource);
    if (checked && checked->empty()) {
        return unexpected(notAllowed("Name a calendar file or address.", "Indica un archivo o una dirección de calendario."));
    }
    return checked;
}

Checked<std::string> recordingID(std::string_view value) {
    if (value.size() > kMaximumRecordingID) return unexpected(tooLong(kMaximumRecordingID));
    const bool plain = !value.empty() && value != "." && value != ".." &&
                       std::all_of(value.begin(), value.end(), [](unsigned char c) {
                           return std::isalnum(c) || c == '_' || c == '-' || c == '.';
                       });
    if (!plain) return unexpected(notAllowed("That is not a recording's identifier.", "Eso no es el identificador de una grabación."));
    return std::string(value);
}

Checked<std::string> windowName(std::string_view value) {
    static constexpr std::string_view kWindows[] = {"", "main", "login", "settings", "recover", "onboarding", "panel"};
    if (value.size() <= kMaximumWindowName && std::find(std::begin(kWindows), std::end(kWindows), value) != std::end(kWindows)) {
        return std::string(value);
    }
    return unexpected(notAllowed("Vell has no such window.", "Vell no tiene esa ventana."));
}

Checked<RecoverChoice> recoverRange(std::string_view range, int32_t minutesValue) {
    RecoverChoice choice;
    if (range == "minute") choice.range = insurance::Range::lastMinute;
    else if (range == "five") choice.range = insurance::Range::lastFive;
    else if (range == "all") choice.range = insurance::Range::all;
    else if (range == "custom") choice.range = insurance::Range::custom;
    else return unexpected(notAllowed("The range must be minute, five, custom or all.",
                                      "El intervalo debe ser minute, five, custom o all."));
    if (choice.range == insurance::Range::custom) {
        auto checked = minutes(minutesValue);
        if (!checked) return unexpected(checked.error());
        choice.minutes = *checked;
    }
    return choice;
}

Checked<std::map<int, std::string>> speakerNames(std::string_view json) {
    const auto refused = [] {
        return notAllowed("The names must be a JSON object of speaker numbers to names.",
                          "Los nombres deben ser un objeto JSON de números de hablante a nombres.");
    };
    if (json.size() > kMaximumSpeakerNames) return unexpected(tooLong(kMaximumSpeakerNames));
    // Nesting is refused while parsing, before anything deep is built.
    bool tooDeep = false;
    auto parsed = nlohmann::json::parse(
        json,
        [&](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
            if (depth > kMaximumSpeakerNesting) tooDeep = true;
            return !tooDeep;
        },
        false);
    if (tooDeep || !parsed.is_object() || parsed.size() > kMaximumSpeakers) return unexpected(refused());
    std::map<int, std::string> names;
    for (const auto& [key, value] : parsed.items()) {
        int number = 0;
        auto [end, ec] = std::from_chars(key.data(), key.data() + key.size(), number);
        if (ec != std::errc() || end != key.data() + key.size() || number < 1 || number > int(kMaximumSpeakers) ||
            !value.is_string()) {
            return unexpected(refused());
        }
        auto name = text(value.get_ref<const std::string&>(), kMaximumSpeakerName);
        if (!name) return unexpected(name.error());
        names[number] = *name;
    }
    return names;
}

}  // namespace vell::dbus::arguments
