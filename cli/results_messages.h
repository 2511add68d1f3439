#pragma once
// The sentences of `vell recordings`, `vell show`, `vell speakers` and `vell share`.
#include "base/language.h"

namespace vell::cli::results_messages {

inline constexpr Text kRecordingsDescription{"List your recordings on the service and what came of them",
                                             "Lista tus grabaciones en el servicio y qué salió de cada una"};
inline constexpr Text kShowDescription{"Show a recording's summary, transcript and cues",
                                       "Muestra el resumen, la transcripción y los consejos de una grabación"};
inline constexpr Text kSpeakersDescription{"Name the speakers of a recording (N=NAME; an empty name restores the default)",
                                           "Pone nombre a los participantes de una grabación (N=NOMBRE; un nombre vacío vuelve al original)"};
inline constexpr Text kShareDescription{"Share a recording's summary and transcript; prints the link",
                                        "Comparte el resumen y la transcripción de una grabación; muestra el enlace"};
inline constexpr Text kJsonOption{"Print JSON for scripts", "Muestra JSON para scripts"};
inline constexpr Text kIdOption{"The recording's id, as vell recordings or vell pending prints it",
                                "El id de la grabación, como lo muestra vell recordings o vell pending"};
inline constexpr Text kNotUploadedYet{
    "This recording is not on the service yet; it goes up when Vell can reach the service (vell upload sends it now).",
    "Esta grabación todavía no está en el servicio; se sube cuando Vell pueda contactarlo (vell upload la manda ahora)."};
inline constexpr Text kSummaryOption{"Only the summary", "Solo el resumen"};
inline constexpr Text kTranscriptOption{"Only the transcript", "Solo la transcripción"};
inline constexpr Text kCuesOption{"Only the cues", "Solo los consejos"};
inline constexpr Text kNamesOption{"N=NAME for each speaker to name", "N=NOMBRE por cada participante a nombrar"};
inline constexpr Text kBadName{"must be N=NAME with N a speaker number", "tiene que ser N=NOMBRE con N el número de un participante"};

inline constexpr Text kNoRecordings{"No recordings on the service yet.", "Todavía no hay grabaciones en el servicio."};
inline constexpr Text kSummary{"Summary", "Resumen"};
inline constexpr Text kTranscript{"Transcript", "Transcripción"};
inline constexpr Text kCues{"Cues", "Consejos"};
inline constexpr Text kSpeakers{"Speakers", "Participantes"};
inline constexpr Text kNoTranscript{"(nothing was recognised)", "(no se reconoció nada)"};
inline constexpr Text kNoCues{"(no cues)", "(sin consejos)"};

}  // namespace vell::cli::results_messages
