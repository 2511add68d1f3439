#include "tray/ui_text.h"

#include <QDateTime>
#include <QLocale>
#include <chrono>

#include "tray/tray_messages.h"

namespace vell::tray {

QString elapsedText(double seconds) {
    const long long total = seconds < 0 ? 0 : (long long)seconds;
    const long long h = total / 3600, m = (total / 60) % 60, s = total % 60;
    if (h > 0) return QString("%1:%2:%3").arg(h).arg(m, 2, 10, QChar('0')).arg(s, 2, 10, QChar('0'));
    return QString("%1:%2").arg(m).arg(s, 2, 10, QChar('0'));
}

QString spanText(double seconds) {
    const long long total = seconds < 0 ? 0 : (long long)seconds;
    if (total < 60) return QString("%1 s").arg(total);
    const long long h = total / 3600, m = (total / 60) % 60;
    if (h == 0) return QString("%1 min").arg(m);
    return m == 0 ? QString("%1 h").arg(h) : QString("%1 h %2 min").arg(h).arg(m);
}

QString statusText(const std::string& status) {
    namespace m = messages;
    if (status == "recording") return q(m::kStatusRecording);
    if (status == "ready") return q(m::kStatusReady);
    if (status == "uploading") return q(m::kStatusUploading);
    if (status == "uploaded") return q(m::kStatusUploaded);
    if (status == "failed") return q(m::kStatusFailed);
    if (status == "discarded") return q(m::kStatusDiscarded);
    return q(status);
}

QString dateText(WallTime time) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const auto locale = interfaceLanguage() == Language::Spanish ? QLocale(QLocale::Spanish, QLocale::Argentina)
                                                                 : QLocale(QLocale::English, QLocale::UnitedStates);
    return locale.toString(QDateTime::fromMSecsSinceEpoch(ms), QLocale::ShortFormat);
}

}  // namespace vell::tray
