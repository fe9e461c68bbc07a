#pragma once
// The few windows the program opens besides the bar and the shelf: alerts, the file picker, the
// browser and the system beep. DesktopApp calls them through these functions so that tests can answer
// instead of a user. desktop() gives the real ones; each runs modally on the main thread.

#include <QString>
#include <QUrl>
#include <functional>
#include <optional>

namespace velquin {

struct Dialogs {
    // The capture error alert: true when the user chose "Use Microphone Instead".
    std::function<bool(const QString& message)> askUseMicrophone;
    // The result alert of a file picked from the menu.
    std::function<void(const QString& message, const QString& informativeText)> showFileAlert;
    // The file picker; absent when cancelled.
    std::function<std::optional<QString>()> chooseAudioFile;
    std::function<void(const QUrl& url)> openUrl;
    std::function<void()> beep;

    static Dialogs desktop();
};

}  // namespace velquin
