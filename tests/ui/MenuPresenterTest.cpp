#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QMenu>
#include <QTest>
#include <QWidget>
#include <QWindow>

#include "UiTestSupport.h"
#include "ui/MenuPresenter.h"

namespace velquin {
namespace {

bool focused(QWidget& w) {
    return test::waitUntil([&] { return QGuiApplication::focusWindow() == w.windowHandle(); }, 2000);
}

TEST(MenuPresenter, AFocusedMenuClosesOnEscapeOnFocusLossAndOnASecondClick) {
    QMenu menu;
    menu.addAction(QStringLiteral("One"));
    QMenu* sub = menu.addMenu(QStringLiteral("More"));
    sub->addAction(QStringLiteral("Two"));
    MenuPresenter presenter(menu, true);
    ASSERT_NE(menu.windowType(), Qt::Popup);

    presenter.popup(QPoint(10, 10));
    ASSERT_TRUE(menu.isVisible());
    ASSERT_TRUE(focused(menu));
    QTest::keyClick(&menu, Qt::Key_Escape);
    EXPECT_FALSE(menu.isVisible());

    // Another window taking the focus closes it; its own submenu does not.
    presenter.popup(QPoint(10, 10));
    ASSERT_TRUE(focused(menu));
    sub->popup(QPoint(200, 10));
    QTest::qWait(50);
    EXPECT_TRUE(menu.isVisible());
    sub->hide();
    QWidget other;
    other.show();
    other.activateWindow();
    ASSERT_TRUE(focused(other));
    EXPECT_FALSE(menu.isVisible());

    // A click on the bar while it is open closes it.
    presenter.toggle(QPoint(10, 10));
    EXPECT_TRUE(menu.isVisible());
    presenter.toggle(QPoint(10, 10));
    EXPECT_FALSE(menu.isVisible());
}

TEST(MenuPresenter, APopupMenuStaysAPopup) {
    QMenu menu;
    menu.addAction(QStringLiteral("One"));
    MenuPresenter presenter(menu, false);
    EXPECT_EQ(menu.windowType(), Qt::Popup);
    presenter.popup(QPoint(10, 10));
    EXPECT_TRUE(menu.isVisible());
    menu.hide();
}

}  // namespace
}  // namespace velquin
