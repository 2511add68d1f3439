#pragma once
// Which applications count as callers when they use audio: the call hosts (always), the
// tools that hold the microphone without being calls (never: this application, dictation,
// assistants, recorders, audio routing), the system's own processes (never), and on Linux
// the desktop's own audio components (the sound server, its session manager, volume
// meters, speech synthesis). Identifiers are compared in lower case. Pure; any thread.
#include <string>
#include <string_view>

namespace vell::automation {

// This application's own identifier: its streams never count as a call.
inline constexpr std::string_view kOwnBundleID = "app.quillon.mac";

std::string lowercased(std::string_view text);

bool isCallApplication(std::string_view lowercasedID);
bool isIgnoredAudioUser(std::string_view lowercasedID);
// The desktop's own audio plumbing and meters (see README, "Automatic call recording").
bool isDesktopAudioComponent(std::string_view lowercasedID);

// A non-empty identifier (as reported) is a candidate when it names a call application;
// otherwise not when it is a system process, an ignored audio user or a desktop audio
// component; any other application is (an unknown program using the microphone counts).
bool isCallCandidate(std::string_view bundleID);

// The name shown for a caller: the application's own name when it has one, else a fixed
// name for the well-known hosts, else the identifier.
std::string callerDisplayName(std::string_view bundleID, std::string_view applicationName);

}  // namespace vell::automation
