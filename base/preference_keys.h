#pragma once
// Every key the application keeps in the user-defaults store, with its type and the value
// that applies when it is absent. Two older keys keep their historical forms.
#include <string_view>

namespace vell::prefs {

// Booleans
inline constexpr std::string_view kShowsDockIcon = "app.quillon.mac.showsDockIcon";                 // true
inline constexpr std::string_view kOpenAtLoginDefaultApplied = "app.quillon.mac.openAtLoginDefaultApplied";  // false
inline constexpr std::string_view kMainWindowFrameReset = "vellMainWindowFrameReset-2026-09-03-two-columns";  // false
inline constexpr std::string_view kOwnershipAdoptionDecided = "vell.pendingRecordings.ownershipAdoptionDecided";  // false
inline constexpr std::string_view kInsuranceEnabled = "app.quillon.mac.insurance.enabled";           // false
inline constexpr std::string_view kInsurancePrivacyAccepted = "app.quillon.mac.insurance.privacyAccepted";  // false
inline constexpr std::string_view kAutoRecordCalls = "app.quillon.mac.autoRecordCalls";              // true
inline constexpr std::string_view kAutoRecordCalendar = "app.quillon.mac.autoRecordCalendar";        // false
inline constexpr std::string_view kMenuBarTipShown = "app.quillon.mac.menuBarTipShown";              // false
// Echo cancellation of the microphone against the system audio while recording.
inline constexpr std::string_view kEchoCancellation = "app.quillon.mac.echoCancellation";            // true

// Text: "default", "builtin" or "uid:" + device UID; absent means the system default.
inline constexpr std::string_view kMicrophoneRecording = "app.quillon.mac.microphone.recording";
inline constexpr std::string_view kMicrophoneInsurance = "app.quillon.mac.microphone.insurance";

// Text: the account the stored session was opened for, so that recordings made before the
// launch check has answered (offline, say) still belong to it; removed at sign-out.
inline constexpr std::string_view kSessionAccountID = "app.quillon.mac.sessionAccountID";

// Integer minutes: 15 when absent or below 1, otherwise clamped to 5...60.
inline constexpr std::string_view kInsuranceWindowMinutes = "app.quillon.mac.insurance.windowMinutes";

// Dictionary from calendar event identifier to date (seconds since 2001-01-01); empty.
inline constexpr std::string_view kCalendarHandledMeetings = "app.quillon.mac.calendarHandledMeetings";
// List of text; empty.
inline constexpr std::string_view kPendingLiveSessionPurges = "app.quillon.mac.pendingLiveSessionPurges";
// List of text: the calendars to read (iCalendar file paths and http(s) URLs); empty.
inline constexpr std::string_view kCalendarSources = "app.quillon.mac.calendarSources";
// List of text: the user's own attendee addresses besides the signed-in email; empty.
inline constexpr std::string_view kCalendarAddresses = "app.quillon.mac.calendarAddresses";

inline constexpr bool kShowsDockIconDefault = true;
inline constexpr bool kAutoRecordCallsDefault = true;
inline constexpr bool kAutoRecordCalendarDefault = false;
inline constexpr bool kEchoCancellationDefault = true;
inline constexpr long long kInsuranceWindowMinutesDefault = 15;

}  // namespace vell::prefs
