#pragma once
// What the automatic call recorder tells the user.
#include <string_view>

#include "base/language.h"

namespace vell::automation::messages {

inline constexpr Text kRecordingTheCall{"Recording the call", "Grabando la llamada"};
inline constexpr Text kSavedLocally{"Saved on this computer. Sign in to sync it.",
                                    "Guardada en esta computadora. Iniciá sesión para sincronizarla."};
inline constexpr Text kCallEndedTitle{"The call ended", "La llamada terminó"};
inline constexpr Text kCallEndedBody{"Finish the recording?", "¿Terminar la grabación?"};

}  // namespace vell::automation::messages

namespace vell::automation::ids {
// The categories and actions of this recorder's notifications (registered at launch with
// the application's other categories; the composition root checks that they agree).
inline constexpr std::string_view kAutoRecordingActive = "app.quillon.mac.autoRecordingActive";
inline constexpr std::string_view kCallEnded = "app.quillon.mac.callEnded";
inline constexpr std::string_view kStopAutoRecording = "app.quillon.mac.stopAutoRecording";
inline constexpr std::string_view kFinishRecording = "app.quillon.mac.finishRecording";
inline constexpr std::string_view kKeepRecording = "app.quillon.mac.keepRecording";
}  // namespace vell::automation::ids
