#pragma once
// The control interface's arguments checked before any service sees them: lengths, ranges,
// counts and forms. Whoever is on the session bus can call the host, so every method's
// arguments pass through here and a refusal is the InvalidArgument error with the sentence.
// Pure functions; any thread (the bus thread decodes, the main executor acts).
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "base/expected.h"
#include "insurance/insurance_recovery_controller.h"
#include "service/account_api.h"

namespace vell::dbus::arguments {

inline constexpr std::size_t kMaximumEmail = 320;
inline constexpr std::size_t kMaximumPassword = 1024;
inline constexpr std::size_t kMaximumCode = 64;
inline constexpr std::size_t kMaximumMicrophone = 1024;
inline constexpr std::size_t kMaximumPath = 4096;
inline constexpr std::size_t kMaximumCalendarSource = 8192;
inline constexpr std::size_t kMaximumRecordingID = 128;
inline constexpr std::size_t kMaximumWindowName = 32;
inline constexpr std::size_t kMaximumSpeakerNames = 16 * 1024;  // the JSON text
inline constexpr std::size_t kMaximumSpeakers = 64;
inline constexpr std::size_t kMaximumSpeakerName = 200;
inline constexpr int kMaximumSpeakerNesting = 4;
inline constexpr int32_t kMaximumMinutes = 24 * 60;

// A refusal: the sentence for the user, in the interface language.
template <class T>
using Checked = Expected<T, std::string>;

// Text of at most `limit` bytes, valid UTF-8, without control characters.
Checked<std::string> text(std::string_view value, std::size_t limit);

Checked<service::MfaAnswer> verifyCode(std::string_view code);  // six digits (spaces aside) or a backup code
Checked<std::string> email(std::string_view value);
Checked<std::string> password(std::string_view value);
Checked<std::string> microphone(std::string_view value);  // "default", "builtin" or "uid:NAME"
Checked<int32_t> minutes(int32_t value);                 // 1 ... a day
Checked<std::string> exportPath(std::string_view value);  // an absolute path
Checked<std::string> calendarSource(std::string_view value);
Checked<std::string> recordingID(std::string_view value);
Checked<std::string> windowName(std::string_view value);  // "" or a window the host can show

struct RecoverChoice {
    insurance::Range range = insurance::Range::lastMinute;
    int minutes = 0;
};
Checked<RecoverChoice> recoverRange(std::string_view range, int32_t minutes);

// {"N": "NAME"}: speaker numbers 1...kMaximumSpeakers to names (an empty one restores the default).
Checked<std::map<int, std::string>> speakerNames(std::string_view json);

}  // namespace vell::dbus::arguments
