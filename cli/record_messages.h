#pragma once
// The sentences of `vell record`.
#include "base/language.h"

namespace vell::cli::record_messages {

inline constexpr Text kDescription{"Record the microphone and the system audio into a new recording",
                                   "Graba el micrófono y el audio del sistema en una grabación nueva"};
inline constexpr Text kSecondsOption{"Stop by itself after this many seconds",
                                     "Se detiene sola después de esta cantidad de segundos"};
inline constexpr Text kBadSeconds{"must be a finite number of seconds, at least 0.1",
                                  "tiene que ser una cantidad finita de segundos, de al menos 0,1"};
// Followed by the recording's id / the file's path.
inline constexpr Text kRecording{"Recording: ", "Grabación: "};
inline constexpr Text kFile{"File: ", "Archivo: "};
// Follows "Disconnected microphone" when the chosen microphone is not connected.
inline constexpr Text kRecordingFromDefault{": recording from the system default.", ": se graba con el predeterminado del sistema."};
inline constexpr Text kStopHint{"Press Ctrl-C to stop.", "Apretá Ctrl-C para detener."};
// Followed by the limit in seconds.
inline constexpr Text kStopHintLimited{"Stops by itself after ", "Se detiene sola a los "};
inline constexpr Text kStopHintLimitedEnd{" s; Ctrl-C stops it sooner.", " s; Ctrl-C la detiene antes."};
inline constexpr Text kJsonOption{"Print JSON lines (the recording at start and at stop) whatever the language",
                                  "Imprime líneas JSON (la grabación al empezar y al terminar) sea cual sea el idioma"};
inline constexpr Text kMicLabel{"mic", "mic"};
inline constexpr Text kSystemLabel{"system", "sistema"};
// Followed by the reason.
inline constexpr Text kDidNotStart{"The recording did not start: ", "La grabación no empezó: "};
inline constexpr Text kHostGone{"The Vell host stopped answering during the recording; what it saved is recovered when it starts again: ",
                                "El anfitrión de Vell dejó de responder durante la grabación; lo que guardó se recupera cuando vuelva a arrancar: "};
// Followed by the length in seconds and " s".
inline constexpr Text kDiscarded{"Discarded. vell undo brings it back within 5 minutes.",
                                 "Descartada. vell undo la recupera dentro de los 5 minutos."};
inline constexpr Text kSaved{"Saved, ready to upload. Length: ", "Guardada, lista para subir. Duración: "};

inline constexpr Text kLiveOption{"Print the live advice (cues) as it arrives",
                                  "Muestra los consejos en vivo a medida que llegan"};
// Followed by a cue's title, ": " and its sentence.
inline constexpr Text kCue{"Cue: ", "Consejo: "};
inline constexpr Text kLiveNeedsSignIn{"Live advice needs a signed-in session; recording without it.",
                                       "Los consejos en vivo necesitan una sesión iniciada; se graba sin ellos."};

}  // namespace vell::cli::record_messages
