// The item and its menu as a panel sees them, over a private bus.
#include <gtest/gtest.h>

#include <QAction>
#include <QActionGroup>
#include <QDBusArgument>
#include <QElapsedTimer>
#include <QLabel>
#include <QMenu>
#include <QTest>
#include <QWidgetAction>

#include "PanelHost.h"
#include "panel/MenuExporter.h"
#include "panel/StatusNotifierItem.h"

namespace velquin {
namespace {

using panel::IconPixmap;
using panel::MenuLayout;
using panel::StatusNotifierItem;

using test::PanelHost;

// A translucent red square: in network byte order its pixels read 0x80, 0xff, 0, 0.
QImage square(double, int side) {
    QImage image(side, side, QImage::Format_ARGB32);
    image.fill(QColor(255, 0, 0, 128));
    return image;
}

struct Menu {
    QMenu menu;
    QMenu ranges{QStringLiteral("Tempo Range")};
    QActionGroup group{nullptr};
    QAction* status = menu.addAction(QStringLiteral("Listening\u2026"));
    QAction* camelot = menu.addAction(QStringLiteral("Camelot Names (8A)"));
    QAction* hidden = menu.addAction(QStringLiteral("Last file"));
    QAction* quit = nullptr;
    QWidgetAction line{nullptr};
    QLabel* lineLabel = new QLabel(QStringLiteral("<b>A minor</b> 90%"));

    Menu() {
        line.setDefaultWidget(lineLabel);
        menu.addAction(&line);
        status->setEnabled(false);
        camelot->setCheckable(true);
        camelot->setShortcut(QKeySequence(QStringLiteral("Ctrl+K")));
        hidden->setVisible(false);
        menu.addSeparator();
        for (const char* name : {"Auto", "Fast"}) {
            QAction* a = group.addAction(QString::fromLatin1(name));
            a->setCheckable(true);
            ranges.addAction(a);
        }
        group.actions().first()->setChecked(true);
        menu.addMenu(&ranges);
        quit = menu.addAction(QStringLiteral("&Quit my_app"));
    }
};

TEST(StatusNotifierItem, PanelReadsItemAndMenuAndDrivesIt) {
    PanelHost host;
    host.startWatcher();
    Menu m;
    StatusNotifierItem item(&m.menu, square);
    std::vector<bool> availability;
    item.onAvailableChanged = [&](bool available) { availability.push_back(available); };
    item.setLabel(QStringLiteral("-  ---"), QStringLiteral("C#m 000"));
    item.setToolTip(QStringLiteral("Velquin"), QStringLiteral("Listening to System Audio\u2026"));
    ASSERT_TRUE(item.start());
    const QString service = item.serviceName();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !availability.empty(); }, 5000));
    EXPECT_EQ(host.registrations, QStringList{service});
    EXPECT_EQ(availability, std::vector<bool>{true});
    host.listenTo(service);

    // The properties the owner sets (the fixed ones are a table in the item).
    const QVariantMap p = host.itemProperties(service);
    EXPECT_EQ(p.value("XAyatanaLabel").toString(), "-  ---");
    EXPECT_EQ(p.value("XAyatanaLabelGuide").toString(), "C#m 000");
    const auto tip = qdbus_cast<panel::ToolTip>(p.value("ToolTip"));
    EXPECT_EQ(tip.title, "Velquin");
    EXPECT_EQ(tip.text, QStringLiteral("Listening to System Audio\u2026"));
    const auto pixmaps = qdbus_cast<panel::IconPixmapList>(p.value("IconPixmap"));
    ASSERT_FALSE(pixmaps.isEmpty());
    for (const IconPixmap& pixmap : pixmaps) {
        EXPECT_EQ(pixmap.height, pixmap.width);
        ASSERT_EQ(pixmap.bytes.size(), pixmap.width * pixmap.height * 4);
        EXPECT_EQ(pixmap.bytes.left(4), QByteArray::fromHex("80ff0000"));
    }

    // The label is announced once per change; the icon at most four times a second.
    item.setLabel(QStringLiteral("Am 120"), QStringLiteral("C#m 000"));
    item.setLabel(QStringLiteral("Am 120"), QStringLiteral("C#m 000"));
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 10; ++i) {
        item.setIcon(0.05 * i);
        QTest::qWait(20);
    }
    const qint64 changing = clock.elapsed();
    QTest::qWait(400);
    const auto labels = host.received("XAyatanaNewLabel");
    ASSERT_EQ(labels.size(), 1);
    EXPECT_EQ(labels[0].arguments(), (QVariantList{"Am 120", "C#m 000"}));
    // One at the first change, then at most one per interval while changes go on, and one for the last.
    const auto icons = host.received("NewIcon").size();
    EXPECT_GE(icons, 2);
    EXPECT_LE(icons, 2 + changing / StatusNotifierItem::signalIntervalMs);
    EXPECT_EQ(host.itemProperties(service).value("XAyatanaLabel").toString(), "Am 120");

    // The menu: labels, toggles, shortcut, separator, submenu, hidden item, mnemonic.
    const MenuLayout root = host.layout(service);
    const auto find = [&](const QString& label) { return PanelHost::find(root, label); };
    ASSERT_EQ(root.children.size(), 7);
    EXPECT_TRUE(find("A minor 90%"));
    const MenuLayout* camelot = find("Camelot Names (8A)");
    ASSERT_TRUE(camelot);
    EXPECT_EQ(camelot->properties.value("toggle-type").toString(), "checkmark");
    EXPECT_EQ(camelot->properties.value("toggle-state").toInt(), 0);
    EXPECT_EQ(qdbus_cast<panel::MenuShortcut>(camelot->properties.value("shortcut")),
              (panel::MenuShortcut{{"Control", "K"}}));
    EXPECT_FALSE(find(QStringLiteral("Listening\u2026"))->properties.value("enabled").toBool());
    EXPECT_FALSE(find("Last file")->properties.value("visible").toBool());
    EXPECT_EQ(root.children[4].properties.value("type").toString(), "separator");
    EXPECT_EQ(root.children[5].properties.value("children-display").toString(), "submenu");
    ASSERT_EQ(root.children[5].children.size(), 2);
    EXPECT_EQ(root.children[5].children[0].properties.value("toggle-type").toString(), "radio");
    EXPECT_EQ(root.children[5].children[0].properties.value("toggle-state").toInt(), 1);
    EXPECT_TRUE(find("_Quit my__app"));

    // A click through the panel triggers the action, and the new state is sent back.
    bool triggered = false;
    QObject::connect(m.camelot, &QAction::triggered, [&] { triggered = true; });
    host.click(service, camelot->id);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !host.received("ItemsPropertiesUpdated").isEmpty(); }, 3000));
    EXPECT_TRUE(triggered);
    const auto update = host.received("ItemsPropertiesUpdated").first();
    const auto updated = qdbus_cast<panel::MenuItemList>(update.arguments().value(0));
    ASSERT_EQ(updated.size(), 1);
    EXPECT_EQ(updated[0].id, camelot->id);
    EXPECT_EQ(updated[0].properties, (QVariantMap{{"toggle-state", 1}}));

    // Opening the menu in the panel lets the owner refresh what it reads from elsewhere, and sends the
    // information lines that changed before it answers.
    bool refreshed = false;
    item.menuExporter().onAboutToShow = [&] { refreshed = true; };
    m.lineLabel->setText(QStringLiteral("C major 80%"));
    host.call(service, "/MenuBar", "com.canonical.dbusmenu", "AboutToShow", {0});
    EXPECT_TRUE(refreshed);
    ASSERT_TRUE(QTest::qWaitFor([&] { return host.received("ItemsPropertiesUpdated").size() == 2; }, 3000));
    const auto lines =
        qdbus_cast<panel::MenuItemList>(host.received("ItemsPropertiesUpdated")[1].arguments()[0]);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_EQ(lines[0].properties, (QVariantMap{{"label", "C major 80%"}}));

    // A new item changes the layout.
    m.menu.addAction(QStringLiteral("Start at Login"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !host.received("LayoutUpdated").isEmpty(); }, 3000));
    EXPECT_EQ(host.layout(service).children.size(), 8);

    // A panel that restarts finds the item again; while it is gone the item says so.
    host.stopWatcher();
    ASSERT_TRUE(QTest::qWaitFor([&] { return availability.size() == 2; }, 3000));
    host.startWatcher();
    ASSERT_TRUE(QTest::qWaitFor([&] { return host.registrations.size() == 2; }, 3000));
    EXPECT_EQ(host.registrations.last(), service);
    ASSERT_TRUE(QTest::qWaitFor([&] { return availability.size() == 3; }, 3000));
    EXPECT_EQ(availability, (std::vector<bool>{true, false, true}));
}

TEST(StatusNotifierItem, WithoutWatcherTheOwnerKeepsItsFallback) {
    QMenu menu;
    StatusNotifierItem item(&menu, square);
    std::vector<bool> availability;
    item.onAvailableChanged = [&](bool available) { availability.push_back(available); };
    ASSERT_TRUE(item.start());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !availability.empty(); }, 5000));
    EXPECT_EQ(availability, std::vector<bool>{false});
}

}  // namespace
}  // namespace velquin
