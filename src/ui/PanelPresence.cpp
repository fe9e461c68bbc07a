#include "ui/PanelPresence.h"

#include <QCoreApplication>
#include <QMenu>

#include "panel/MenuExporter.h"
#include "panel/StartAtLogin.h"
#include "panel/StatusNotifierItem.h"
#include "ui/ConfidenceRing.h"
#include "ui/TrayIcon.h"

namespace velquin {

PanelPresence::PanelPresence(QMenu& menu, TrayIcon& tray, LogSink log)
    : menu_(menu), tray_(tray), log_(std::move(log)), loginItem_(QStringLiteral("Start at Login")) {
    loginItem_.setCheckable(true);
    connect(&loginItem_, &QAction::triggered, this, &PanelPresence::toggleStartAtLogin);
    // The file is the only record, so it is read whenever the menu opens, here or in the panel.
    connect(&menu_, &QMenu::aboutToShow, this, &PanelPresence::refreshLoginItem);
    refreshLoginItem();
}

PanelPresence::~PanelPresence() = default;

void PanelPresence::start() {
    item_ = std::make_unique<panel::StatusNotifierItem>(
        &menu_, [](double confidence, int side) { return confidenceRing::image(confidence, side); });
    item_->menuExporter().onAboutToShow = [this] { refreshLoginItem(); };
    // Where a panel shows the item, Qt's tray icon would only be a second copy of it.
    item_->onAvailableChanged = [this](bool available) {
        if (log_) log_(available ? "panel item shown by the panel" : "no panel item host: tray icon");
        if (available) {
            tray_.hide();
        } else {
            tray_.show();
            if (onNoHost) onNoHost();
        }
    };
    if (onActivate) item_->onActivate = onActivate;
    if (!item_->start()) {
        if (log_) log_("no session bus: tray icon");
        tray_.show();
    }
}

QString PanelPresence::labelGuide(const DisplaySettings& settings) {
    return QLatin1String(settings.useCamelot ? "12B" : "C#m") + QLatin1Char(' ') +
           QLatin1String(settings.showDecimals ? "000.0" : "000");
}

void PanelPresence::update(const Reading& reading, const DisplaySettings& settings) {
    if (!item_) return;
    item_->setLabel(reading.line(), labelGuide(settings));
    item_->setToolTip(QStringLiteral("Velquin"), reading.status);
    item_->setIcon(reading.confidence);
    item_->menuExporter().refresh();
}

void PanelPresence::refreshLoginItem() {
    loginItem_.setChecked(panel::startAtLogin::isEnabled());
}

void PanelPresence::toggleStartAtLogin(bool on) {
    const auto error = panel::startAtLogin::setEnabled(on, QCoreApplication::applicationFilePath());
    if (error && log_) log_("start at login: " + error->toStdString());
    refreshLoginItem();
}

}  // namespace velquin
