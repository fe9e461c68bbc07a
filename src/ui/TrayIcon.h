#pragma once
// The reading in the system tray, where a tray exists: the confidence ring as the icon, the status
// line as the tooltip, the bar's menu on a click. Main thread only.

#include <QObject>
#include <functional>
#include <memory>

#include "ui/Reading.h"

class QMenu;
class QSystemTrayIcon;

namespace velquin {

class TrayIcon : public QObject {
    Q_OBJECT

  public:
    explicit TrayIcon(QMenu& menu);
    ~TrayIcon() override;

    // A left click on the icon.
    std::function<void()> onTrigger;

    // Shows the icon now, or when a tray appears.
    void show();
    // Takes the icon away (a panel shows the reading instead).
    void hide();
    void update(const Reading& reading);
    QSystemTrayIcon* icon() { return tray_.get(); }

  private:
    QMenu& menu_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    Reading last_;
    int shownConfidence_ = -1;
};

}  // namespace velquin
