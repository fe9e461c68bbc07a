// What the menu's choices do: the source, pause, tempo range, relative-key preference, the display
// switches, copying the reading and following the player; each setting is stored for the next launch.
#include <QClipboard>
#include <QGuiApplication>

#include "ui/DesktopApp.h"
#include "ui/ReadingText.h"

namespace velquin {

void DesktopApp::chooseSystem() {
    paused_ = false;
    menu_.items().pauseItem->setChecked(false);
    start(AudioSourceKind::systemAudio);
}

void DesktopApp::chooseMic() {
    paused_ = false;
    menu_.items().pauseItem->setChecked(false);
    start(AudioSourceKind::microphone);
}

void DesktopApp::togglePause() {
    paused_ = !paused_;
    menu_.items().pauseItem->setChecked(paused_);
    if (paused_) {
        service_.stop();
        render(TempoEstimate{}, KeyEstimate::unknown);
    } else {
        start(service_.kind());
    }
}

void DesktopApp::chooseRange(QAction* item) {
    if (!item) return;
    if (const auto range = tempoRangeFromTextName(item->data().toString().toStdString())) applyRange(*range);
}

void DesktopApp::chooseRelative(QAction* item) {
    if (!item) return;
    const auto preference = relativePreferenceFromTextName(item->data().toString().toStdString());
    if (!preference) return;
    settings_.relativePreference = *preference;
    store(*store_, *preference);
    menu_.checkRelative(*preference);
    applyFixedWidth();
    rerender();
}

void DesktopApp::toggle(bool& setting, QAction* item, const char* key, bool fixedWidth) {
    setting = !setting;
    item->setChecked(setting);
    store(*store_, key, setting);
    if (fixedWidth) applyFixedWidth();
    rerender();
}

void DesktopApp::toggleCamelot() {
    toggle(settings_.useCamelot, menu_.items().camelotItem, settingsKey::useCamelot, true);
}
void DesktopApp::toggleNotes() {
    toggle(settings_.showNotes, menu_.items().notesItem, settingsKey::showNotes, false);
}
void DesktopApp::toggleDecimals() {
    toggle(settings_.showDecimals, menu_.items().decimalsItem, settingsKey::showDecimals, true);
}
void DesktopApp::togglePrecise() {
    toggle(settings_.preciseAnalysis, menu_.items().preciseItem, settingsKey::preciseAnalysis, false);
    follower_.setAnalysis(fileAnalysis());
}
fileAnalysis::Analysis DesktopApp::fileAnalysis() const {
    return settings_.preciseAnalysis ? fileAnalysis::Analysis::precise : fileAnalysis::Analysis::specified;
}
void DesktopApp::toggleCompact() {
    toggle(settings_.compact, menu_.items().compactItem, settingsKey::compactBar, true);
}

void DesktopApp::toggleFloatBar() {
    settings_.floatBar = !settings_.floatBar;
    menu_.items().floatItem->setChecked(settings_.floatBar);
    store(*store_, settingsKey::floatBar, settings_.floatBar);
    // Hidden, the bar leaves the reading to the tray and the panel.
    if (layerBar_) {
        showLayerBar();
    } else {
        bar_->setVisible(settings_.floatBar);
    }
}

void DesktopApp::copyBoth() {
    // Always the live values, never a dropped file's.
    const std::optional<QString> text = text::copied(service_.estimate(), service_.keyEstimate(), settings_);
    if (!text) {
        if (dialogs.beep) dialogs.beep();
        return;
    }
    QClipboard* clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(*text);
}

void DesktopApp::showPlaying(const std::optional<PlayerReading>& playing) {
    playing_ = playing;
    rerender();
}

void DesktopApp::toggleFollow() {
    toggle(settings_.followPlayer, menu_.items().followItem, settingsKey::followPlayer, false);
    follower_.setEnabled(settings_.followPlayer);
}

}  // namespace velquin
