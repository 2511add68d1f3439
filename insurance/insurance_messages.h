#pragma once
// Every sentence insurance mode shows to people, in both interface languages.
#include "base/language.h"

namespace vell::insurance::messages {

inline constexpr Text kNeedsPermission{"Insurance mode needs microphone permission.",
                                       "El modo respaldo necesita permiso de micrófono."};
// Followed by the error's description.
inline constexpr Text kCouldNotOpen{"Insurance mode could not open the microphone: ",
                                    "El modo respaldo no pudo abrir el micrófono: "};

}  // namespace vell::insurance::messages
