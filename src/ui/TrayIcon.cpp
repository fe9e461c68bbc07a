#include "ui/TrayIcon.h"

#include <QIcon>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <algorithm>
#include <cmath>

#include "ui/ConfidenceRing.h"

namespace velquin {

TrayIcon::TrayIcon(QMenu& menu) : menu_(menu) {}

TrayIcon::~TrayIcon() = default;

void TrayIcon::show() {
    // Shown even without a tray: on X11 Qt docks the icon as soon as a tray appears, so a panel that
    // starts after Velquin still gets it.
    if (tray_) return;
    tray_ = std::make_unique<QSystemTrayIcon>();
    tray_->setContextMenu(&menu_);
    connect(tray_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && onTrigger) onTrigger();
    });
    shownConfidence_ = -1;
    update(last_);
    tray_->show();
}

void TrayIcon::hide() {
    tray_.reset();
}

void TrayIcon::update(const Reading& reading) {
    last_ = reading;
    if (!tray_) return;
    if (tray_->toolTip() != reading.status) tray_->setToolTip(reading.status);
    // Redrawn only when the ring would look different.
    const int step = static_cast<int>(std::lround(std::clamp(reading.confidence, 0.0, 1.0) * 100));
    if (step == shownConfidence_) return;
    shownConfidence_ = step;
    tray_->setIcon(QIcon(QPixmap::fromImage(confidenceRing::image(reading.confidence, 22, 2))));
}

}  // namespace velquin
