#include "Dialogs.h"

#include <QApplication>
#include <QDesktopServices>
#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>

namespace velquin {
namespace {

// Alerts come from a program without a focused window of its own: they must come to the front.
template <typename Dialog>
int runInFront(Dialog& dialog) {
    dialog.setWindowFlag(Qt::WindowStaysOnTopHint);
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
    return dialog.exec();
}

bool askUseMicrophoneAlert(const QString& message) {
    QMessageBox alert(QMessageBox::Warning, QStringLiteral("Velquin"),
                      QStringLiteral("Velquin could not listen"));
    alert.setInformativeText(message);
    QPushButton* ok = alert.addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
    QPushButton* microphone =
        alert.addButton(QStringLiteral("Use Microphone Instead"), QMessageBox::ActionRole);
    alert.setDefaultButton(ok);
    runInFront(alert);
    return alert.clickedButton() == microphone;
}

void fileResultAlert(const QString& message, const QString& informativeText) {
    QMessageBox alert(QMessageBox::Information, QStringLiteral("Velquin"), message, QMessageBox::Ok);
    alert.setInformativeText(informativeText);
    runInFront(alert);
}

std::optional<QString> pickAudioFile() {
    QFileDialog panel(nullptr, QStringLiteral("Pick an audio file to measure."));
    panel.setFileMode(QFileDialog::ExistingFile);
    panel.setNameFilters(
        {QStringLiteral("Audio files (*.mp3 *.wav *.wave *.aif *.aiff *.aifc *.m4a *.mp4 *.aac "
                        "*.flac *.ogg *.oga *.opus *.caf)"),
         QStringLiteral("All files (*)")});
    if (runInFront(panel) != QDialog::Accepted || panel.selectedFiles().isEmpty()) return std::nullopt;
    return panel.selectedFiles().constFirst();
}

}  // namespace

Dialogs Dialogs::desktop() {
    return Dialogs{
        .askUseMicrophone = askUseMicrophoneAlert,
        .showFileAlert = fileResultAlert,
        .chooseAudioFile = pickAudioFile,
        .openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); },
        .beep = [] { QApplication::beep(); },
    };
}

}  // namespace velquin
