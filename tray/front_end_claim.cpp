#include "tray/front_end_claim.h"

#include <QLocalServer>
#include <QLocalSocket>

#include "base/log.h"

namespace vell::tray {

namespace {

const log::Logger kLog("Tray");

QString socketPath() {
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    return runtime.isEmpty() ? QString() : QString::fromLocal8Bit(runtime) + "/vell-tray";
}

// Hands the windows to the front end listening there; false when nobody listens.
bool handOver(const QString& path, const QStringList& windows) {
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(1000)) return false;
    socket.write((windows.isEmpty() ? QStringList{QString()} : windows).join('\n').toUtf8() + '\n');
    socket.waitForBytesWritten(1000);
    socket.disconnectFromServer();
    return true;
}

}  // namespace

FrontEndClaim::FrontEndClaim(QLocalServer* server, Opener open) : server_(server), open_(std::move(open)) {
    server_->setParent(this);
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = server_->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                // A few window names: anything longer is not from a front end of ours.
                if (socket->bytesAvailable() > 4096) return socket->abort();
                while (socket->canReadLine()) {
                    const QString window = QString::fromUtf8(socket->readLine()).trimmed();
                    kLog.info("another start of Vell asked for its window");
                    if (open_) open_(window);
                }
            });
        }
    });
}

FrontEndClaim::~FrontEndClaim() { server_->close(); }

std::unique_ptr<FrontEndClaim> FrontEndClaim::claim(const QStringList& windows, Opener open, bool* handedOver) {
    if (handedOver) *handedOver = false;
    const QString path = socketPath();
    if (path.isEmpty()) {
        kLog.info("no XDG_RUNTIME_DIR: a second front end cannot be told apart");
        return std::unique_ptr<FrontEndClaim>(new FrontEndClaim(new QLocalServer(), std::move(open)));
    }
    if (handOver(path, windows)) {
        if (handedOver) *handedOver = true;
        return nullptr;
    }
    auto* server = new QLocalServer();
    server->setSocketOptions(QLocalServer::UserAccessOption);
    // Nobody answered: a socket left by a front end that crashed.
    QLocalServer::removeServer(path);
    if (!server->listen(path)) kLog.error("cannot listen on " + path.toStdString() + ": " + server->errorString().toStdString());
    return std::unique_ptr<FrontEndClaim>(new FrontEndClaim(server, std::move(open)));
}

}  // namespace vell::tray
