#include "ui/Application.h"

#include <unistd.h>

#include <QApplication>
#include <QGuiApplication>
#include <QSettings>
#include <QTimer>
#include <cstdio>
#include <string>
#include <vector>

#include "system/XdgPaths.h"
#include "ui/DesktopApp.h"
#include "ui/LayerShellBar.h"
#include "ui/PlatformChoice.h"
#include "ui/SingleInstance.h"

namespace velquin {

namespace {

// Qt ends the process with abort() and a page of plugin diagnostics when no platform plugin can start
// (no X display, no Wayland socket). While the application object is made, its messages are held back:
// a fatal one becomes our one-line error, the others are let through once the start succeeded.
std::vector<std::string> heldMessages;

void holdPlatformMessages(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (type == QtFatalMsg) {
        std::fputs(
            "Error: no graphical display: needs an X11 display (DISPLAY) or a Wayland compositor "
            "(WAYLAND_DISPLAY) with Qt's Wayland plugin (package qt6-wayland); without a desktop use "
            "--analyze, --timeline, --chroma or --live (see --help)\n",
            stderr);
        std::fflush(stderr);
        ::_exit(1);
    }
    heldMessages.push_back(qFormatLogMessage(type, context, message).toStdString());
}

// Settings go to the user's XDG config folder, found without HOME if need be; with no home at all they
// stay in memory (nothing can be made under /dev/null) rather than land in "/.config".
void placeSettings() {
    const std::filesystem::path config = xdg::configHome();
    const QString folder =
        config.empty() ? QStringLiteral("/dev/null") : QString::fromStdString(config.string());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, folder);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, folder);
}

// The user's own choice of native Wayland, read before the application object exists.
bool nativeWaylandSetting() {
    const QSettings settings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Velquin"),
                             QStringLiteral("Velquin"));
    return settings.value(QStringLiteral("nativeWayland"), false).toBool();
}

}  // namespace

int runDesktopApp(int argc, char** argv, LogSink log, LaunchOptions options) {
    placeSettings();
    const std::string platformWhy = preferX11Platform(options.insistOnWayland || nativeWaylandSetting());
    const QtMessageHandler previous = qInstallMessageHandler(holdPlatformMessages);
    QApplication app(argc, argv);
    qInstallMessageHandler(previous);
    for (const std::string& line : heldMessages) std::fprintf(stderr, "%s\n", line.c_str());
    heldMessages.clear();
    QCoreApplication::setOrganizationName(QStringLiteral("Velquin"));
    QCoreApplication::setApplicationName(QStringLiteral("Velquin"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Velquin"));
    QGuiApplication::setDesktopFileName(QStringLiteral("org.orvane.Velquin"));
    // Alerts and the file picker are the only ordinary windows; closing them must not end the program.
    QApplication::setQuitOnLastWindowClosed(false);
    if (!platformWhy.empty() && log) log(platformWhy);
    SingleInstance instance;
    if (!instance.claim()) {
        if (log) log("another Velquin runs; asked it to show its menu");
        return 0;
    }
    const bool nativeWayland = QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
    std::unique_ptr<LayerShellBar> layerBar = nativeWayland ? LayerShellBar::create() : nullptr;
    if (layerBar) {
        if (log) log("bar: a layer-shell surface on the overlay layer, top right");
    } else if (nativeWayland) {
        const char* line =
            "Velquin: this Wayland desktop lets the bar be neither placed nor kept above; the reading is in "
            "the panel item (the bar, if shown, stays where the compositor puts it)";
        std::fprintf(stderr, "%s\n", line);
        if (log) log(line);
    }
    DesktopApp desktop(
        {.log = std::move(log),
         .showShelfAtLaunch = options.showShelfAtLaunch,
         .barPlaceable = !nativeWayland || layerBar,
         // Native Wayland menus need no help, except that with a layer-shell bar there is
         // no window of ours for one to hang from.
         .focusableMenu = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") && (!nativeWayland || layerBar),
         .layerBar = std::move(layerBar)});
    instance.onShowRequest = [&desktop] { desktop.showMenu(); };
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &desktop, &DesktopApp::shutDown);
    // Launching inside the loop lets a start-up alert run its own modal loop like any later one.
    QTimer::singleShot(0, &desktop, &DesktopApp::launch);
    QApplication::exec();
    return 0;
}

}  // namespace velquin
