#pragma once
// What `vell calendar` and `vell undo` print.
#include "base/language.h"

namespace vell::cli::calendar_messages {

inline constexpr Text kDescription{"Record calendar meetings: the calendars to read, the switch, upcoming meetings",
                                   "Grabar reuniones del calendario: calendarios, interruptor, próximas reuniones"};
inline constexpr Text kAdd{"Add an iCalendar file or a calendar's http(s) address",
                           "Agregar un archivo iCalendar o la dirección http(s) de un calendario"};
inline constexpr Text kRemove{"Remove a calendar (its address, path or number in the list)",
                              "Quitar un calendario (su dirección, ruta o número en la lista)"};
inline constexpr Text kList{"The calendars and whether each can be read", "Los calendarios y si se pueden leer"};
inline constexpr Text kOn{"Start recording calendar meetings", "Empezar a grabar las reuniones del calendario"};
inline constexpr Text kOff{"Stop recording calendar meetings", "Dejar de grabar las reuniones del calendario"};
inline constexpr Text kUpcoming{"The next meetings and whether each would be recorded",
                                "Las próximas reuniones y si se grabaría cada una"};
inline constexpr Text kStatus{"The switch, the meeting being recorded and the discard that can be undone",
                              "El interruptor, la reunión que se graba y el descarte que se puede deshacer"};
inline constexpr Text kSourceArgument{"File or address", "Archivo o dirección"};
inline constexpr Text kJsonOption{"Print JSON", "Imprimir JSON"};

inline constexpr Text kAdded{"Added: ", "Agregado: "};
inline constexpr Text kRemoved{"Removed: ", "Quitado: "};
inline constexpr Text kNoSources{"No calendars yet. Add one with: vell calendar add FILE|URL",
                                 "Todavía no hay calendarios. Agregá uno con: vell calendar add ARCHIVO|URL"};
inline constexpr Text kEnabled{"Record calendar meetings: on", "Grabar reuniones del calendario: activado"};
inline constexpr Text kDisabled{"Record calendar meetings: off", "Grabar reuniones del calendario: desactivado"};
inline constexpr Text kReadable{"ok", "ok"};
inline constexpr Text kEvents{" events", " eventos"};
inline constexpr Text kNotReadable{"cannot be read", "no se puede leer"};
inline constexpr Text kLastGoodCopy{" (using the last good copy)", " (se usa la última copia buena)"};
inline constexpr Text kNoUpcoming{"No meetings in the next 7 days.", "No hay reuniones en los próximos 7 días."};
inline constexpr Text kWouldRecord{"will be recorded", "se va a grabar"};
inline constexpr Text kRecordingMeeting{"Recording the meeting: ", "Grabando la reunión: "};
inline constexpr Text kUndoAvailable{"Undo available for ", "Se puede deshacer durante "};
inline constexpr Text kSecondsSuffix{" s: ", " s: "};
inline constexpr Text kAddedButUnreadable{"Added, but it cannot be read yet: ", "Agregado, pero todavía no se puede leer: "};

inline constexpr Text kUndoDescription{"Bring back the recording discarded in the last 5 minutes",
                                       "Recuperar la grabación descartada en los últimos 5 minutos"};
inline constexpr Text kRestored{"Restored: ", "Recuperada: "};

}  // namespace vell::cli::calendar_messages
