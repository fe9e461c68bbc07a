#include "ScriptedPlayer.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QStringList>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace velquin::test {

namespace {
const QString mprisPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString playerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
}  // namespace

QString privateBusAddress() {
    static pid_t daemon = 0;
    static QString address;
    if (!daemon) {
        // posix_spawn rather than QProcess: Qt's spawn runs the child in this address space until it
        // execs, through intercepted calls, and the race detector then loses this thread's locks.
        int out[2];
        if (pipe(out) != 0) throw std::runtime_error("pipe failed");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        char* argv[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>("--session"),
                        const_cast<char*>("--nofork"), const_cast<char*>("--print-address"), nullptr};
        const int failed = posix_spawnp(&daemon, argv[0], &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        std::string line;
        for (char c = 0; !failed && read(out[0], &c, 1) == 1 && c != '\n';) line += c;
        close(out[0]);
        if (failed || line.empty()) throw std::runtime_error("dbus-daemon did not start");
        std::atexit([] {
            kill(daemon, SIGTERM);
            waitpid(daemon, nullptr, 0);
        });
        address = QString::fromStdString(line).trimmed();
    }
    return address;
}

ScriptedPlayer::ScriptedPlayer(const QString& busAddress, const QString& name)
    : connectionName_(QStringLiteral("scripted-") + name),
      bus_(QDBusConnection::connectToBus(busAddress, connectionName_)) {
    properties_ = {{"PlaybackStatus", "Stopped"}, {"Rate", 1.0}, {"Metadata", QVariantMap()}};
    bus_.registerVirtualObject(mprisPath, this);
    bus_.registerService(QStringLiteral("org.mpris.MediaPlayer2.") + name);
}

ScriptedPlayer::~ScriptedPlayer() {
    crash();
}

void ScriptedPlayer::crash() {
    bus_.unregisterObject(mprisPath);
    bus_ = QDBusConnection(QString());  // the last reference goes, so the socket closes
    QDBusConnection::disconnectFromBus(connectionName_);
}

void ScriptedPlayer::set(const QVariantMap& changed) {
    {
        std::lock_guard lock(mutex_);
        for (auto it = changed.begin(); it != changed.end(); ++it) properties_[it.key()] = it.value();
    }
    auto signal = QDBusMessage::createSignal(mprisPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                             QStringLiteral("PropertiesChanged"));
    signal << playerInterface << changed << QStringList();
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
