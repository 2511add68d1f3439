#pragma once
// What `vell insurance` says, in both interface languages.
#include "base/language.h"

namespace vell::cli::insurance_messages {

inline constexpr Text kDescription{"Insurance mode: keep the last minutes of the microphone on this computer",
                                   "Modo respaldo: guarda los últimos minutos del micrófono en esta computadora"};
inline constexpr Text kStatusDescription{"Show whether insurance mode listens and what it holds",
                                         "Muestra si el modo respaldo escucha y qué guarda"};
inline constexpr Text kOnDescription{"Switch insurance mode on", "Activa el modo respaldo"};
inline constexpr Text kOffDescription{"Switch insurance mode off and erase its buffer",
                                      "Desactiva el modo respaldo y borra lo guardado"};
inline constexpr Text kWindowDescription{"Keep this many minutes (5 to 60)", "Guarda esta cantidad de minutos (5 a 60)"};
inline constexpr Text kChunksDescription{"List the buffered chunks", "Lista los fragmentos guardados"};
inline constexpr Text kExportDescription{"Write the last minutes of the buffer into one AAC file",
                                         "Escribe los últimos minutos guardados en un archivo AAC"};
inline constexpr Text kJsonOption{"Print JSON", "Muestra JSON"};
inline constexpr Text kAcceptOption{"Accept the privacy explanation without asking",
                                    "Acepta la explicación de privacidad sin preguntar"};
inline constexpr Text kMinutesOption{"Minutes", "Minutos"};
inline constexpr Text kOutputOption{"Output file", "Archivo de salida"};

inline constexpr Text kPrivacy{
    "Insurance mode keeps listening to your microphone and keeps the last minutes of it on this computer "
    "only (in Vell/Insurance under your data folder), so speech a dictation tool missed can be recovered. "
    "Nothing is uploaded unless you ask for it or an agent with your account asks for a stretch. The buffer "
    "is erased when you switch the mode off and whenever Vell quits.",
    "El modo respaldo escucha tu micrófono todo el tiempo y guarda los últimos minutos solo en esta "
    "computadora (en Vell/Insurance dentro de tu carpeta de datos), para recuperar lo que un dictado se "
    "perdió. No se sube nada salvo que lo pidas vos o un agente con tu cuenta pida un tramo. Lo guardado se "
    "borra al desactivar el modo y cada vez que Vell se cierra."};
inline constexpr Text kAcceptQuestion{"Accept and switch on? [y/N] ", "¿Aceptás y lo activás? [s/N] "};
inline constexpr Text kNeedsAcceptance{
    "Insurance mode was not switched on: accept the privacy explanation above (or pass --accept-privacy).",
    "El modo respaldo no se activó: aceptá la explicación de privacidad de arriba (o usá --accept-privacy)."};
inline constexpr Text kNeedsHost{
    "Insurance mode runs inside the Vell host, and none is running. Start it with \"vell daemon\" "
    "(or \"systemctl --user start vell\"), then try again.",
    "El modo respaldo funciona dentro del anfitrión de Vell, y no hay ninguno en marcha. Inicialo con "
    "\"vell daemon\" (o \"systemctl --user start vell\") y probá de nuevo."};
inline constexpr Text kHostNotRunning{"(no Vell host is running: nothing listens until \"vell daemon\" runs)",
                                      "(no hay un anfitrión de Vell en marcha: nada escucha hasta que corra \"vell daemon\")"};
inline constexpr Text kOn{"Insurance mode: on", "Modo respaldo: activado"};
inline constexpr Text kOff{"Insurance mode: off", "Modo respaldo: desactivado"};
inline constexpr Text kLeftoverErased{"The buffer an earlier run left on disk was erased.",
                                      "Se borró el respaldo que una ejecución anterior dejó en el disco."};
inline constexpr Text kListening{"Listening: ", "Escuchando: "};
inline constexpr Text kYes{"yes", "sí"};
inline constexpr Text kNo{"no", "no"};
inline constexpr Text kWindow{"Window: ", "Ventana: "};
inline constexpr Text kMinutes{" min", " min"};
inline constexpr Text kBuffered{"Buffered: ", "Guardado: "};
inline constexpr Text kLastError{"Last error: ", "Último error: "};
inline constexpr Text kWindowKept{"Window kept: ", "Ventana guardada: "};
inline constexpr Text kExported{"Chunks joined: ", "Fragmentos unidos: "};
inline constexpr Text kNothingBuffered{"Nothing is buffered.", "No hay nada guardado."};
inline constexpr Text kRequestsDescription{"List the agent requests for buffered audio answered since the host started",
                                           "Lista los pedidos de audio de agentes respondidos desde que arrancó el anfitrión"};
inline constexpr Text kNoRequests{"No agent request was answered since the host started.",
                                  "No se respondió ningún pedido de agentes desde que arrancó el anfitrión."};
inline constexpr Text kNotReported{" (the service did not get the answer; it will ask again)",
                                   " (el servicio no recibió la respuesta; lo va a pedir de nuevo)"};

}  // namespace vell::cli::insurance_messages
