#pragma once
// Every sentence of the recording results. None of them ever concerns the recording itself,
// which stays on this computer until the service has it.
#include "base/language.h"

namespace vell::results::messages {

inline constexpr Text kResultsUnavailable{"Recording results are not available in this process.",
                                          "Los resultados de las grabaciones no están disponibles en este proceso."};
inline constexpr Text kQueued{"Waiting to be processed.", "Esperando para procesarse."};
inline constexpr Text kProcessing{"Being processed…", "Procesándose…"};
inline constexpr Text kProcessed{"Processed.", "Procesada."};
inline constexpr Text kProcessingFailed{
    "The service could not process this recording. The recording itself is safe.",
    "El servicio no pudo procesar esta grabación. La grabación en sí está a salvo."};
inline constexpr Text kIncomplete{
    "Part of this recording's results did not come from the service; what arrived is shown.",
    "Parte de los resultados de esta grabación no llegó del servicio; se muestra lo que llegó."};
inline constexpr Text kUnreadable{"The service sent results that could not be read.",
                                  "El servicio mandó resultados que no se pudieron leer."};
inline constexpr Text kSignedOut{"Not signed in: sign in to see your recordings on the service.",
                                 "No hay sesión iniciada: iniciá sesión para ver tus grabaciones en el servicio."};
inline constexpr Text kNoSuchSpeaker{"This recording has no speaker with that number; the recording's details list its speakers.",
                                    "Esta grabación no tiene ningún participante con ese número; el detalle de la grabación los lista."};
inline constexpr Text kOffline{"Showing the copy kept on this computer: ", "Se muestra la copia guardada en esta computadora: "};
inline constexpr Text kNotKept{"This recording's results are not on this computer yet: ",
                               "Los resultados de esta grabación todavía no están en esta computadora: "};
inline constexpr Text kNoSummary{"Nothing was recognised in this recording, so there is no summary.",
                                 "No se reconoció nada en esta grabación, así que no hay resumen."};
inline constexpr Text kNotProcessedYet{"This recording has not been processed yet.",
                                       "Esta grabación todavía no se procesó."};
inline constexpr Text kSpeaker{"Speaker ", "Participante "};
inline constexpr Text kYouSide{"microphone", "micrófono"};
inline constexpr Text kOthersSide{"call audio", "audio de la llamada"};

}  // namespace vell::results::messages
