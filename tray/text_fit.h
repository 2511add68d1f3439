#pragma once
// Whether a window shows all of its text: every visible label and button at least as wide
// and as high as its text needs (a wrapped label: as high as its lines at its width). Used
// by the screenshots tool and the tests, which look at every window in both languages at
// 100 % and 200 %. GUI thread.
#include <QStringList>

class QWidget;

namespace vell::tray {

// One line per widget that cuts its text ("settingsWindow/recordCalls QCheckBox 'Record
// calls…' needs 312x22, has 280x22"); empty when everything fits.
QStringList cutTexts(const QWidget* window);

}  // namespace vell::tray
