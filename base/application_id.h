#pragma once
// The application's one Linux identity: the desktop entry's name, the Wayland app id, the
// icon, the AppStream component and the notifications' "desktop-entry", so shells and
// notification settings can match them. The session bus names (platform/dbus/
// control_protocol.h) are this id with the interface's version. Stored preference keys,
// queue labels, notification identifiers and the journal's SUBSYSTEM keep their names.
namespace vell {

inline constexpr const char* kApplicationID = "app.quillon.Vell";

}  // namespace vell
