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
inline constexpr Text kColumnLength{"LENGTH", "DURACIÓN"};
inline constexpr Text kColumnSize{"SIZE", "TAMAÑO"};
inline constexpr Text kColumnNote{"NOTE", "NOTA"};
// The states of a recording as the table shows them.
inline constexpr Text kStatusRecording{"recording", "grabando"};
inline constexpr Text kStatusReady{"ready", "lista"};
inline constexpr Text kStatusUploading{"uploading", "subiendo"};
inline constexpr Text kStatusUploaded{"uploaded", "subida"};
inline constexpr Text kStatusFailed{"failed", "falló"};
inline constexpr Text kStatusDiscarded{"discarded", "descartada"};
inline constexpr Text kMissingFile{"missing", "falta"};

}  // namespace vell::cli::pending_messages
