#pragma once
// The host's control interface on the session bus: one object that front ends (the command
// line, the tray) use when a host owns the data folder. Versioned: a change that breaks
// clients gets a new name.
//
// Properties (PropertiesChanged is emitted on every change):
//   Phase s ("launching", "signedOut", "mfaRequired", "signedIn"), UserEmail s, UserID s,
//   Recording b, RecordingID s, Elapsed d (seconds), MicrophoneLevel d, SystemLevel d
//   (peak since the last tick, 0...1), MicrophoneDropped d, SystemDropped d (seconds of audio
//   the last recording dropped because the stream came faster than real time), LastError s,
//   MeetingTitle s (the calendar meeting the recording was started for, empty when none)
// Signals: PendingChanged ()
// Methods (errors carry the user-facing sentence in the interface language; an argument out of
// its bounds, see control_arguments.h, is refused with InvalidArgument before anything runs):
//   Pending () -> s                 the pending list, JSON as stored in manifest.json
//   Upload () -> s                  one pass now: {"uploaded","failed","unauthenticated",
//                                   "attempts":[{"file","recordingId"} | {"file","error"}]}
//   StartRecording () -> (s id, s file)
//   StartRecordingOn (s microphone) -> (s id, s file)   this recording only from "default",
//                                   "builtin" or "uid:NAME" (a missing device: the default)
//   StopRecording (b discard) -> s  the stopped recording's entry, JSON, with "savedSeconds"
//                                   (the audio the file holds)
//   SignIn (s email, s password) -> s  "signedIn" or "mfaRequired"
//   VerifyCode (s code)             six digits: a time-based code; else a backup code
//   SignOut ()
//   WhoAmI () -> s                  {"id","email","role","isAdmin"}, checked with the service
//   Quit ()                         stop and quit
//   InsuranceStatus () -> s         {"enabled","privacyAccepted","listening","windowMinutes",
//                                   "device","lastError","bufferedFrom","bufferedTo" (ms since
//                                   1970),"bufferedSeconds","bytes","chunks","agentRequests"
//                                   (the newest 5 of InsuranceRequests, same fields)}
//   InsuranceEnable () -> s         accepts the privacy explanation, switches on, answers the
//                                   status once the microphone start has finished (<= 3 s)
//   InsuranceDisable () -> s        switches off and erases the buffer; the status
//   InsuranceSetWindow (i minutes) -> i   the value kept (clamped to 5...60; below 1: 15)
//   InsuranceChunks () -> s         [{"file","start","end","activity","bytes","open"}]
//   InsuranceExport (i minutes, s path) -> i   seals, then joins the sealed chunks of the
//                                   last minutes into path; the number of chunks joined
//   CallsStatus () -> s             the automatic call recorder: {"enabled","monitoring",
//                                   "activeCallers","callers":[{"bundleID","displayName",
//                                   "isRunningOutput","outputKnown"}],"presence",
//                                   "startEligible","callEnded","state":{...},"offer":{...}}
//   SetCallsEnabled (b) -> s        the "Record calls automatically" switch; the new status
// Property ActiveCallers as: the display names of the callers seen by the latest poll (read
// on demand; not announced).
//   CalendarAdd (s source) -> s     an iCalendar file or http(s)/webcal address; the stored form
//   CalendarRemove (s source) -> s  by stored form or 1-based position; the removed source
//   CalendarSetEnabled (b)          record calendar meetings on or off
//   CalendarReport (b upcoming) -> s  {"enabled","access","sources":[...],"upcoming":[...],
//                                   "recordingMeeting","undo":{"takeID","meeting","reason",
//                                   "secondsLeft"} or {}}
//   Undo () -> s                    restores the latest discard: {"takeID","meeting"}
// Property MicrophoneFellBack b: the running recording records the system default because
// the chosen microphone is not connected (announced when it changes).
//   EchoCancelStatus () -> s        echo cancellation of the recording's microphone:
//                                   {"enabled","state" (idle, active, bypassed, off),"reason"
//                                   (headphones, headset, bluetooth, silence, noSystemAudio,
//                                   unavailable),"output":{"device","port","kind"},"erleDb","delayMs"}
//   SetEchoCancelEnabled (b) -> s   the "Cancel echo" switch (stored, and applied to a running
//                                   recording at once); the new status
//   RecoverStart (s range, i minutes) -> i   starts a recovery run over "minute", "five",
//                                   "custom" (with minutes) or "all"; the run number, 0 when
//                                   nothing is buffered in that range; SignedOut error when
//                                   nobody is signed in
//   RecoverProgress (i run) -> s    {"run","phase" (idle|transcribing|improving|failed, or
//                                   "stale" once a later run replaced it),"text","display"
//                                   (the draft behind "Improving… · "),"message","transcript"
//                                   {"text","fromMs","toMs"} once final}
//                                   also "playing","position" (s),"copyConfirmation"
//   RecoverPlay () -> s             plays the preview of the selection through the sound
//                                   server: {"playing","message" (why not)}
//   RecoverStopPlaying ()           stops the preview; its file is removed
//   RecoverCopy () -> s             copies the text: {"copied","confirmation","problem" (why
//                                   nothing can be copied here, when so)}
//   InsuranceRequests () -> s       the agent requests answered since the host started (the
//                                   newest 100): [{"id","fromMs","toMs","status",
//                                   "recordingId"?,"error"?,"sentFromMs"?,"sentToMs"?,
//                                   "sentSeconds"? (what an upload sent),"reported",
//                                   "answeredAtMs"}]
//   LiveAdvice () -> s              the running recording's live advice: {"sessionId","tiles",
//                                   "message","segmentsSent","segmentsDropped","segmentsWaiting",
//                                   "closed"}
//   Recordings () -> s              the account's recordings with their processing state, each
//                                   with "offline" (why the copy kept here is shown) or null
//   RecordingDetail (s id) -> s     one recording's summary, transcript, speakers and cues
//   RenameSpeakers (s id, s names) -> s   names {"N": "NAME"}; the recording afterwards
//   ShareRecording (s id) -> s      the link to its summary and transcript
//                                   (details in control_results.cpp)
//   Reopen (s window) -> b          a second start of the desktop application: the host shows
//                                   that window ("" the appropriate one); false without windows
#include <string_view>

namespace vell::dbus {

inline constexpr const char* kControlName = "app.quillon.Vell1";
inline constexpr const char* kControlPath = "/app/quillon/Vell1";
inline constexpr const char* kControlInterface = "app.quillon.Vell1";

namespace errors {
inline constexpr const char* kFailed = "app.quillon.Vell1.Error.Failed";
inline constexpr const char* kSignedOut = "app.quillon.Vell1.Error.SignedOut";
inline constexpr const char* kNotRecording = "app.quillon.Vell1.Error.NotRecording";
// An argument out of its length, range or form (the message says which bound).
inline constexpr const char* kInvalidArgument = "app.quillon.Vell1.Error.InvalidArgument";
}  // namespace errors

}  // namespace vell::dbus
