#pragma once
// The help screens: the program's own options, the account commands' descriptions and the
// words of the help layout, in both languages.
#include "base/language.h"

namespace vell::cli::help {

inline constexpr Text kProgram{"Vell records conversations on this computer and hands them to the Vell service.",
                               "Vell graba conversaciones en esta computadora y se las pasa al servicio de Vell."};
inline constexpr Text kVerbose{"More diagnostic output (repeat for debug lines)",
                               "Más información de diagnóstico (repetí la opción para ver la depuración)"};
inline constexpr Text kLanguage{"Interface language: en or es (default: from the environment)",
                                "Idioma de la interfaz: en o es (si no, el del entorno)"};
inline constexpr Text kLogStderr{"Write diagnostics to standard error instead of the journal",
                                 "Escribe el diagnóstico en la salida de errores en vez del journal"};
inline constexpr Text kHelp{"Print this help message and exit", "Muestra esta ayuda y sale"};
inline constexpr Text kVersion{"Display program version information and exit", "Muestra la versión del programa y sale"};

inline constexpr Text kLogin{"Sign in to the Vell service (password from the terminal or standard input)",
                             "Inicia sesión en el servicio de Vell (contraseña desde la terminal o la entrada estándar)"};
inline constexpr Text kLoginEmail{"Account email (asked when missing)", "Email de la cuenta (se pide si falta)"};
inline constexpr Text kLogout{"Sign out and forget the stored session", "Cierra la sesión y olvida la sesión guardada"};
inline constexpr Text kUpload{"Upload the pending recordings of the signed-in account now",
                              "Sube ahora las grabaciones pendientes de la cuenta con sesión iniciada"};
inline constexpr Text kWhoami{"Show the signed-in account (exit status 3 when signed out)",
                              "Muestra la cuenta con sesión iniciada (sale con 3 si no hay sesión)"};
inline constexpr Text kDaemon{"Run the Vell host: records, uploads and automates in the background and serves the "
                              "other commands (started by the session with \"systemctl --user enable --now vell\")",
                              "Ejecuta el anfitrión de Vell: graba, sube y automatiza en segundo plano y atiende a los "
                              "demás comandos (la sesión lo inicia con \"systemctl --user enable --now vell\")"};
inline constexpr Text kStop{"Stop the recording in progress (of the running host or of a \"vell record\")",
                            "Detiene la grabación en curso (del anfitrión o de un \"vell record\")"};
inline constexpr Text kStopDiscard{"Discard it instead of keeping it for upload", "Descartarla en vez de guardarla para subir"};
inline constexpr Text kStatus{"Show what Vell is doing: sign-in, recording, elapsed time and levels",
                              "Muestra qué está haciendo Vell: sesión, grabación, tiempo y niveles"};
inline constexpr Text kJson{"Print JSON", "Imprime JSON"};
inline constexpr Text kWatch{"Keep printing every second until Ctrl-C", "Sigue imprimiendo cada segundo hasta Ctrl-C"};
inline constexpr Text kQuiet{"Print results and errors only: no hints, no progress",
                             "Muestra solo resultados y errores: sin avisos ni progreso"};
inline constexpr Text kHelpCommand{"Show the help of vell or of one command", "Muestra la ayuda de vell o de un comando"};
inline constexpr Text kHelpCommandName{"The command", "El comando"};
inline constexpr Text kExitCodes{
    "Exit status: 0 success, 1 failure, 2 wrong usage, 3 signed out, 4 another Vell owns the data folder.",
    "Código de salida: 0 éxito, 1 falla, 2 uso incorrecto, 3 sin sesión, 4 otro Vell usa la carpeta de datos."};
// Followed by the word that is not a command.
inline constexpr Text kUnknownCommand{"not a vell command: ", "no es un comando de vell: "};
inline constexpr Text kUnknownOption{"unknown option: ", "opción desconocida: "};
inline constexpr Text kSimilarCommand{"The most similar command is", "El comando más parecido es"};
inline constexpr Text kSimilarCommands{"The most similar commands are", "Los comandos más parecidos son"};
inline constexpr Text kDidYouMean{"Did you mean this?", "¿Quisiste decir esto?"};
inline constexpr Text kDidYouMeanOneOf{"Did you mean one of these?", "¿Quisiste decir alguno de estos?"};
inline constexpr Text kSeeHelp{"Run \"vell --help\" to see the commands.", "Ejecutá \"vell --help\" para ver los comandos."};
inline constexpr Text kRunWithHelp{"Run with --help for more information.", "Ejecutá con --help para más información."};

// Headings and markers of the help layout.
inline constexpr Text kUsage{"Usage", "Uso"};
inline constexpr Text kOptionsMarker{"OPTIONS", "OPCIONES"};
inline constexpr Text kOptions{"Options", "Opciones"};
inline constexpr Text kSubcommandMarker{"SUBCOMMAND", "COMANDO"};
inline constexpr Text kSubcommandsMarker{"SUBCOMMANDS", "COMANDOS"};
inline constexpr Text kSubcommands{"Subcommands", "Comandos"};
inline constexpr Text kPositionals{"Positionals", "Posicionales"};
inline constexpr Text kRequired{"REQUIRED", "OBLIGATORIO"};
inline constexpr Text kNeeds{"Needs", "Necesita"};
inline constexpr Text kExcludes{"Excludes", "Excluye"};

}  // namespace vell::cli::help
