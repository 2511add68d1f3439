#pragma once
// What `vell echo-cancel` and `vell status` say about echo cancellation, from the status
// JSON of the host (or of this process).
#include <nlohmann/json.hpp>
#include <string>

#include "base/language.h"

namespace vell::cli::echo {

inline constexpr Text kHelp{"Echo cancellation of the microphone while recording: status, or switch it on or off",
                            "Cancelación del eco del micrófono al grabar: estado, o activarla o desactivarla"};
inline constexpr Text kActionHelp{"status, on or off", "status, on u off"};
inline constexpr Text kSwitch{"Cancel echo: ", "Cancelar eco: "};
inline constexpr Text kOn{"on", "activado"};
inline constexpr Text kOff{"off", "desactivado"};
inline constexpr Text kNow{"Echo cancellation: ", "Cancelación de eco: "};
inline constexpr Text kIdle{"not recording", "sin grabación"};
inline constexpr Text kActive{"cancelling the echo of the system audio", "cancelando el eco del audio del sistema"};
inline constexpr Text kSwitchedOff{"switched off", "desactivada"};
inline constexpr Text kBypassed{"bypassed, ", "sin aplicar, "};
inline constexpr Text kHeadphones{"the output is headphones", "la salida son auriculares"};
inline constexpr Text kHeadset{"the output is a headset", "la salida son auriculares con micrófono"};
inline constexpr Text kBluetooth{"the output is a Bluetooth device", "la salida es un dispositivo Bluetooth"};
inline constexpr Text kSilence{"the system audio is silent", "el audio del sistema está en silencio"};
inline constexpr Text kNoSystemAudio{"no system audio in this recording", "esta grabación no tiene audio del sistema"};
inline constexpr Text kUnavailable{"the echo canceller could not start", "no se pudo iniciar la cancelación de eco"};
inline constexpr Text kOutput{"Output: ", "Salida: "};
inline constexpr Text kReduction{"Echo reduced by: ", "Eco reducido en: "};

inline std::string stateText(const nlohmann::json& j) {
    const std::string state = j.value("state", "idle");
    if (state == "active") return kActive.str();
    if (state == "off") return kSwitchedOff.str();
    if (state != "bypassed") return kIdle.str();
    const std::string reason = j.value("reason", "");
    const Text& why = reason == "headphones"      ? kHeadphones
                      : reason == "headset"       ? kHeadset
                      : reason == "bluetooth"     ? kBluetooth
                      : reason == "silence"       ? kSilence
                      : reason == "noSystemAudio" ? kNoSystemAudio
                                                  : kUnavailable;
    return kBypassed.str() + why.str();
}

}  // namespace vell::cli::echo
