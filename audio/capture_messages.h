#pragma once
// Every sentence the audio capture shows to people, in both interface languages.
#include "base/language.h"

namespace vell::audio::messages {

inline constexpr Text kSystemDefault{"System default", "Predeterminado del sistema"};
// Followed by the current default device's name and ")".
inline constexpr Text kSystemDefaultWithName{"System default (", "Predeterminado del sistema ("};
inline constexpr Text kBuiltInMicrophone{"Built-in microphone", "Micrófono integrado"};
inline constexpr Text kDisconnectedMicrophone{"Disconnected microphone", "Micrófono desconectado"};
inline constexpr Text kBluetoothNote{"Bluetooth mics switch headphones to call quality",
                                     "Los micrófonos Bluetooth bajan la calidad de los auriculares"};

// Command-line texts.
inline constexpr Text kBadSelection{"Choose default, builtin or uid:<device UID>.",
                                    "Elegí default, builtin o uid:<UID del dispositivo>."};
inline constexpr Text kUIDNotText{"The device UID is not valid UTF-8 text.",
                                  "El UID del dispositivo no es texto UTF-8 válido."};
inline constexpr Text kEmptyUID{"The device UID after \"uid:\" is empty.", "El UID del dispositivo después de \"uid:\" está vacío."};
inline constexpr Text kNoSoundServerRunning{
    "No sound server is running (PipeWire or PulseAudio). Start one (for example: systemctl --user start pipewire-pulse) and try again.",
    "No hay ningún servidor de sonido en marcha (PipeWire o PulseAudio). Iniciá uno (por ejemplo: systemctl --user start pipewire-pulse) y volvé a intentar."};
inline constexpr Text kNoSoundServer{"The sound server is not reachable: ", "No se puede contactar al servidor de sonido: "};
inline constexpr Text kRecordingLabel{"Recording microphone", "Micrófono de grabación"};
inline constexpr Text kInsuranceLabel{"Insurance microphone", "Micrófono del modo respaldo"};
inline constexpr Text kMicrophoneSaved{"Saved.", "Guardado."};
inline constexpr Text kNotConnectedYet{"Note: that microphone is not connected now; the system default is used until it is.",
                                       "Ojo: ese micrófono no está conectado ahora; se usa el predeterminado del sistema hasta que lo esté."};
inline constexpr Text kMicrophoneHeading{"Microphone", "Micrófono"};
inline constexpr Text kSystemAudioHeading{"System audio", "Audio del sistema"};
inline constexpr Text kNotAvailable{"not available: ", "no disponible: "};
inline constexpr Text kFellBack{"(the chosen microphone is missing; using the system default)",
                                "(falta el micrófono elegido; se usa el predeterminado del sistema)"};

inline constexpr Text kDevicesDescription{"List the microphones and what each stored choice opens",
                                          "Lista los micrófonos y qué abre cada elección guardada"};
inline constexpr Text kDevicesJsonOption{"Print the list as JSON", "Muestra la lista en JSON"};
inline constexpr Text kNoMicrophones{"No microphones found.", "No se encontraron micrófonos."};
inline constexpr Text kOpens{"opens", "abre"};
inline constexpr Text kSystemDefaultDevice{"the system default", "el predeterminado del sistema"};
inline constexpr Text kMicDescription{"Choose the microphone for recordings or for insurance mode",
                                      "Elegí el micrófono para las grabaciones o para el modo respaldo"};
inline constexpr Text kMicUseOption{"recording or insurance", "recording o insurance"};
inline constexpr Text kMicChoiceOption{"default, builtin, or a microphone as vell devices lists it (its UID, uid:<UID> or its name)",
                                       "default, builtin, o un micrófono como lo lista vell devices (su UID, uid:<UID> o su nombre)"};
inline constexpr Text kMicShowsChoices{"Without a choice, shows both choices and what each opens.",
                                       "Sin elección, muestra las dos elecciones y qué abre cada una."};
inline constexpr Text kForceOption{"Accept a microphone that is not connected now (the system default is used until it is)",
                                   "Acepta un micrófono que no está conectado ahora (se usa el predeterminado del sistema hasta que lo esté)"};
inline constexpr Text kDeviceOption{"Record from this microphone this time (as vell devices lists it)",
                                   "Graba con este micrófono esta vez (como lo lista vell devices)"};
inline constexpr Text kNoSuchMicrophone{"No microphone is called ", "No hay ningún micrófono llamado "};
inline constexpr Text kNoSuchMicrophoneHint{". vell devices lists them; add --force to choose it anyway.",
                                            ". vell devices los lista; agregá --force para elegirlo igual."};
inline constexpr Text kCannotCheckMicrophone{"The microphone cannot be checked because the sound server is not reachable (add --force to choose it anyway): ",
                                             "No se puede comprobar el micrófono porque no se puede contactar al servidor de sonido (agregá --force para elegirlo igual): "};
inline constexpr Text kMicUseMissingChoice{"Say which microphone: default, builtin or one that vell devices lists.",
                                           "Decí qué micrófono: default, builtin o uno que liste vell devices."};
inline constexpr Text kCannotSave{"The choice could not be saved to ", "No se pudo guardar la elección en "};
inline constexpr Text kCaptureTestDescription{"Open the recording microphone and the system audio and show their levels",
                                              "Abre el micrófono de grabación y el audio del sistema y muestra sus niveles"};
inline constexpr Text kSecondsOption{"How long to measure, in seconds", "Cuánto medir, en segundos"};
inline constexpr Text kNoAudio{"(no audio)", "(sin audio)"};
inline constexpr Text kMicrophoneFailed{"The microphone could not be opened: ", "No se pudo abrir el micrófono: "};

}  // namespace vell::audio::messages
