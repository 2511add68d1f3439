#pragma once
// Sentences of the upload code that the user sees.
#include "base/language.h"

namespace vell::service::messages {

// Followed by the system's description of the failure.
inline constexpr Text kCannotReadRecording{"Cannot read the recording file: ", "No se puede leer el archivo de la grabación: "};
inline constexpr Text kCannotWriteUploadBody{"Cannot prepare the upload: ", "No se puede preparar la subida: "};

}  // namespace vell::service::messages
