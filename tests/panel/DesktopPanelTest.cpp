// The desktop application in a panel: the reading as the item's label, and the menu driven from the
// panel (a setting, Start at Login), over the private bus.
#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <string>
#include <vector>

#include "PanelHost.h"
#include "panel/StatusNotifierItem.h"
#include "support/SilentSource.h"
#include "ui/DesktopApp.h"

namespace velquin {
namespace {

TEST(DesktopPanel, ShowsTheReadingAndAnswersTheMenuFromThePanel) {
    QTemporaryDir dir;
    qputenv("XDG_CONFIG_HOME", dir.path().toUtf8());
    test::PanelHost host;
    host.startWatcher();
    std::vector<std::string> log;
    DesktopApp app(DesktopApp::Options{
        .log = [&](std::string_view line) { log.emplace_back(line); },
        .settings = std::make_unique<QSettings>(dir.filePath("Velquin.conf"), QSettings::IniFormat),
        .sourceFactory = [](AudioSourceKind) { return std::make_unique<test::SilentSource>(); },
        .dialogs = Dialogs{},  // nothing here asks
    });
    app.launch();
    const QString service = app.panel().item()->serviceName();
    ASSERT_TRUE(QTest::qWaitFor([&] { return app.panel().item()->isAvailable(); }, 5000));
    EXPECT_EQ(host.registrations, QStringList{service});
    EXPECT_EQ(app.trayIcon(), nullptr);  // the panel shows the reading; no second icon
    const auto label = [&] { return host.itemProperties(service).value("XAyatanaLabel").toString(); };

    app.togglePause();  // from here on every reading comes from the test
    KeyEstimate aMinor;
    aMinor.key = MusicalKey{9, true};
    aMinor.confidence = 0.9;
    app.render(TempoEstimate{120.2, 0.9, 0.1}, aMinor);
    EXPECT_EQ(label(), "Am 120");
    EXPECT_EQ(host.itemProperties(service).value("XAyatanaLabelGuide").toString(), "C#m 000");

    const panel::MenuLayout menu = host.layout(service);
    const auto* camelot = test::PanelHost::find(menu, "Camelot Names (8A)");
    ASSERT_TRUE(camelot);
    host.click(service, camelot->id);
    ASSERT_TRUE(QTest::qWaitFor([&] { return app.settings().useCamelot; }, 3000));
    app.render(TempoEstimate{120.2, 0.9, 0.1}, aMinor);  // the next reading
    EXPECT_EQ(label(), "8A 120");

    // Start at Login writes the autostart entry, pointing at this program, and takes it away again.
    const QString entry = dir.filePath("autostart/velquin.desktop");
    const auto* login = test::PanelHost::find(menu, "Start at Login");
    ASSERT_TRUE(login);
    host.click(service, login->id);
    ASSERT_TRUE(QTest::qWaitFor([&] { return QFile::exists(entry); }, 3000));
    QFile file(entry);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains(QCoreApplication::applicationFilePath().toUtf8()));
    EXPECT_TRUE(app.panel().loginItem()->isChecked());
    host.click(service, login->id);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !QFile::exists(entry); }, 3000));

    // The panel goes away: the tray icon takes over.
    host.stopWatcher();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app.panel().item()->isAvailable(); }, 3000));
    EXPECT_EQ(log.back(), "no panel item host: tray icon");
    qunsetenv("XDG_CONFIG_HOME");
}

}  // namespace
}  // namespace velquin
