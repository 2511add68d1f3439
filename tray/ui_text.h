#pragma once
// Small helpers the widgets share to turn state into words.
#include <QString>
#include <string>

#include "base/clock.h"
#include "base/language.h"

namespace vell::tray {

inline QString q(const Text& text) { return QString::fromStdString(text.str()); }
inline QString q(const std::string& text) { return QString::fromStdString(text); }

// "0:07", "12:34", "1:02:03".
QString elapsedText(double seconds);
// "45 s", "12 min", "1 h 5 min".
QString spanText(double seconds);
// The status of a pending recording in words.
QString statusText(const std::string& status);
// The local date and time of a recording, short.
QString dateText(WallTime time);

}  // namespace vell::tray
