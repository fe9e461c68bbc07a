#include "panel/StatusNotifierItem.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QMenu>
#include <QtEndian>
#include <algorithm>
#include <cmath>

#include "panel/MenuExporter.h"

namespace velquin::panel {

class ItemAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconName READ empty)
    Q_PROPERTY(velquin::panel::IconPixmapList IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ empty)
    Q_PROPERTY(velquin::panel::IconPixmapList OverlayIconPixmap READ noPixmap)
    Q_PROPERTY(QString AttentionIconName READ empty)
    Q_PROPERTY(velquin::panel::IconPixmapList AttentionIconPixmap READ noPixmap)
    Q_PROPERTY(QString AttentionMovieName READ empty)
    Q_PROPERTY(QString IconThemePath READ empty)
    Q_PROPERTY(velquin::panel::ToolTip ToolTip READ toolTip)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
    Q_PROPERTY(QString XAyatanaLabel READ label)
    Q_PROPERTY(QString XAyatanaLabelGuide READ labelGuide)

  public:
    explicit ItemAdaptor(StatusNotifierItem* item) : QDBusAbstractAdaptor(item), item_(item) {
        connect(item, &StatusNotifierItem::newIcon, this, &ItemAdaptor::NewIcon);
        connect(item, &StatusNotifierItem::newToolTip, this, &ItemAdaptor::NewToolTip);
        connect(item, &StatusNotifierItem::newLabel, this, &ItemAdaptor::XAyatanaNewLabel);
    }

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return QStringLiteral("velquin"); }
    QString title() const { return QStringLiteral("Velquin"); }
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString empty() const { return {}; }
    IconPixmapList iconPixmap() const { return item_->iconPixmaps(); }
    IconPixmapList noPixmap() const { return {}; }
    ToolTip toolTip() const { return item_->toolTip(); }
    // Left click opens the exported menu, drawn by the panel itself: a menu of ours would be an X11
    // popup under XWayland, out of reach of Wayland input. Panels that call Activate anyway get ours.
    bool itemIsMenu() const { return true; }
    QDBusObjectPath menu() const { return QDBusObjectPath(QLatin1String(StatusNotifierItem::menuPath)); }
    QString label() const { return item_->label(); }
    QString labelGuide() const { return item_->labelGuide(); }

  public slots:
    void Activate(int x, int y) { item_->activate(QPoint(x, y)); }
    void ContextMenu(int x, int y) { item_->activate(QPoint(x, y)); }
    void SecondaryActivate(int, int) {}
    void Scroll(int, const QString&) {}

  signals:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString& status);
    void XAyatanaNewLabel(const QString& label, const QString& guide);

  private:
    StatusNotifierItem* item_;
};

namespace {

IconPixmap toIconPixmap(const QImage& image, int side) {
    QImage argb = image.convertToFormat(QImage::Format_ARGB32);
    if (argb.width() != side || argb.height() != side)
        argb = argb.scaled(side, side, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    IconPixmap pixmap{side, side, QByteArray(side * side * 4, Qt::Uninitialized)};
    auto* out = reinterpret_cast<quint32*>(pixmap.bytes.data());
    for (int y = 0; y < side; ++y) {
        const auto* row = reinterpret_cast<const quint32*>(argb.constScanLine(y));
        for (int x = 0; x < side; ++x) *out++ = qToBigEndian(row[x]);
    }
    return pixmap;
}

// Emits now when the last emission is old enough, else once when it is.
void rateLimited(QElapsedTimer& clock, QTimer& timer, int intervalMs, const std::function<void()>& emitNow) {
    if (timer.isActive()) return;
    if (!clock.isValid() || clock.elapsed() >= intervalMs) {
        clock.start();
        emitNow();
        return;
    }
    timer.start(static_cast<int>(intervalMs - clock.elapsed()));
}

}  // namespace

StatusNotifierItem::StatusNotifierItem(QMenu* menu, IconPainter painter, QObject* parent)
    : QObject(parent),
      menu_(menu),
      painter_(std::move(painter)),
      exporter_(std::make_unique<MenuExporter>(menu)) {
    registerDBusTypes();
    new ItemAdaptor(this);  // owned by this object
    for (QTimer* timer : {&iconTimer_, &toolTipTimer_}) timer->setSingleShot(true);
    connect(&iconTimer_, &QTimer::timeout, this, [this] {
        iconClock_.start();
        emit newIcon();
    });
    connect(&toolTipTimer_, &QTimer::timeout, this, [this] {
        toolTipClock_.start();
        emit newToolTip();
    });
}

StatusNotifierItem::~StatusNotifierItem() {
    if (!connection_.isConnected()) return;
    connection_.unregisterObject(QLatin1String(itemPath));
    connection_.unregisterObject(QLatin1String(menuPath));
    if (serviceName_ != connection_.baseService()) connection_.unregisterService(serviceName_);
}

bool StatusNotifierItem::start(QDBusConnection connection) {
    if (!connection.isConnected()) return false;
    connection_ = connection;
    // A second copy of the program must not take the first one's name.
    serviceName_ = QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(QCoreApplication::applicationPid());
    if (!connection_.registerService(serviceName_)) serviceName_ = connection_.baseService();
    if (!connection_.registerObject(QLatin1String(itemPath), this, QDBusConnection::ExportAdaptors) ||
        !exporter_->exportOn(connection_, QLatin1String(menuPath)))
        return false;

    auto* watcher = new QDBusServiceWatcher(QLatin1String(watcherService), connection_,
                                            QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& newOwner) {
                if (newOwner.isEmpty()) {
                    setAvailable(false);
                } else {
                    registerWithWatcher();
                }
            });
    connection_.connect(QLatin1String(watcherService), QStringLiteral("/StatusNotifierWatcher"),
                        QLatin1String(watcherService), QStringLiteral("StatusNotifierHostRegistered"), this,
                        SLOT(hostRegistered()));
    registerWithWatcher();
    return true;
}

void StatusNotifierItem::hostRegistered() {
    askHost();
}

void StatusNotifierItem::registerWithWatcher() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        QLatin1String(watcherService), QStringLiteral("/StatusNotifierWatcher"),
        QLatin1String(watcherService), QStringLiteral("RegisterStatusNotifierItem"));
    call << serviceName_;
    auto* pending = new QDBusPendingCallWatcher(connection_.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* done) {
        done->deleteLater();
        if (done->isError()) {
            setAvailable(false);
        } else {
            askHost();
        }
    });
}

void StatusNotifierItem::askHost() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        QLatin1String(watcherService), QStringLiteral("/StatusNotifierWatcher"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QLatin1String(watcherService) << QStringLiteral("IsStatusNotifierHostRegistered");
    auto* pending = new QDBusPendingCallWatcher(connection_.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* done) {
        done->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *done;
        // A watcher that does not say is taken at its word that it shows items.
        setAvailable(reply.isError() || reply.value().variant().toBool());
    });
}

void StatusNotifierItem::setAvailable(bool available) {
    if (known_ && available == available_) return;
    known_ = true;
    available_ = available;
    if (onAvailableChanged) onAvailableChanged(available);
}

void StatusNotifierItem::setLabel(const QString& text, const QString& guide) {
    if (text == label_ && guide == labelGuide_) return;
    label_ = text;
    labelGuide_ = guide;
    emit newLabel(label_, labelGuide_);
}

void StatusNotifierItem::setToolTip(const QString& title, const QString& text) {
    if (title == toolTipTitle_ && text == toolTipText_) return;
    toolTipTitle_ = title;
    toolTipText_ = text;
    rateLimited(toolTipClock_, toolTipTimer_, signalIntervalMs, [this] { emit newToolTip(); });
}

ToolTip StatusNotifierItem::toolTip() const {
    return ToolTip{QString(), {}, toolTipTitle_, toolTipText_};
}

void StatusNotifierItem::setIcon(double confidence) {
    const int step = static_cast<int>(std::lround(std::clamp(confidence, 0.0, 1.0) * 100));
    if (step == iconStep_) return;
    iconStep_ = step;
    rateLimited(iconClock_, iconTimer_, signalIntervalMs, [this] { emit newIcon(); });
}

IconPixmapList StatusNotifierItem::iconPixmaps() {
    // Drawn when a panel asks, so steps no panel saw cost nothing.
    if (pixmapStep_ != iconStep_ && painter_) {
        pixmapStep_ = iconStep_;
        pixmaps_.clear();
        const double confidence = std::max(iconStep_, 0) / 100.0;
        for (int side : iconSizes) pixmaps_ << toIconPixmap(painter_(confidence, side), side);
    }
    return pixmaps_;
}

void StatusNotifierItem::activate(QPoint at) {
    // After the call has returned: a panel waits for its reply, and the menu runs its own loop.
    QTimer::singleShot(0, this, [this, at] {
        if (onActivate) {
            onActivate(at);
        } else if (menu_) {
            menu_->popup(at.isNull() ? QCursor::pos() : at);
        }
    });
}

}  // namespace velquin::panel

#include "StatusNotifierItem.moc"
