#pragma once
// The reading in the desktop panel: Velquin's own status-notifier item, with the one-line reading as
// its text, the ring as its icon, the status line as its tooltip and the bar's menu, where a panel
// shows such items; Qt's tray icon where none does (and whenever the panel goes away). Also owns the
// "Start at Login" menu item. Main thread only.

#include <QAction>
#include <QObject>
#include <QPoint>
#include <functional>
#include <memory>

#include "ui/DisplaySettings.h"
#include "ui/LogSink.h"
#include "ui/Reading.h"

class QMenu;

namespace velquin {

class TrayIcon;
namespace panel {
class StatusNotifierItem;
}

class PanelPresence : public QObject {
    Q_OBJECT

  public:
    PanelPresence(QMenu& menu, TrayIcon& tray, LogSink log);
    ~PanelPresence() override;

    // Offers the item to the panel; the tray icon stands in until a panel takes it, or for good when the
    // session bus is out of reach.
    void start();
    void update(const Reading& reading, const DisplaySettings& settings);

    // A panel that asks the item to open its menu rather than drawing the exported one (Activate).
    std::function<void(QPoint at)> onActivate;
    // The session has no panel that shows items (each time that becomes so).
    std::function<void()> onNoHost;

    // "Start at Login", checked when the autostart entry exists; the owner places it in the menu.
    QAction* loginItem() { return &loginItem_; }
    panel::StatusNotifierItem* item() { return item_.get(); }
    // The widest one-line reading for these settings, so the panel keeps the item's width.
    static QString labelGuide(const DisplaySettings& settings);

  private:
    void refreshLoginItem();
    void toggleStartAtLogin(bool on);

    QMenu& menu_;
    TrayIcon& tray_;
    LogSink log_;
    QAction loginItem_;
    std::unique_ptr<panel::StatusNotifierItem> item_;
};

}  // namespace velquin
