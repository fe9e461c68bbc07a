#include "ui/MenuPresenter.h"

#include <QGuiApplication>
#include <QMenu>
#include <QWindow>

namespace velquin {

MenuPresenter::MenuPresenter(QMenu& menu, bool focusable) : menu_(menu), focusable_(focusable) {
    if (!focusable_) return;
    // A managed window, so that the window manager gives it the focus, kept above like the bar.
    menu_.setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    connect(&menu_, &QMenu::aboutToHide, this, [this] { hadFocus_ = false; });
    connect(qGuiApp, &QGuiApplication::focusWindowChanged, this, &MenuPresenter::focusMoved);
    connect(qGuiApp, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
        if (state != Qt::ApplicationActive && hadFocus_ && menu_.isVisible()) menu_.hide();
    });
}

void MenuPresenter::toggle(QPoint at) {
    if (menu_.isVisible()) {
        menu_.hide();
        return;
    }
    popup(at);
}

void MenuPresenter::popup(QPoint at) {
    // On Wayland the menu is a window of its own there; a fixed size makes tiling compositors float it.
    if (focusable_ && QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
        menu_.setFixedSize(menu_.sizeHint());
    }
    menu_.popup(at);
    if (!focusable_) return;
    menu_.raise();
    menu_.activateWindow();
}

void MenuPresenter::focusMoved(QWindow* window) {
    if (!menu_.isVisible()) return;
    if (window && window == menu_.windowHandle()) {
        hadFocus_ = true;
        return;
    }
    // A submenu is a popup of our own; anything else (another window, or none) took the focus away.
    if (window && window->type() == Qt::Popup) return;
    if (hadFocus_) menu_.hide();
}

}  // namespace velquin
