#pragma once
// Every sentence the audio capture shows to people, in both interface languages.
#include "platform/language.h"

namespace vell::audio::messages {

inline constexpr Text kSystemDefault{"System default", "Predeterminado del sistema"};
// Followed by the current default device's name and ")".
inline constexpr Text kSystemDefaultWithName{"System default (", "Predeterminado del sistema ("};
inline constexpr Text kBuiltInMicrophone{"Mac microphone", "Micrófono de la Mac"};
inline constexpr Text kDisconnectedMicrophone{"Disconnected microphone", "Micrófono desconectado"};
inline constexpr Text kBluetoothNote{"Bluetooth mics switch headphones to call quality",
                                     "Los micrófonos Bluetooth bajan la calidad de los auriculares"};

// Command-line texts.
inline constexpr Text kBadSelection{"Choose default, builtin or uid:<device UID>.",
                                    "Elegí default, builtin o uid:<UID del dispositivo>."};
inline constexpr Text kEmptyUID{"The device UID after \"uid:\" is empty.", "El UID del dispositivo después de \"uid:\" está vacío."};
inline constexpr Text kNoSoundServer{"The sound server is not reachable: ", "No se puede contactar al servidor de sonido: "};
inline constexpr Text kRecordingLabel{"Recording microphone", "Micrófono de grabación"};
inline constexpr Text kInsuranceLabel{"Insurance microphone", "Micrófono del seguro"};
inline constexpr Text kMicrophoneSaved{"Saved.", "Guardado."};
inline constexpr Text kNotConnectedYet{"Note: that microphone is not connected now; the system default is used until it is.",
                                       "Ojo: ese micrófono no está conectado ahora; se usa el predeterminado del sistema hasta que lo esté."};
inline constexpr Text kMicrophoneHeading{"Microphone", "Micrófono"};
inline constexpr Text kSystemAudioHeading{"System audio", "Audio del sistema"};
inline constexpr Text kNotAvailable{"not available: ", "no disponible: "};
inline constexpr Text kFellBack{"(the chosen microphone is missing; using the system default)",
                                "(falta el micrófono elegido; se usa el predeterminado del sistema)"};

}  // namespace vell::audio::messages
