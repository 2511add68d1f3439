#pragma once
// Sentences of the sign-in and upload commands.
#include "app/app_messages.h"
#include "platform/language.h"

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
inline constexpr Text kSignedOut{"Signed out.", "Sesión cerrada."};
inline constexpr Text kNotSignedIn = app::messages::kNotSignedIn;
inline constexpr Text kLogoutNotReached{"The service could not be told; this computer forgot the session anyway.",
                                        "No se pudo avisar al servicio; esta computadora igual olvidó la sesión."};
inline constexpr Text kNothingToUpload{"Nothing to upload.", "No hay nada para subir."};
inline constexpr Text kUploaded{"uploaded", "subida"};
inline constexpr Text kFailed{"failed", "falló"};
// Followed by the counts.
inline constexpr Text kUploadSummary{"Uploaded: ", "Subidas: "};
inline constexpr Text kFailedSummary{", failed: ", ", fallidas: "};

}  // namespace vell::cli::messages
