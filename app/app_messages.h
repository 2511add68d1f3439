#pragma once
// Every sentence the application core shows.
#include "platform/language.h"

namespace vell::app::messages {

inline constexpr Text kQuitMessage{"The recording will stop. Quit Vell?", "La grabación se detendrá. ¿Salir de Vell?"};
inline constexpr Text kQuitInformative{"The saved part will remain on this Mac and upload when Vell can connect.",
                                       "La parte guardada quedará en esta Mac y se subirá cuando Vell pueda conectarse."};
inline constexpr Text kQuitStopAndQuit{"Stop and quit", "Detener y salir"};
inline constexpr Text kQuitKeepRecording{"Keep recording", "Seguir grabando"};

inline constexpr Text kActionStop{"Stop", "Detener"};
inline constexpr Text kActionFinishRecording{"Finish recording", "Terminar grabación"};
inline constexpr Text kActionKeepRecording{"Keep recording", "Seguir grabando"};
inline constexpr Text kActionDelete{"Delete", "Borrar"};

}  // namespace vell::app::messages
