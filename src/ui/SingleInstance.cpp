#include "ui/SingleInstance.h"

#include <unistd.h>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>

#include "system/XdgPaths.h"

namespace velquin {
namespace {

constexpr int answerTimeoutMs = 1000;
const QByteArray showRequest = QByteArrayLiteral("show\n");

}  // namespace

SingleInstance::SingleInstance(QString socketPath)
    : path_(socketPath.isEmpty() ? defaultSocketPath() : std::move(socketPath)) {}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::defaultSocketPath() {
    const std::filesystem::path runtime = xdg::runtimeDir();
    if (!runtime.empty()) return QString::fromStdString((runtime / "velquin.socket").string());
    return QDir::tempPath() + QStringLiteral("/velquin-%1.socket").arg(::getuid());
}

bool SingleInstance::claim() {
    QLocalSocket other;
    other.connectToServer(path_);
    if (other.waitForConnected(answerTimeoutMs)) {
        other.write(showRequest);
        other.waitForBytesWritten(answerTimeoutMs);
        other.disconnectFromServer();
        return false;
    }
    // Nobody answers: a socket left by a Velquin that crashed goes.
    QLocalServer::removeServer(path_);
    server_ = std::make_unique<QLocalServer>();
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(path_)) return true;  // still the only one we know of; just unreachable
    connect(server_.get(), &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* peer = server_->nextPendingConnection()) {
            connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
            connect(peer, &QLocalSocket::readyRead, this, [this, peer] {
                if (peer->readAll().contains(showRequest.trimmed()) && onShowRequest) onShowRequest();
            });
        }
    });
    return true;
}

}  // namespace velquin
