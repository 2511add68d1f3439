#pragma once
// Every sentence insurance mode shows to people, in both interface languages.
#include "base/language.h"

namespace vell::insurance::messages {

inline constexpr Text kNeedsPermission{"Insurance mode needs microphone permission.",
                                       "El modo respaldo necesita permiso de micrófono."};
// Followed by the error's description.
inline constexpr Text kCouldNotOpen{"Insurance mode could not open the microphone: ",
                                    "El modo respaldo no pudo abrir el micrófono: "};
// Followed by the system's reason (a full disk).
inline constexpr Text kNotSaving{"Insurance mode cannot save audio right now; what was buffered before is kept "
                                 "and buffering resumes when there is space again. ",
                                 "El modo respaldo no puede guardar audio ahora; lo grabado antes se conserva "
                                 "y seguirá grabando cuando vuelva a haber espacio. "};

// Recovering speech from the buffer.
inline constexpr Text kSignInToTranscribe{"Sign in to transcribe.", "Iniciá sesión para transcribir."};
inline constexpr Text kImprovingPrefix{"Improving… · ", "Mejorando… · "};
inline constexpr Text kNoSpeechFound{"No speech found", "No se encontró voz"};
inline constexpr Text kCopied{"Copied", "Copiado"};
inline constexpr Text kCopiedImproved{"Copied improved text", "Texto mejorado copiado"};
inline constexpr Text kSelectionCopied{"Selection copied", "Selección copiada"};
inline constexpr Text kCouldNotCopy{"Could not copy. Try again.", "No se pudo copiar. Reintentá."};
inline constexpr Text kNoConnection{"No connection. Try again when you’re online.",
                                    "Sin conexión. Reintentá cuando vuelvas a estar en línea."};
inline constexpr Text kCouldNotPlay{"Could not play this part.", "No se pudo reproducir esta parte."};
inline constexpr Text kNothingSelected{"Nothing selected", "Nada seleccionado"};
inline constexpr Text kUploadFailed{"Upload failed. Vell will retry from the menu.",
                                    "Falló la subida. Vell reintentará desde el menú."};
// What an outside agent got from the buffer; "{}" are filled in order (a duration such as
// "2 minutes", a span of local times such as "10:02-10:04", a time of day).
inline constexpr Text kSentTitle{"Audio sent to your assistant", "Se envió audio a tu asistente"};
inline constexpr Text kSentNotice{"Vell sent {} of audio ({}) to your assistant",
                                  "Vell envió {} de audio ({}) a tu asistente"};
inline constexpr Text kSentLine{"Sent to your assistant: {} ({}), at {}", "Enviado a tu asistente: {} ({}), a las {}"};
inline constexpr Text kEmptyLine{"Asked for by your assistant, nothing was kept then: {} ({}), at {}",
                                 "Pedido por tu asistente, no había nada guardado: {} ({}), a las {}"};
inline constexpr Text kFailedLine{"Asked for by your assistant, the upload failed: {} ({}), at {}",
                                  "Pedido por tu asistente, falló la subida: {} ({}), a las {}"};
inline constexpr Text kOneSecond{"1 second", "1 segundo"};
inline constexpr Text kSeconds{"{} seconds", "{} segundos"};
inline constexpr Text kOneMinute{"1 minute", "1 minuto"};
inline constexpr Text kMinutes{"{} minutes", "{} minutos"};

// Reported to the agent when the upload went through but gave no recording id.
inline constexpr const char* kUploadedWithoutId =
    "Uploaded, but the recording id is unknown; look in the recordings list.";

}  // namespace vell::insurance::messages
