#pragma once
// What the automatic recorders say to the user, in both interface languages.
#include "base/language.h"

namespace vell::automation::messages {

inline constexpr Text kRecordCalendarMeetings{"Record calendar meetings", "Grabar reuniones del calendario"};
inline constexpr Text kRecordCalendarMeetingsExplanation{
    "Starts recording when a meeting in your calendar begins: a timed event you haven't declined, with other people "
    "or a video link. Delete it from the Vell icon in the panel if it started at the wrong moment; Undo stays available for 5 "
    "minutes. Any recording stops after 10 minutes without speech, and a meeting recording nobody spoke in is removed.",
    "Empieza a grabar cuando arranca una reunión de tu calendario: un evento con horario que no rechazaste, con otras "
    "personas o un enlace de video. Borrala desde el ícono de Vell en el panel si empezó en un mal momento; Deshacer sigue "
    "disponible durante 5 minutos. Toda grabación se detiene tras 10 minutos sin voz, y una grabación de reunión en la "
    "que nadie habló se borra."};
inline constexpr Text kUntitledMeeting{"Meeting", "Reunión"};

// The meeting notification: the title goes between typographic quotation marks.
inline constexpr Text kRecordingMeetingPrefix{"Recording \u201c", "Grabando \u201c"};
inline constexpr Text kRecordingMeetingSuffix{"\u201d", "\u201d"};
inline constexpr Text kMeetingNotificationBody{"Started from your calendar. Delete it if it's the wrong moment.",
                                               "Empezó por tu calendario. Borrala si no es el momento."};

// Discards.
inline constexpr Text kNothingKept{"Nothing from this recording was kept.", "No se guardó nada de esta grabación."};
inline constexpr Text kUndo{"Undo", "Deshacer"};
inline constexpr Text kClosePanel{"Close (Undo stays at the Vell icon in the panel)", "Cerrar (Deshacer sigue en el ícono de Vell en el panel)"};
inline constexpr Text kTooLateToUndo{"Too late to undo: the recording is gone.",
                                     "Ya no se puede deshacer: la grabación se borró."};
inline constexpr Text kNobodySpokeTitle{"Nobody spoke, so nothing was kept", "Nadie habló, así que no se guardó nada"};
inline constexpr Text kNobodySpokeBody{"Undo from the Vell icon in the panel within 5 minutes.",
                                       "Podés deshacerlo desde el ícono de Vell en el panel durante 5 minutos."};
inline constexpr Text kNothingToUndo{"There is no discarded recording to undo.",
                                     "No hay ninguna grabación descartada para deshacer."};

// Why an upcoming meeting would not start a recording.
inline constexpr Text kVerdictAllDay{"all-day event", "evento de todo el día"};
inline constexpr Text kVerdictCanceled{"cancelled", "cancelado"};
inline constexpr Text kVerdictDeclined{"you declined it", "lo rechazaste"};
inline constexpr Text kVerdictBadTimes{"it ends before it starts", "termina antes de empezar"};
inline constexpr Text kVerdictNoOthers{"no other attendees and no meeting link",
                                       "sin otros participantes ni enlace de reunión"};
inline constexpr Text kVerdictNotStarted{"has not started yet", "todavía no empezó"};
inline constexpr Text kVerdictEnded{"already ended", "ya terminó"};
inline constexpr Text kVerdictHandled{"already handled", "ya se tuvo en cuenta"};

}  // namespace vell::automation::messages
