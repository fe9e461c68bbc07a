#include "Application.h"

#include <unistd.h>

#include <QApplication>
#include <QSettings>
#include <QTimer>
#include <cstdio>
#include <string>
#include <vector>

#include "DesktopApp.h"
#include "PlatformChoice.h"
#include "SingleInstance.h"
#include "XdgPaths.h"

namespace velquin {

namespace {

// Qt ends the process with abort() and a page of plugin diagnostics when no platform plugin can start
// (no X display, no Wayland socket). While the application object is made, its messages are held back:
// a fatal one becomes our one-line error, the others are let through once the start succeeded.
std::vector<std::string> heldMessages;

void holdPlatformMessages(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (type == QtFatalMsg) {
        std::fputs(
            "Error: no graphical display (set DISPLAY, or use --analyze, --timeline, --chroma or --live; see "
            "--help)\n",
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

}  // namespace

int runDesktopApp(int argc, char** argv, LogSink log, bool showShelfAtLaunch) {
    const bool throughXWayland = preferX11Platform();
    placeSettings();
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
    if (throughXWayland && log) log("platform: xcb through XWayland");

    SingleInstance instance;
    if (!instance.claim()) {
        if (log) log("another Velquin runs; asked it to show its menu");
        return 0;
    }
    DesktopApp desktop({.log = std::move(log), .showShelfAtLaunch = showShelfAtLaunch});
    instance.onShowRequest = [&desktop] { desktop.showMenu(); };
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &desktop, &DesktopApp::shutDown);
    // Launching inside the loop lets a start-up alert run its own modal loop like any later one.
    QTimer::singleShot(0, &desktop, &DesktopApp::launch);
    QApplication::exec();
    return 0;
}

}  // namespace velquin
