#pragma once
// The few windows the program opens besides the bar and the shelf: alerts, the file picker, the
// browser and the system beep. DesktopApp calls them through these functions so that tests can answer
// instead of a user. desktop() gives the real ones; the alerts run modally on the main thread.

#include <QString>
#include <QUrl>
#include <functional>
#include <optional>

#include "capture/AudioSource.h"

namespace velquin {

struct Dialogs {
    // The capture error alert for the source that failed; true when the user chose to listen to the
    // other source instead.
    std::function<bool(const QString& message, AudioSourceKind failed)> askOtherSource;
    // Closes that alert, as if dismissed, when capture works again.
    std::function<void()> closeSourceAlert;
    // The result alert of a file picked from the menu.
    std::function<void(const QString& message, const QString& informativeText)> showFileAlert;
    // A file picked from the menu could not be analysed.
    std::function<void(const QString& name, const QString& reason)> showFileError;
    // The file picker; absent when cancelled.
    std::function<std::optional<QString>()> chooseAudioFile;
    // False when nothing could open the address.
    std::function<bool(const QUrl& url)> openUrl;
    // Shows where the help page is when no browser opened it.
    std::function<void(const QString& path)> showHelpPath;
    std::function<void()> beep;

    static Dialogs desktop();
};

// The file picker's filter: the extensions FFmpeg reads here; playlists are not audio.
QString audioFileFilter();

}  // namespace velquin
