#pragma once
// A small stand-in for a panel on the private bus: a StatusNotifierWatcher that records who registers,
// and a host that reads the item and its menu and records the signals they send. It has its own
// connection, and every call waits on the event loop, so the item in the same thread keeps answering.

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include "panel/DBusTypes.h"

namespace velquin::test {

class PanelHost : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

  public:
    PanelHost();
    ~PanelHost() override;

    // Takes or gives up the watcher's name, as a panel starting or quitting does.
    void startWatcher();
    void stopWatcher();

    QDBusMessage call(const QString& service, const QString& path, const QString& interface,
                      const QString& method, const QVariantList& args = {});
    QVariantMap itemProperties(const QString& service);
    panel::MenuLayout layout(const QString& service);
    void click(const QString& service, int id);
    // The item of `node`'s tree with this label, or null.
    static const panel::MenuLayout* find(const panel::MenuLayout& node, const QString& label);
    // Signals received from `service` with this member name, oldest first.
    QList<QDBusMessage> received(const QString& member) const;
    void listenTo(const QString& service);

    QStringList registrations;  // every RegisterStatusNotifierItem argument, in order
    QList<QDBusMessage> signalsSeen;

    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }

  public slots:
    void RegisterStatusNotifierItem(const QString& service);
    void RegisterStatusNotifierHost(const QString&) {}

  private slots:
    void record(const QDBusMessage& message) { signalsSeen << message; }

  private:
    QDBusConnection connection_;
};

}  // namespace velquin::test
