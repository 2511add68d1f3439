#pragma once
// Every sentence the recorder and the pending list show to the user.
#include "base/language.h"

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
inline constexpr Text kStoppedNothingSaved{
    "Recording stopped because Vell could not save any audio (is the disk full?). Nothing was saved.",
    "La grabación se detuvo porque Vell no pudo guardar audio (¿está lleno el disco?). No se guardó nada."};
inline constexpr Text kStoppedFileDeleted{
    "Recording stopped because its file was deleted. There is nothing left to upload.",
    "La grabación se detuvo porque se borró su archivo. No queda nada para subir."};
inline constexpr Text kSoundServerNotAnswering{
    "The sound server (PulseAudio or PipeWire) is not answering, so the microphone could not be opened. "
    "Restart it (for example: systemctl --user restart pipewire-pulse) and try again.",
    "El servidor de sonido (PulseAudio o PipeWire) no responde, así que no se pudo abrir el micrófono. "
    "Reinicialo (por ejemplo: systemctl --user restart pipewire-pulse) y volvé a intentar."};
// Followed by the system's reason.
inline constexpr Text kListNotSaved{"Vell could not save its list of recordings: ",
                                    "Vell no pudo guardar su lista de grabaciones: "};
// Followed by the error's own description.
inline constexpr Text kMicrophoneReopenFailed{"The microphone could not be reopened: ", "No se pudo reabrir el micrófono: "};
// Also set on a recording that was still running when the previous run ended.
inline constexpr Text kRecovered{"Recovered after an interrupted recording.",
                                 "Recuperada después de una grabación interrumpida."};
// This build was made without a way to capture audio.
inline constexpr Text kNoAudioParts{"This build of Vell cannot capture audio (no audio backend).",
                                    "Esta versión de Vell no puede capturar audio (no hay backend de audio)."};

}  // namespace vell::recording::messages
