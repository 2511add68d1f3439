#pragma once
// Every sentence the application core shows.
#include "base/language.h"

namespace vell::app::messages {

inline constexpr Text kQuitMessage{"The recording will stop. Quit Vell?", "La grabación se detendrá. ¿Salir de Vell?"};
inline constexpr Text kQuitInformative{"The saved part will remain on this computer and upload when Vell can connect.",
                                       "La parte guardada quedará en esta computadora y se subirá cuando Vell pueda conectarse."};
inline constexpr Text kQuitStopAndQuit{"Stop and quit", "Detener y salir"};
inline constexpr Text kQuitKeepRecording{"Keep recording", "Seguir grabando"};

inline constexpr Text kActionStop{"Stop", "Detener"};
inline constexpr Text kActionFinishRecording{"Finish recording", "Terminar grabación"};
inline constexpr Text kActionKeepRecording{"Keep recording", "Seguir grabando"};
inline constexpr Text kActionDelete{"Delete", "Borrar"};

// What the host answers a front end that asked for something the state does not allow.
inline constexpr Text kNothingRecording{"Nothing is recording.", "No se está grabando nada."};
inline constexpr Text kAlreadyRecording{"A recording is already running.", "Ya hay una grabación en curso."};
// Followed by the account's email and a period.
inline constexpr Text kAlreadySignedIn{"Already signed in as ", "Ya iniciaste sesión como "};
inline constexpr Text kNotSignedIn{"Not signed in. Run \"vell login\".", "No iniciaste sesión. Ejecutá \"vell login\"."};
inline constexpr Text kNoCodeAsked{"No two-step code was asked for. Sign in first.",
                                   "No se pidió ningún código de verificación. Primero iniciá sesión."};

}  // namespace vell::app::messages
