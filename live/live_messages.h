#pragma once
// Every sentence the live advisor shows. None of them ever means the recording is affected.
#include "base/language.h"

namespace vell::live::messages {

inline constexpr Text kServiceUnreachable{
    "Live advice is paused: the service cannot be reached. The recording goes on.",
    "Los consejos en vivo están en pausa: no se puede llegar al servicio. La grabación sigue."};
inline constexpr Text kSegmentRejected{
    "The service turned down a part of the live audio; advice may miss a moment. The recording goes on.",
    "El servicio rechazó una parte del audio en vivo; puede que a los consejos les falte un momento. La grabación sigue."};
inline constexpr Text kSegmentsDropped{
    "Some live audio could not be sent in time and was left out of the advice. The recording keeps everything.",
    "Parte del audio en vivo no se pudo enviar a tiempo y quedó fuera de los consejos. La grabación guarda todo."};
inline constexpr Text kTilesUnreadable{
    "The live advice from the service could not be read. The recording goes on.",
    "No se pudieron leer los consejos en vivo del servicio. La grabación sigue."};
inline constexpr Text kSessionNotOpened{
    "Live advice could not start; the recording goes on without it.",
    "Los consejos en vivo no pudieron empezar; la grabación sigue sin ellos."};

// Cue sentences, built from what the service measured.
inline constexpr Text kTalkTimeTitle{"Talk time", "Tiempo de habla"};
inline constexpr Text kMonologueTitle{"Long monologue", "Monólogo largo"};
inline constexpr Text kQuestionsTitle{"Questions asked", "Preguntas hechas"};
inline constexpr Text kSilenceTitle{"Long silences", "Silencios largos"};
inline constexpr Text kSpeaker{"Speaker ", "Participante "};

}  // namespace vell::live::messages
