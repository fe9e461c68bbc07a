#include "Application.h"

#include <QApplication>
#include <QTimer>

#include "AppDelegate.h"
#include "PlatformChoice.h"

namespace velquin {

int runMenuBarApp(int argc, char** argv, LogSink log) {
    const bool throughXWayland = preferX11Platform();
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Velquin"));
    QCoreApplication::setApplicationName(QStringLiteral("Velquin"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Velquin"));
    QGuiApplication::setDesktopFileName(QStringLiteral("velquin"));
    // Alerts and the open panel are the only ordinary windows; closing them must not end the program.
    QApplication::setQuitOnLastWindowClosed(false);
    if (throughXWayland && log) log("platform: xcb through XWayland");

    AppDelegate delegate(std::move(log));
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate, &AppDelegate::applicationWillTerminate);
    // Launching inside the loop lets a start-up alert run its own modal loop like any later one.
    QTimer::singleShot(0, &delegate, &AppDelegate::applicationDidFinishLaunching);
    QApplication::exec();
    return 0;
}

}  // namespace velquin
