#include "PanelHost.h"

#include <QDBusArgument>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QTest>

namespace velquin::test {

namespace {
const QString watcherName = QStringLiteral("org.kde.StatusNotifierWatcher");
}

PanelHost::PanelHost()
    : connection_(
          QDBusConnection::connectToBus(qgetenv("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("host"))) {
    panel::registerDBusTypes();
}

PanelHost::~PanelHost() {
    stopWatcher();
    QDBusConnection::disconnectFromBus(QStringLiteral("host"));
}

void PanelHost::startWatcher() {
    connection_.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                               QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties);
    connection_.registerService(watcherName);
}

void PanelHost::stopWatcher() {
    connection_.unregisterService(watcherName);
    connection_.unregisterObject(QStringLiteral("/StatusNotifierWatcher"));
}

void PanelHost::RegisterStatusNotifierItem(const QString& service) {
    registrations << service;
}

QDBusMessage PanelHost::call(const QString& service, const QString& path, const QString& interface,
                             const QString& method, const QVariantList& args) {
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(args);
    QDBusPendingCall pending = connection_.asyncCall(message, 5000);
    (void)QTest::qWaitFor([&] { return pending.isFinished(); }, 6000);
    return pending.reply();
}

QVariantMap PanelHost::itemProperties(const QString& service) {
    const QDBusMessage reply = call(service, QStringLiteral("/StatusNotifierItem"),
                                    QStringLiteral("org.freedesktop.DBus.Properties"),
                                    QStringLiteral("GetAll"), {QStringLiteral("org.kde.StatusNotifierItem")});
    if (reply.type() != QDBusMessage::ReplyMessage) return {};
    return qdbus_cast<QVariantMap>(reply.arguments().value(0));
}

panel::MenuLayout PanelHost::layout(const QString& service) {
    const QDBusMessage reply =
        call(service, QStringLiteral("/MenuBar"), QStringLiteral("com.canonical.dbusmenu"),
             QStringLiteral("GetLayout"), {0, -1, QStringList()});
    panel::MenuLayout result;
    if (reply.type() == QDBusMessage::ReplyMessage)
        reply.arguments().value(1).value<QDBusArgument>() >> result;
    return result;
}

void PanelHost::click(const QString& service, int id) {
    call(service, QStringLiteral("/MenuBar"), QStringLiteral("com.canonical.dbusmenu"),
         QStringLiteral("Event"),
         {id, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(QString())), 0u});
}

const panel::MenuLayout* PanelHost::find(const panel::MenuLayout& node, const QString& label) {
    if (node.properties.value(QStringLiteral("label")).toString() == label) return &node;
    for (const panel::MenuLayout& child : node.children) {
        if (const panel::MenuLayout* hit = find(child, label)) return hit;
    }
    return nullptr;
}

void PanelHost::listenTo(const QString& service) {
    const auto listen = [&](const char* path, const char* interface, const char* name) {
        connection_.connect(service, QLatin1String(path), QLatin1String(interface), QLatin1String(name), this,
                            SLOT(record(QDBusMessage)));
    };
    for (const char* name : {"NewIcon", "NewToolTip", "XAyatanaNewLabel"})
        listen("/StatusNotifierItem", "org.kde.StatusNotifierItem", name);
    for (const char* name : {"ItemsPropertiesUpdated", "LayoutUpdated"})
        listen("/MenuBar", "com.canonical.dbusmenu", name);
}

QList<QDBusMessage> PanelHost::received(const QString& member) const {
    QList<QDBusMessage> result;
    for (const QDBusMessage& m : signalsSeen) {
        if (m.member() == member) result << m;
    }
    return result;
}

}  // namespace velquin::test
