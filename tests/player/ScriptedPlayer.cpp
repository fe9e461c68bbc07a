#include "ScriptedPlayer.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QProcess>
#include <QStringList>
#include <cstdlib>
#include <stdexcept>

namespace velquin::test {

namespace {
const QString kPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString kPlayer = QStringLiteral("org.mpris.MediaPlayer2.Player");
}  // namespace

QString privateBusAddress() {
    static QProcess* daemon = nullptr;
    static QString address;
    if (!daemon) {
        // No child-process hook: the child may share this address space until it execs, and
        // instrumented code run there confuses the race detector.
        daemon = new QProcess;
        std::atexit([] {
            daemon->kill();
            daemon->waitForFinished(2000);
        });
        daemon->start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
        if (!daemon->waitForReadyRead(10000)) throw std::runtime_error("dbus-daemon did not start");
        address = QString::fromUtf8(daemon->readLine()).trimmed();
    }
    return address;
}

ScriptedPlayer::ScriptedPlayer(const QString& busAddress, const QString& name)
    : connectionName_(QStringLiteral("scripted-") + name),
      bus_(QDBusConnection::connectToBus(busAddress, connectionName_)) {
    properties_ = {{"PlaybackStatus", "Stopped"}, {"Rate", 1.0}, {"Metadata", QVariantMap()}};
    bus_.registerVirtualObject(kPath, this);
    bus_.registerService(QStringLiteral("org.mpris.MediaPlayer2.") + name);
}

ScriptedPlayer::~ScriptedPlayer() {
    crash();
}

void ScriptedPlayer::crash() {
    bus_.unregisterObject(kPath);
    bus_ = QDBusConnection(QString());  // the last reference goes, so the socket closes
    QDBusConnection::disconnectFromBus(connectionName_);
}

void ScriptedPlayer::set(const QVariantMap& changed) {
    {
        std::lock_guard lock(mutex_);
        for (auto it = changed.begin(); it != changed.end(); ++it) properties_[it.key()] = it.value();
    }
    auto signal = QDBusMessage::createSignal(kPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                             QStringLiteral("PropertiesChanged"));
    signal << kPlayer << changed << QStringList();
    bus_.send(signal);
}

void ScriptedPlayer::play(const QString& url, const QString& title, const QString& artist) {
    set({{"Metadata", metadata(url, title, artist)}, {"PlaybackStatus", "Playing"}});
}

QVariantMap ScriptedPlayer::metadata(const QString& url, const QString& title, const QString& artist) {
    static int serial = 0;
    QVariantMap map{
        {"mpris:trackid", QVariant::fromValue(QDBusObjectPath(QString("/track/%1").arg(++serial)))},
        {"xesam:url", url},
        {"mpris:length", qlonglong(240'000'000)}};
    if (!title.isEmpty()) map["xesam:title"] = title;
    if (!artist.isEmpty()) map["xesam:artist"] = QStringList{artist};
    return map;
}

QString ScriptedPlayer::introspect(const QString&) const {
    return {};
}

bool ScriptedPlayer::handleMessage(const QDBusMessage& message, const QDBusConnection& connection) {
    std::lock_guard lock(mutex_);
    if (message.member() == QLatin1String("GetAll")) {
        connection.send(message.createReply(QVariant(properties_)));
    } else if (message.member() == QLatin1String("Get") && message.arguments().size() == 2) {
        const QVariant value = properties_.value(message.arguments()[1].toString());
        connection.send(message.createReply(QVariant::fromValue(QDBusVariant(value))));
    } else {
        return false;
    }
    return true;
}

}  // namespace velquin::test
