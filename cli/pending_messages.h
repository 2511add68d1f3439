#pragma once
// The sentences of `vell pending`.
#include "base/language.h"

namespace vell::cli::pending_messages {

inline constexpr Text kDescription{"List the recordings kept on this computer and their upload state",
                                   "Lista las grabaciones guardadas en esta computadora y su estado de subida"};
inline constexpr Text kJsonOption{"Print the list as JSON, as it is stored", "Muestra la lista en JSON, tal como se guarda"};
inline constexpr Text kEmpty{"No pending recordings.", "No hay grabaciones pendientes."};
inline constexpr Text kColumnID{"ID", "ID"};
inline constexpr Text kColumnStatus{"STATUS", "ESTADO"};
inline constexpr Text kColumnStarted{"STARTED", "INICIO"};
inline constexpr Text kColumnSize{"SIZE", "TAMAÑO"};
inline constexpr Text kColumnLastError{"LAST ERROR", "ÚLTIMO ERROR"};
inline constexpr Text kMissingFile{"missing", "falta"};

}  // namespace vell::cli::pending_messages
