#pragma once
// Sentences of the sign-in and upload commands.
#include "app/app_messages.h"
#include "base/language.h"

namespace vell::cli::messages {

inline constexpr Text kEmailPrompt{"Email: ", "Email: "};
inline constexpr Text kPasswordPrompt{"Password: ", "Contraseña: "};
inline constexpr Text kCodePrompt{"Two-step code (or a backup code): ", "Código de verificación (o un código de respaldo): "};
inline constexpr Text kMissingEmail{"An email address is needed to sign in.", "Hace falta un email para iniciar sesión."};
inline constexpr Text kMissingPassword{"A password is needed to sign in.", "Hace falta una contraseña para iniciar sesión."};
inline constexpr Text kMissingCode{"The two-step code is needed to finish signing in.",
                                   "Hace falta el código de verificación para terminar de iniciar sesión."};
// Followed by the account's email and a period.
inline constexpr Text kSignedInAs{"Signed in as ", "Sesión iniciada como "};
// After kSignedInAs: the session could not be stored (the reason is in the log).
inline constexpr Text kSessionNotStored{
    "The session could not be stored on this computer, so the next command will be signed out. Check that the "
    "data folder can be written and that the session file is a plain file.",
    "No se pudo guardar la sesión en esta computadora, así que el próximo comando no va a tener la sesión iniciada. "
    "Revisá que se pueda escribir en la carpeta de datos y que el archivo de sesión sea un archivo común."};
inline constexpr Text kSignedOut{"Signed out.", "Sesión cerrada."};
inline constexpr Text kNotSignedIn = app::messages::kNotSignedIn;
inline constexpr Text kLogoutNotReached{"The service could not be told; this computer forgot the session anyway.",
                                        "No se pudo avisar al servicio; esta computadora igual olvidó la sesión."};
// Followed by the system's reason and kUploadStoppedEnd.
inline constexpr Text kUploadStopped{"The upload stopped because Vell could not save its records on this computer (",
                                     "La subida se detuvo porque Vell no pudo guardar sus registros en esta computadora ("};
inline constexpr Text kUploadStoppedEnd{"). Free some space and run \"vell upload\" again.",
                                        "). Liberá espacio y volvé a ejecutar \"vell upload\"."};
inline constexpr Text kNothingToUpload{"Nothing to upload.", "No hay nada para subir."};
inline constexpr Text kUploaded{"uploaded", "subida"};
inline constexpr Text kLeft{"left", "restante"};
inline constexpr Text kFailed{"failed", "falló"};
// Followed by the counts.
inline constexpr Text kUploadSummary{"Uploaded: ", "Subidas: "};
inline constexpr Text kFailedSummary{", failed: ", ", fallidas: "};

}  // namespace vell::cli::messages
