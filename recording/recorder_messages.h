#pragma once
// Every sentence the recorder and the pending list show to the user.
#include "platform/language.h"

namespace vell::recording::messages {

inline constexpr Text kMicrophonePermissionMissing{"Microphone permission is missing.", "Falta el permiso de micrófono."};
inline constexpr Text kMixerFailed{"Could not start the audio mixer.", "No se pudo iniciar el mezclador de audio."};
inline constexpr Text kStoppedAfterFiveHours{"Recording stopped automatically after 5 hours.",
                                             "La grabación se detuvo automáticamente después de 5 horas."};
inline constexpr Text kStoppedAfterSilence{"Recording stopped after 10 minutes without speech.",
                                           "La grabación se detuvo tras 10 minutos sin que nadie hablara."};
inline constexpr Text kStoppedOnWriteError{
    "Recording stopped because Vell could no longer save audio. The saved part will be uploaded.",
    "La grabación se detuvo porque Vell ya no pudo guardar audio. La parte guardada se subirá."};
// Followed by the error's own description.
inline constexpr Text kMicrophoneReopenFailed{"The microphone could not be reopened: ", "No se pudo reabrir el micrófono: "};
// Also set on a recording that was still running when the previous run ended.
inline constexpr Text kRecovered{"Recovered after an interrupted recording.",
                                 "Recuperada después de una grabación interrumpida."};
// This build was made without a way to capture audio.
inline constexpr Text kNoAudioParts{"This build of Vell cannot capture audio (no audio backend).",
                                    "Esta versión de Vell no puede capturar audio (no hay backend de audio)."};

}  // namespace vell::recording::messages
