#pragma once
// What `vell speech-test` says, in both interface languages.
#include "base/language.h"

namespace vell::cli::messages {

inline constexpr Text kSpeechTestDescription{
    "Show, second by second, how sure the speech detector is that someone speaks in an audio file",
    "Mostrar, segundo a segundo, qué tan seguro está el detector de que alguien habla en un archivo de audio"};
inline constexpr Text kSpeechTestFileOption{"Any audio or video file FFmpeg can read",
                                            "Cualquier archivo de audio o video que FFmpeg pueda leer"};
inline constexpr Text kSpeechTestJsonOption{"Print the windows as JSON", "Mostrar las ventanas como JSON"};
inline constexpr Text kNoSpeechClassifier{"The speech detector cannot run: ", "El detector de voz no puede funcionar: "};
inline constexpr Text kCannotReadAudio{"Could not read the audio: ", "No se pudo leer el audio: "};
// "Speech in 12 of 190 windows (one second each)."
inline constexpr Text kSpeechIn{"Speech in ", "Voz en "};
inline constexpr Text kWindowsOf{" of ", " de "};
inline constexpr Text kWindowsTail{" windows (about one second each).", " ventanas (de un segundo, más o menos)."};
inline constexpr Text kLongestWithoutSpeech{"Longest stretch without speech: ", "Tramo más largo sin voz: "};
inline constexpr Text kWouldStop{"A recording like this stops by itself after 10 minutes without speech.",
                                 "Una grabación así se detiene sola tras 10 minutos sin que nadie hable."};
inline constexpr Text kWouldNotStop{"A recording like this is not stopped for lack of speech.",
                                    "Una grabación así no se detiene por falta de voz."};

}  // namespace vell::cli::messages
