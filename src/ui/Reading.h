#pragma once
// What every display of the live (or dropped-file) reading shows: the bar, the tray icon and any
// other display that subscribes to DesktopApp.

#include <QString>

namespace velquin {

struct Reading {
    QString keyText = QStringLiteral("-");    // "Am", "8A", "-"
    QString bpmText = QStringLiteral("---");  // "120", "120.4", "---"; empty while a file is measured
    double confidence = 0;                    // the ring's fill, 0…1
    bool showingFile = false;                 // a dropped file's result, not the live sound
    QString status;                           // the menu's status line

    // The one-line form, "Am 120".
    QString line() const { return bpmText.isEmpty() ? keyText : keyText + QLatin1Char(' ') + bpmText; }
};

}  // namespace velquin
