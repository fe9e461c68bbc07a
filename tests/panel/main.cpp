// The panel tests talk over a private session bus of their own (never the user's): a dbus-daemon is
// started before the QApplication, so every connection the code under test opens lands on it.
#include <gtest/gtest.h>

#include <QApplication>
#include <QProcess>

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QProcess bus;
    bus.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
    if (!bus.waitForStarted(5000) || !bus.waitForReadyRead(5000)) {
        fprintf(stderr, "dbus-daemon could not be started\n");
        return 1;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.readLine().trimmed());
    int result = 0;
    {
        QApplication app(argc, argv);
        ::testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
    }
    bus.terminate();
    bus.waitForFinished(2000);
    return result;
}
