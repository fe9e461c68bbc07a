#pragma once
// The media players on a session bus (every org.mpris.MediaPlayer2.* name) and their playback state,
// kept current from NameOwnerChanged and PropertiesChanged. Every D-Bus call is asynchronous: a player
// that hangs or floods the bus costs the interface thread a little parsing and never a wait.
//
// Lives on the thread that created it (the interface thread); onChange runs there too.

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <cstdint>
#include <functional>
#include <map>

#include "player/TrackInfo.h"

namespace velquin {

class MprisWatcher : public QObject {
    Q_OBJECT

  public:
    struct Player {
        QString owner;   // unique bus name; empty until known
        QString status;  // "Playing", "Paused", "Stopped" or empty
        TrackInfo track;
        double rate = 1;
        uint64_t startedPlaying = 0;  // order in which players last started playing; 0 = never
    };

    explicit MprisWatcher(QDBusConnection bus, QObject* parent = nullptr);

    // Subscribes to the bus and asks for the players already there.
    void start();

    // The player to follow: of those playing, the one that started most recently; null when none plays.
    const Player* followed() const;
    QString followedName() const;
    const std::map<QString, Player>& players() const { return players_; }

    // Some player's state changed; bursts of changes are reported once, from the event loop.
    std::function<void()> onChange;

  private slots:
    void nameOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner);
    void propertiesChanged(const QDBusMessage& message);

  private:
    void listNames();
    void fetch(const QString& name);
    void apply(Player& player, const QVariantMap& properties);
    void changed();

    QDBusConnection bus_;
    std::map<QString, Player> players_;  // by well-known name
    uint64_t playClock_ = 0;
    bool changePending_ = false;
};

}  // namespace velquin
