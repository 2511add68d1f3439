#pragma once
// One Vell icon per session: the first front end of a host listens on a socket in the
// user's runtime folder ($XDG_RUNTIME_DIR/vell-tray, only this user may connect); a front
// end started later hands it the windows to open and ends. GUI thread.
#include <QObject>
#include <QStringList>
#include <functional>
#include <memory>

class QLocalServer;

namespace vell::tray {

class FrontEndClaim : public QObject {
    Q_OBJECT
public:
    using Opener = std::function<void(const QString& window)>;

    // This process is the session's front end (`open` runs for each window a later one
    // asks for, "" for the usual one); nothing when another front end took the session and
    // was handed `windows`, or when there is no runtime folder to meet in.
    static std::unique_ptr<FrontEndClaim> claim(const QStringList& windows, Opener open, bool* handedOver = nullptr);
    ~FrontEndClaim() override;

private:
    FrontEndClaim(QLocalServer* server, Opener open);
    QLocalServer* server_;
    Opener open_;
};

}  // namespace vell::tray
