#pragma once
// A media player that does only what a test tells it, on its own connection to a (private) bus.

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QString>
#include <QVariantMap>
#include <mutex>

namespace velquin::test {

// Starts a private session bus for the life of the process; returns its address.
QString privateBusAddress();

class ScriptedPlayer : public QDBusVirtualObject {
  public:
    ScriptedPlayer(const QString& busAddress, const QString& name);
    ~ScriptedPlayer() override;

    // Merges `changed` into the player's properties and announces it with PropertiesChanged.
    void set(const QVariantMap& changed);
    void play(const QString& url, const QString& title = {}, const QString& artist = {});
    // Drops off the bus the way a crashed process does.
    void crash();

    static QVariantMap metadata(const QString& url, const QString& title = {}, const QString& artist = {});

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

  private:
    QString connectionName_;
    QDBusConnection bus_;
    mutable std::mutex mutex_;  // the bus may call handleMessage from its own thread
    QVariantMap properties_;
};

}  // namespace velquin::test
