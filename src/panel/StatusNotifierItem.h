#pragma once
// Velquin's own item in the panel's status-notifier area (org.kde.StatusNotifierItem on
// /StatusNotifierItem), with its menu exported beside it (MenuExporter at /MenuBar) and the reading as
// a text label next to the icon. It registers with the StatusNotifierWatcher whenever one appears, so a
// panel that restarts finds it again; `onAvailableChanged` says whether a panel shows it now, so the
// owner can put up a fallback icon when none does.
//
// Signals to the panel are sent only on change; NewIcon and NewToolTip at most four times a second,
// since the reading changes eight times a second. Main thread only; the menu must outlive the item.

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QPoint>
#include <QString>
#include <QTimer>
#include <functional>
#include <memory>

#include "panel/DBusTypes.h"

class QMenu;

namespace velquin::panel {

class MenuExporter;
class ItemAdaptor;

class StatusNotifierItem : public QObject {
    Q_OBJECT

  public:
    static constexpr const char* watcherService = "org.kde.StatusNotifierWatcher";
    static constexpr const char* itemPath = "/StatusNotifierItem";
    static constexpr const char* menuPath = "/MenuBar";
    // Icon sizes panels commonly draw at, in pixels.
    static constexpr int iconSizes[] = {16, 22, 24, 32, 48};
    // Shortest time between two NewIcon (or two NewToolTip) signals.
    static constexpr int signalIntervalMs = 250;

    // Draws the icon for a confidence in 0…1 as a side × side image.
    using IconPainter = std::function<QImage(double confidence, int side)>;

    StatusNotifierItem(QMenu* menu, IconPainter painter, QObject* parent = nullptr);
    ~StatusNotifierItem() override;

    // Takes the item's bus name, exports the item and the menu, and registers with the watcher when
    // there is one. False when the bus cannot be reached.
    bool start(QDBusConnection connection = QDBusConnection::sessionBus());

    // A panel shows the item: a watcher accepted it and has a host.
    bool isAvailable() const { return available_; }
    QString serviceName() const { return serviceName_; }

    // The text beside the icon and the widest text it will show, so the panel keeps its width.
    void setLabel(const QString& text, const QString& guide);
    void setToolTip(const QString& title, const QString& text);
    // Redraws the icon only when the confidence moved by a whole percent.
    void setIcon(double confidence);

    // What left click and the context-menu request do; by default the menu opens at that point.
    std::function<void(QPoint at)> onActivate;
    std::function<void(bool available)> onAvailableChanged;

    // What the panel reads.
    QString label() const { return label_; }
    QString labelGuide() const { return labelGuide_; }
    ToolTip toolTip() const;
    IconPixmapList iconPixmaps();
    MenuExporter& menuExporter() { return *exporter_; }
    void activate(QPoint at);

  signals:
    // Relayed to the panel by the adaptor.
    void newIcon();
    void newToolTip();
    void newLabel(const QString& label, const QString& guide);

  private slots:
    void hostRegistered();

  private:
    void registerWithWatcher();
    void setAvailable(bool available);
    void askHost();

    QMenu* menu_;
    IconPainter painter_;
    std::unique_ptr<MenuExporter> exporter_;
    QDBusConnection connection_{QString()};
    QString serviceName_;
    bool available_ = false;
    bool known_ = false;  // the first answer is always reported

    QString label_;
    QString labelGuide_;
    QString toolTipTitle_;
    QString toolTipText_;
    int iconStep_ = -1;    // confidence in whole percent
    int pixmapStep_ = -2;  // the step the cached pixmaps were drawn for
    IconPixmapList pixmaps_;

    QElapsedTimer iconClock_;
    QElapsedTimer toolTipClock_;
    QTimer iconTimer_;
    QTimer toolTipTimer_;
};

}  // namespace velquin::panel
