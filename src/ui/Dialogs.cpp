#include "ui/Dialogs.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QFileDialog>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>

namespace velquin {
namespace {

// Alerts come from a program without a focused window of its own: they must come to the front. Long
// texts wrap instead of stretching the alert across the screen.
template <typename Dialog>
int runInFront(Dialog& dialog) {
    dialog.setWindowFlag(Qt::WindowStaysOnTopHint);
    dialog.show();
    dialog.raise();
    dialog.activateWindow();
    return dialog.exec();
}

QMessageBox& wrapped(QMessageBox& alert) {
    alert.setStyleSheet(QStringLiteral("QLabel { min-width: 22em; max-width: 32em; }"));
    return alert;
}

// The capture alert on screen, so that capture coming back can close it.
QPointer<QMessageBox> openSourceAlert;

bool askOtherSourceAlert(const QString& message, AudioSourceKind failed) {
    QMessageBox alert(QMessageBox::Warning, QStringLiteral("Velquin"),
                      QStringLiteral("Velquin could not listen"));
    openSourceAlert = &alert;
    alert.setInformativeText(message);
    QPushButton* ok = alert.addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
    QPushButton* other =
        alert.addButton(failed == AudioSourceKind::systemAudio ? QStringLiteral("Use Microphone Instead")
                                                               : QStringLiteral("Use System Audio Instead"),
                        QMessageBox::ActionRole);
    alert.setDefaultButton(ok);
    runInFront(wrapped(alert));
    return alert.clickedButton() == other;
}

void fileResultAlert(const QString& message, const QString& informativeText) {
    QMessageBox alert(QMessageBox::Information, QStringLiteral("Velquin"), message, QMessageBox::Ok);
    alert.setInformativeText(informativeText);
    runInFront(alert);
}

void fileErrorAlert(const QString& name, const QString& reason) {
    QMessageBox alert(QMessageBox::Warning, QStringLiteral("Velquin"),
                      QStringLiteral("Could not analyse ") + name, QMessageBox::Ok);
    alert.setInformativeText(reason);
    runInFront(wrapped(alert));
}

void helpPathAlert(const QString& path) {
    QMessageBox alert(QMessageBox::Information, QStringLiteral("Velquin"),
                      QStringLiteral("No browser opened the help page. It is here:"));
    alert.setInformativeText(path);
    alert.setTextInteractionFlags(Qt::TextSelectableByMouse);
    QPushButton* copy = alert.addButton(QStringLiteral("Copy"), QMessageBox::ActionRole);
    alert.addButton(QMessageBox::Ok);
    runInFront(wrapped(alert));
    if (alert.clickedButton() == copy) QGuiApplication::clipboard()->setText(path);
}

std::optional<QString> pickAudioFile() {
    QFileDialog panel(nullptr, QStringLiteral("Pick an audio file to measure."));
    panel.setFileMode(QFileDialog::ExistingFile);
    panel.setNameFilters({audioFileFilter()});
    if (runInFront(panel) != QDialog::Accepted || panel.selectedFiles().isEmpty()) return std::nullopt;
    return panel.selectedFiles().constFirst();
}

}  // namespace

QString audioFileFilter() {
    return QStringLiteral(
        "Audio files (*.mp3 *.m4a *.aac *.flac *.ogg *.oga *.opus *.wav *.aif *.aiff *.wma *.ape *.wv *.mka "
        "*.mp4 *.m4v *.mov *.mkv *.webm)");
}

Dialogs Dialogs::desktop() {
    return Dialogs{
        .askOtherSource = askOtherSourceAlert,
        .closeSourceAlert =
            [] {
                if (openSourceAlert) openSourceAlert->reject();
            },
        .showFileAlert = fileResultAlert,
        .showFileError = fileErrorAlert,
        .chooseAudioFile = pickAudioFile,
        .openUrl = [](const QUrl& url) { return QDesktopServices::openUrl(url); },
        .showHelpPath = helpPathAlert,
        .beep = [] { QApplication::beep(); },
    };
}

}  // namespace velquin
