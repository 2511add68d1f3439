#pragma once
// The tray's pictures, drawn rather than shipped, so they follow the desktop's palette
// (light or dark) and stay sharp at any scale.
#include <QIcon>
#include <QPalette>

namespace vell::tray {

enum class IconState { idle, recording, insurance, uploadTrouble };

// The installed status icon of that name when the icon theme has it (the tray then hands
// the panel a name: StatusNotifierItem's IconName), else the drawn one.
QIcon trayIcon(IconState state, const QPalette& palette);
QString themeName(IconState state);
// The record symbol (a red dot, or the theme's media-record) of the Record buttons.
QIcon recordSymbol();
// A level bar's colour for the recording dot and the trouble badge, readable on both themes.
QColor recordingColor();
QColor troubleColor();

}  // namespace vell::tray
