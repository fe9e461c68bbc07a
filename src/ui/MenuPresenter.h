#pragma once
// Opens the bar's menu. On X11 a menu is a popup that grabs the pointer and the keyboard. Through
// XWayland such a grab sees no input on Wayland surfaces, so Escape and clicks on Wayland windows or on
// the desktop would leave it open; there the menu is instead a frameless window of its own that takes
// the keyboard focus (Escape then reaches it) and closes as soon as it loses the focus to anything but
// its own submenus. Main thread only; the menu must outlive the presenter.

#include <QObject>
#include <QPoint>

class QMenu;
class QWindow;

namespace velquin {

class MenuPresenter : public QObject {
    Q_OBJECT

  public:
    MenuPresenter(QMenu& menu, bool focusable);

    // Shows the menu with its top left at `at`, or closes it when it is open already.
    void toggle(QPoint at);
    void popup(QPoint at);
    bool focusable() const { return focusable_; }

  private:
    void focusMoved(QWindow* window);

    QMenu& menu_;
    bool focusable_;
    bool hadFocus_ = false;
};

}  // namespace velquin
