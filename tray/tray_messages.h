#pragma once
// Every sentence the tray application shows, in both interface languages. Sentences that
// belong to a core layer (the quit alert, the discard panel, insurance recovery, the
// microphone labels, the calendar switch) come from that layer's messages.
#include "base/language.h"

namespace vell::tray::messages {

inline constexpr Text kAppName{"Vell", "Vell"};

// vell-tray --help
inline constexpr Text kUsage{"Usage: vell-tray [--open WINDOW]...", "Uso: vell-tray [--open VENTANA]..."};
inline constexpr Text kAbout{"Vell's icon in the panel, its menu and its windows.",
                             "El ícono de Vell en el panel, su menú y sus ventanas."};
inline constexpr Text kOptionsHeading{"Options:", "Opciones:"};
inline constexpr Text kOpenOption{
    "  --open WINDOW  show a window at start: main, login, settings, recover, onboarding or panel\n"
    "                 (repeatable)",
    "  --open VENTANA muestra una ventana al empezar: main, login, settings, recover, onboarding o panel\n"
    "                 (se puede repetir)"};
inline constexpr Text kHelpOption{"  -h, --help     print this help and exit", "  -h, --help     muestra esta ayuda y sale"};
inline constexpr Text kVersionOption{"  --version      print the version and exit", "  --version      muestra la versión y sale"};
inline constexpr Text kQtOptions{"Qt's own options (such as -platform) are accepted too. See also: vell --help, man vell-tray.",
                                 "También acepta las opciones de Qt (como -platform). Ver también: vell --help, man vell-tray."};

// Icon
inline constexpr Text kTipIdle{"Vell", "Vell"};
inline constexpr Text kTipRecording{"Vell: recording ", "Vell: grabando "};  // + elapsed time
inline constexpr Text kTipInsurance{"Vell: insurance mode is listening", "Vell: el modo respaldo está escuchando"};
inline constexpr Text kTipUploadTrouble{"Vell: a recording could not be uploaded", "Vell: no se pudo subir una grabación"};
// Shown once from the icon, so a user who closed every window knows where Vell went.
inline constexpr Text kMenuBarTipTitle{"Vell is here in the tray", "Vell está acá, en la bandeja"};
inline constexpr Text kMenuBarTipBody{
    "Click the icon to record and see your uploads; right-click it to open Vell, its settings, or quit.",
    "Hacé clic en el ícono para grabar y ver lo que se sube; con clic derecho abrís Vell, su configuración o salís."};

// Menu and panel
inline constexpr Text kRecord{"Record", "Grabar"};
inline constexpr Text kStop{"Stop", "Detener"};
inline constexpr Text kStarting{"Starting…", "Empezando…"};
inline constexpr Text kNotRecording{"Not recording", "Sin grabar"};
inline constexpr Text kRecordingNow{"Recording", "Grabando"};
inline constexpr Text kMicrophone{"Microphone", "Micrófono"};
inline constexpr Text kSystemAudio{"System audio", "Audio del sistema"};
inline constexpr Text kInCall{"In a call: ", "En una llamada: "};  // + the callers
inline constexpr Text kPendingHeading{"Recordings on this computer", "Grabaciones en esta computadora"};
inline constexpr Text kNothingPending{"Nothing waiting to upload.", "No hay nada esperando para subirse."};
inline constexpr Text kRetry{"Retry", "Reintentar"};
inline constexpr Text kUploadNow{"Upload now", "Subir ahora"};
inline constexpr Text kAttempts{" · attempts: ", " · intentos: "};
inline constexpr Text kUndoDiscard{"Undo discard", "Deshacer descarte"};
inline constexpr Text kInsuranceMode{"Insurance mode", "Modo respaldo"};
inline constexpr Text kBuffered{"Kept: ", "Guardado: "};  // + span
inline constexpr Text kNotListening{"Not listening", "Sin escuchar"};
inline constexpr Text kListeningOn{"Listening on ", "Escuchando en "};  // + device
inline constexpr Text kRecoverSpeech{"Recover speech…", "Recuperar voz…"};
inline constexpr Text kSignedInAs{"Signed in as ", "Sesión iniciada como "};  // + email
inline constexpr Text kNotSignedIn{"Not signed in: recordings wait on this computer",
                                   "Sin sesión: las grabaciones esperan en esta computadora"};
inline constexpr Text kCheckingSession{"Checking your session…", "Comprobando tu sesión…"};
inline constexpr Text kCodeAsked{"Waiting for your two-step code", "Esperando tu código de verificación"};
inline constexpr Text kSignInEllipsis{"Sign in…", "Iniciar sesión…"};
inline constexpr Text kSignOut{"Sign out", "Cerrar sesión"};
inline constexpr Text kOpenVell{"Open Vell", "Abrir Vell"};
inline constexpr Text kSettingsEllipsis{"Settings…", "Configuración…"};
inline constexpr Text kQuitVell{"Quit Vell", "Salir de Vell"};
// Quitting a front end while its host (vell daemon) records.
inline constexpr Text kHostRecordingQuit{"Vell is recording in the background.", "Vell está grabando en segundo plano."};
inline constexpr Text kHostRecordingQuitInformative{
    "Stop the recording and quit Vell, or close only this window and its icon: the recording goes on, and the saved part "
    "uploads when Vell can connect.",
    "Detené la grabación y salí de Vell, o cerrá solo esta ventana y su ícono: la grabación sigue, y lo guardado se sube "
    "cuando Vell pueda conectarse."};
inline constexpr Text kCloseOnly{"Close only the window", "Cerrar solo la ventana"};
inline constexpr Text kFrontEndOf{"Connected to the Vell that is already running",
                                  "Conectado al Vell que ya está en marcha"};

// Statuses of a recording
inline constexpr Text kStatusRecording{"Recording", "Grabando"};
inline constexpr Text kStatusReady{"Waiting to upload", "Esperando para subir"};
inline constexpr Text kStatusUploading{"Uploading", "Subiendo"};
inline constexpr Text kStatusUploaded{"Uploaded", "Subida"};
inline constexpr Text kStatusFailed{"Upload failed", "Falló la subida"};
inline constexpr Text kStatusDiscarded{"Discarded", "Descartada"};

// Sign-in window
inline constexpr Text kSignInTitle{"Sign in to Vell", "Iniciar sesión en Vell"};
inline constexpr Text kSignInIntro{"Sign in to upload your recordings and see their summaries.",
                                   "Iniciá sesión para subir tus grabaciones y ver sus resúmenes."};
inline constexpr Text kEmail{"Email", "Correo electrónico"};
inline constexpr Text kPassword{"Password", "Contraseña"};
inline constexpr Text kSignIn{"Sign in", "Iniciar sesión"};
inline constexpr Text kSigningIn{"Signing in…", "Iniciando sesión…"};
inline constexpr Text kTwoStepTitle{"Two-step verification", "Verificación en dos pasos"};
inline constexpr Text kTwoStepIntro{"Enter the 6-digit code from your authenticator app.",
                                    "Ingresá el código de 6 dígitos de tu app de autenticación."};
inline constexpr Text kBackupIntro{"Enter one of your backup codes. Each one works once.",
                                   "Ingresá uno de tus códigos de respaldo. Cada uno sirve una sola vez."};
inline constexpr Text kCode{"Code", "Código"};
inline constexpr Text kBackupCode{"Backup code", "Código de respaldo"};
inline constexpr Text kUseBackupCode{"Use a backup code instead", "Usar un código de respaldo"};
inline constexpr Text kUseAuthenticator{"Use the code from my app", "Usar el código de mi app"};
inline constexpr Text kVerify{"Verify", "Verificar"};
inline constexpr Text kVerifying{"Verifying…", "Verificando…"};
inline constexpr Text kBack{"Back", "Atrás"};
inline constexpr Text kCancel{"Cancel", "Cancelar"};
inline constexpr Text kClose{"Close", "Cerrar"};
inline constexpr Text kFillBoth{"Enter your email and password.", "Ingresá tu correo y tu contraseña."};
inline constexpr Text kEnterCode{"Enter the code.", "Ingresá el código."};
inline constexpr Text kSignedInDone{"You're signed in.", "Ya iniciaste sesión."};

// Settings window
inline constexpr Text kSettingsTitle{"Vell Settings", "Configuración de Vell"};
inline constexpr Text kGeneral{"General", "General"};
inline constexpr Text kShowInTaskSwitcher{"Show Vell in the task switcher", "Mostrar Vell en el selector de tareas"};
inline constexpr Text kShowInTaskSwitcherNote{"Off: Vell shows up there only while one of its windows is open.",
                                              "Desactivado: Vell aparece ahí solo mientras tenga una ventana abierta."};
inline constexpr Text kOpenAtLogin{"Open Vell at login", "Abrir Vell al iniciar sesión"};
inline constexpr Text kLoginEnabled{"Vell opens when you log in.", "Vell se abre cuando iniciás sesión."};
inline constexpr Text kLoginOff{"Vell does not open by itself.", "Vell no se abre solo."};
inline constexpr Text kLoginMissing{"The start-up entry points to a program that is gone; switch it off and on.",
                                    "La entrada de inicio apunta a un programa que ya no está; desactivala y activala."};
inline constexpr Text kLoginApproval{"Waiting for approval in the system settings.",
                                     "Esperando la aprobación en la configuración del sistema."};
inline constexpr Text kLanguage{"Language", "Idioma"};
inline constexpr Text kLanguageSystem{"As the system", "Como el sistema"};
inline constexpr Text kLanguageEnglish{"English", "English"};
inline constexpr Text kLanguageSpanish{"Español (Rioplatense)", "Español (rioplatense)"};
inline constexpr Text kMicrophones{"Microphones", "Micrófonos"};
inline constexpr Text kForRecordings{"For recordings", "Para las grabaciones"};
inline constexpr Text kForInsurance{"For insurance mode", "Para el modo respaldo"};
inline constexpr Text kHostKeepsThis{"The Vell that is running keeps this setting; change it there.",
                                     "El Vell que está en marcha guarda esta opción; cambiala ahí."};
inline constexpr Text kKeepInsurance{"Keep the last minutes of the microphone on this computer",
                                     "Guardar los últimos minutos del micrófono en esta computadora"};
inline constexpr Text kInsuranceWindow{"Minutes to keep", "Minutos a guardar"};
inline constexpr Text kMinutesSuffix{" min", " min"};
inline constexpr Text kAutomatic{"Automatic recording", "Grabación automática"};
inline constexpr Text kRecordCalls{"Record calls automatically", "Grabar llamadas automáticamente"};
inline constexpr Text kRecordCallsExplanation{
    "Starts when a call application uses the microphone and plays sound, and stops when the call is over.",
    "Empieza cuando una aplicación de llamadas usa el micrófono y reproduce sonido, y se detiene cuando termina la llamada."};
inline constexpr Text kCalendars{"Calendars (iCalendar files or addresses)", "Calendarios (archivos iCalendar o direcciones)"};
inline constexpr Text kCalendarPlaceholder{"https://… or /path/to/calendar.ics", "https://… o /ruta/al/calendario.ics"};
inline constexpr Text kAdd{"Add", "Agregar"};
inline constexpr Text kRemove{"Remove", "Quitar"};
inline constexpr Text kNoCalendars{"No calendar added yet.", "Todavía no agregaste ningún calendario."};

// Recover window
inline constexpr Text kRecoverTitle{"Recover speech", "Recuperar voz"};
inline constexpr Text kRecoverIntro{"Turn the last minutes insurance mode kept into text.",
                                    "Convertí en texto los últimos minutos que guardó el modo respaldo."};
inline constexpr Text kRange{"Range", "Rango"};
inline constexpr Text kLastMinute{"Last minute", "Último minuto"};
inline constexpr Text kLastFive{"Last 5 minutes", "Últimos 5 minutos"};
inline constexpr Text kCustom{"Custom", "Personalizado"};
inline constexpr Text kEverything{"Everything kept", "Todo lo guardado"};
inline constexpr Text kTranscribing{"Transcribing…", "Transcribiendo…"};
inline constexpr Text kPlay{"Play", "Reproducir"};
inline constexpr Text kPause{"Pause", "Pausar"};
inline constexpr Text kCopy{"Copy", "Copiar"};
inline constexpr Text kNoPlayback{"Playing back is not offered by this Vell.", "Este Vell no ofrece reproducir."};
inline constexpr Text kInsuranceOff{"Insurance mode is off: nothing is kept to recover.",
                                    "El modo respaldo está desactivado: no hay nada guardado para recuperar."};

// Onboarding window
inline constexpr Text kWelcomeTitle{"Welcome to Vell", "Te damos la bienvenida a Vell"};
inline constexpr Text kWelcomeIntro{
    "Vell records your conversations on this computer and turns them into summaries, transcripts and cues.",
    "Vell graba tus conversaciones en esta computadora y las convierte en resúmenes, transcripciones y consejos."};
inline constexpr Text kMicrophoneAccess{"Microphone access", "Acceso al micrófono"};
inline constexpr Text kMicrophoneAccessIntro{
    "Vell records your microphone and, during calls, the sound this computer plays.",
    "Vell graba tu micrófono y, en las llamadas, el sonido que reproduce esta computadora."};
inline constexpr Text kMicrophoneFound{"Microphone ready: ", "Micrófono listo: "};  // + name
inline constexpr Text kNoMicrophone{"No microphone found. Connect one or check the sound settings.",
                                    "No se encontró ningún micrófono. Conectá uno o revisá la configuración de sonido."};
inline constexpr Text kCheckAgain{"Check again", "Volver a comprobar"};
inline constexpr Text kInsurancePrivacy{
    "Insurance mode keeps listening to your microphone and keeps the last minutes of it on this computer only, "
    "so speech a dictation tool missed can be recovered. Nothing is uploaded unless you ask for it or an agent "
    "with your account asks for a stretch. What it keeps is erased when you switch it off and whenever Vell quits.",
    "El modo respaldo escucha tu micrófono todo el tiempo y guarda los últimos minutos solo en esta computadora, "
    "para recuperar lo que un dictado se perdió. No se sube nada salvo que lo pidas vos o un agente con tu cuenta "
    "pida un tramo. Lo guardado se borra al desactivarlo y cada vez que Vell se cierra."};
inline constexpr Text kAcceptInsurance{"I understand: switch insurance mode on", "Entiendo: activar el modo respaldo"};
inline constexpr Text kOpenAtLoginIntro{"Vell works best when it is always there, ready to record.",
                                        "Vell funciona mejor si está siempre ahí, listo para grabar."};
inline constexpr Text kNext{"Next", "Siguiente"};
inline constexpr Text kDone{"Done", "Listo"};
inline constexpr Text kStepOf{"Step %1 of %2", "Paso %1 de %2"};

// Main window
inline constexpr Text kRecordings{"Recordings", "Grabaciones"};
inline constexpr Text kColumnStarted{"Started", "Inicio"};
inline constexpr Text kColumnLength{"Length", "Duración"};
inline constexpr Text kColumnStatus{"Status", "Estado"};
inline constexpr Text kColumnError{"Last error", "Último error"};
inline constexpr Text kNoRecordings{"No recordings on this computer yet. Press Record to make one.",
                                    "Todavía no hay grabaciones en esta computadora. Tocá Grabar para hacer una."};

inline constexpr Text kTabOnThisComputer{"On this computer", "En esta computadora"};
inline constexpr Text kTabResults{"Results", "Resultados"};
inline constexpr Text kTabLive{"Live", "En vivo"};

// Results of the recordings
inline constexpr Text kRefresh{"Refresh", "Actualizar"};
inline constexpr Text kLoadingRecordings{"Asking the service for your recordings…", "Pidiéndole tus grabaciones al servicio…"};
inline constexpr Text kNoResults{"No recordings on the service yet. Once one is uploaded, what came of it shows here.",
                                 "Todavía no hay grabaciones en el servicio. Cuando se sube una, lo que salió de ella aparece acá."};
inline constexpr Text kResultsUnavailable{"Recording results are not available yet. Try again in a moment.",
                                          "Los resultados de las grabaciones todavía no están disponibles. Probá de nuevo en un momento."};
inline constexpr Text kOfflineCopyNote{" · copy on this computer", " · copia en esta computadora"};
inline constexpr Text kChooseRecording{"Choose a recording to see its summary, transcript and cues.",
                                       "Elegí una grabación para ver su resumen, su transcripción y sus consejos."};
inline constexpr Text kLoadingResult{"Loading this recording's results…", "Cargando los resultados de esta grabación…"};
inline constexpr Text kSummary{"Summary", "Resumen"};
inline constexpr Text kTranscript{"Transcript", "Transcripción"};
inline constexpr Text kCues{"Cues", "Consejos"};
inline constexpr Text kNoTranscript{"Nothing was recognised, so there is no transcript.",
                                    "No se reconoció nada, así que no hay transcripción."};
inline constexpr Text kNoCues{"No cues for this recording.", "No hay consejos para esta grabación."};
inline constexpr Text kRenameSpeakers{"Rename speakers…", "Renombrar participantes…"};
inline constexpr Text kRenameTitle{"Rename speakers", "Renombrar participantes"};
inline constexpr Text kRenameIntro{"An empty name brings back the default one.", "Un nombre vacío vuelve al nombre original."};
inline constexpr Text kSave{"Save", "Guardar"};
inline constexpr Text kRenaming{"Renaming…", "Renombrando…"};
inline constexpr Text kRenamed{"Speakers renamed.", "Participantes renombrados."};
inline constexpr Text kShare{"Share", "Compartir"};
inline constexpr Text kSharing{"Creating the link…", "Creando el enlace…"};
inline constexpr Text kLinkCopied{"Link copied: ", "Enlace copiado: "};                                    // + link
inline constexpr Text kLinkNotCopied{"The link could not be copied; here it is: ", "No se pudo copiar el enlace; acá está: "};  // + link

// Live advice
inline constexpr Text kLiveIdle{"Cues show up here while a recording runs, as the service hears the conversation.",
                                "Los consejos aparecen acá mientras se graba, a medida que el servicio escucha la conversación."};
inline constexpr Text kLiveListening{"Listening… the first cues come once the service has heard a little of the conversation.",
                                     "Escuchando… los primeros consejos llegan cuando el servicio escuchó un poco de la conversación."};
inline constexpr Text kLiveOff{"No live advice for this recording (it needs a signed-in session). The recording goes on.",
                               "No hay consejos en vivo para esta grabación (hace falta una sesión iniciada). La grabación sigue."};
inline constexpr Text kLastAdvice{"The advice of the last recording.", "Los consejos de la última grabación."};
inline constexpr Text kFilterCues{"Filter the cues", "Filtrar los consejos"};
inline constexpr Text kNoCuesYet{"No cues yet.", "Todavía no hay consejos."};
inline constexpr Text kNoMatchingCues{"No cue matches the filter.", "Ningún consejo coincide con el filtro."};

// Start-up
inline constexpr Text kCannotStart{"Vell could not start", "Vell no pudo iniciarse"};

}  // namespace vell::tray::messages
