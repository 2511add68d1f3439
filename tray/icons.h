#pragma once
// The tray's pictures, drawn rather than shipped, so they follow the desktop's palette
// (light or dark) and stay sharp at any scale.
#include <QIcon>
#include <QPalette>

namespace vell::tray {

enum class IconState { idle, recording, insurance, uploadTrouble };

QIcon trayIcon(IconState state, const QPalette& palette);
// A level bar's colour for the recording dot and the trouble badge, readable on both themes.
QColor recordingColor();
QColor troubleColor();

}  // namespace vell::tray
