#pragma once
// The bar: a small frameless window that stays above other windows on every workspace, is skipped by
// taskbars and pagers and never takes the keyboard focus. It holds one StatusBarView filling it; the
// owner sets its length (width) from the view's preferredWidth() and places it with move(). Main
// thread only.

#include <QWidget>

#include "ui/StatusBarView.h"

namespace velquin {

class BarWindow : public QWidget {
    Q_OBJECT

  public:
    static constexpr int barHeight = 22;

    BarWindow();

    StatusBarView& view() { return view_; }
    // Width in logical pixels, rounded up; the height stays 22.
    void setLength(double length);
    void setVisible(bool visible) override;

  protected:
    void resizeEvent(QResizeEvent* event) override;

  private:
    StatusBarView view_{this};
};

}  // namespace velquin
