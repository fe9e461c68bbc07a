#include "Application.h"

#include <QApplication>
#include <QTimer>

#include "DesktopApp.h"
#include "PlatformChoice.h"

namespace velquin {

int runDesktopApp(int argc, char** argv, LogSink log, bool showShelfAtLaunch) {
    const bool throughXWayland = preferX11Platform();
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Velquin"));
    QCoreApplication::setApplicationName(QStringLiteral("Velquin"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Velquin"));
    QGuiApplication::setDesktopFileName(QStringLiteral("velquin"));
    // Alerts and the file picker are the only ordinary windows; closing them must not end the program.
    QApplication::setQuitOnLastWindowClosed(false);
    if (throughXWayland && log) log("platform: xcb through XWayland");

    DesktopApp desktop({.log = std::move(log), .showShelfAtLaunch = showShelfAtLaunch});
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &desktop, &DesktopApp::shutDown);
    // Launching inside the loop lets a start-up alert run its own modal loop like any later one.
    QTimer::singleShot(0, &desktop, &DesktopApp::launch);
    QApplication::exec();
    return 0;
}

}  // namespace velquin
