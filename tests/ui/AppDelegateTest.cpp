#include <gtest/gtest.h>

#include <QDropEvent>
#include <QGuiApplication>
#include <QMimeData>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QWidgetAction>
#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "AppDelegate.h"
#include "UiTestSupport.h"

namespace velquin {
namespace {

using Preference = KeyEstimate::RelativePreference;

// Starts (or fails to) and never delivers a sample, so the service publishes nothing but silence.
class ScriptedSource : public AudioSource {
  public:
    explicit ScriptedSource(std::optional<std::string> failure) : failure_(std::move(failure)) {}
    double sampleRate() const override { return 48000; }
    void start() override {
        if (failure_) throw AudioSourceError::engineFailed(*failure_);
    }
    void stop() override {}

  private:
    std::optional<std::string> failure_;
};

KeyEstimate keyOf(int tonic, bool minor, double confidence,
                  std::optional<MusicalKey> alternative = std::nullopt, double tuningCents = 0) {
    KeyEstimate key;
    key.key = MusicalKey{tonic, minor};
    key.alternative = alternative;
    key.confidence = confidence;
    key.tuningCents = tuningCents;
    key.chroma.fill(0.2);
    key.chroma[static_cast<size_t>(tonic)] = 1.0;
    return key;
}

const MusicalKey aMinor{9, true};
const MusicalKey cMajor{0, false};

class AppDelegateTest : public ::testing::Test {
  protected:
    QTemporaryDir dir;
    std::vector<std::string> log;
    std::vector<QString> errorAlerts;
    std::vector<std::pair<QString, QString>> fileAlerts;
    std::vector<QUrl> opened;
    int beeps = 0;
    bool useMicrophone = false;
    std::optional<std::string> systemAudioFailure;
    std::optional<QString> chosenFile;
    std::unique_ptr<AppDelegate> delegate;

    QString settingsPath() const { return dir.filePath(QStringLiteral("Velquin.conf")); }

    void store(const QString& key, const QVariant& value) {
        QSettings settings(settingsPath(), QSettings::IniFormat);
        settings.setValue(key, value);
    }

    QVariant stored(const QString& key) {
        QSettings settings(settingsPath(), QSettings::IniFormat);
        return settings.value(key);
    }

    std::unique_ptr<AppDelegate> make() {
        auto d = std::make_unique<AppDelegate>(
            [this](std::string_view line) { log.emplace_back(line); },
            std::make_unique<QSettings>(settingsPath(), QSettings::IniFormat),
            [this](AudioSourceKind kind) {
                return std::make_unique<ScriptedSource>(
                    kind == AudioSourceKind::systemAudio ? systemAudioFailure : std::nullopt);
            });
        d->askUseMicrophone = [this](const QString& message) {
            errorAlerts.push_back(message);
            return useMicrophone;
        };
        d->showFileAlert = [this](const QString& message, const QString& text) {
            fileAlerts.emplace_back(message, text);
        };
        d->chooseAudioFile = [this] { return chosenFile; };
        d->openUrl = [this](const QUrl& url) { opened.push_back(url); };
        d->beep = [this] { ++beeps; };
        return d;
    }

    void launch() {
        delegate = make();
        delegate->applicationDidFinishLaunching();
    }

    // A file analysis that answers `result`, or throws `error` when there is no result.
    void analyzerAnswers(std::optional<TempoService::FileResult> result,
                         const std::string& error = "bad file") {
        delegate->fileAnalyzer = [result, error](const std::string&, TempoRange) {
            if (!result) throw std::runtime_error(error);
            return *result;
        };
    }

    const AppDelegate::Items& items() const { return delegate->items(); }
    QString statusLine() const { return items().statusLine->text(); }
    bool checked(Preference preference) const { return items().relativeItems.at(preference)->isChecked(); }
    bool checked(TempoRange range) const { return items().rangeItems.at(range)->isChecked(); }
    QStringList shelfLines() { return delegate->shelf().zone().resultLines; }
};

TEST_F(AppDelegateTest, FirstLaunchUsesTheDefaultsAndStoresSourceAndRange) {
    launch();
    EXPECT_TRUE(items().systemItem->isChecked());
    EXPECT_FALSE(items().micItem->isChecked());
    EXPECT_TRUE(checked(TempoRange::Auto));
    EXPECT_EQ(items().rangeItems.at(TempoRange::Auto)->text(), "Auto (60\u2013200)");
    EXPECT_EQ(items().rangeItems.at(TempoRange::slow)->text(), "70\u2013140 BPM");
    EXPECT_TRUE(checked(Preference::both));
    EXPECT_EQ(items().relativeItems.at(Preference::both)->text(), "Show Both (Cm/E\u266d)");
    EXPECT_TRUE(items().notesItem->isChecked());
    EXPECT_FALSE(items().camelotItem->isChecked());
    EXPECT_FALSE(items().decimalsItem->isChecked());
    EXPECT_FALSE(items().compactItem->isChecked());
    EXPECT_FALSE(delegate->barView().compact);
    EXPECT_EQ(delegate->barView().keySlot, 6);
    EXPECT_EQ(delegate->barView().bpmSlot, 3);
    EXPECT_EQ(delegate->statusItem().width(), static_cast<int>(delegate->barView().preferredWidth()));
    EXPECT_EQ(delegate->statusItem().height(), 22);
    EXPECT_TRUE(delegate->service().isRunning());
    EXPECT_EQ(delegate->service().range(), TempoRange::Auto);
    EXPECT_EQ(stored("audioSource").toString(), "systemAudio");
    EXPECT_EQ(stored("tempoRange").toString(), "auto");
    // The offscreen platform has no X display to watch.
    EXPECT_NE(std::find(log.begin(), log.end(), "drag monitor installed: false"), log.end());
    EXPECT_FALSE(delegate->items().fileLine->isVisible());

    // The bar sits at the top right of the available area, 8 px in from the right edge.
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_EQ(delegate->statusItem().geometry().right(), area.right() - 8);
    EXPECT_EQ(delegate->statusItem().y(), area.top());

    // Key equivalents as the menu shows them.
    EXPECT_EQ(items().pauseItem->shortcut(), QKeySequence("Ctrl+P"));
    EXPECT_EQ(items().copyItem->shortcut(), QKeySequence("Ctrl+C"));
    EXPECT_EQ(items().analyzeItem->shortcut(), QKeySequence("Ctrl+O"));
    EXPECT_EQ(items().resetItem->shortcut(), QKeySequence("Ctrl+R"));
    EXPECT_EQ(items().helpItem->shortcut(), QKeySequence("Ctrl+?"));
    EXPECT_EQ(items().quitItem->shortcut(), QKeySequence("Ctrl+Q"));
    EXPECT_EQ(items().quitItem->text(), "Quit Velquin");
}

TEST_F(AppDelegateTest, StoredSettingsAreReadBackAndBadValuesFallBack) {
    store("useCamelot", true);
    store("showNotes", "maybe");  // not a bool: shown
    store("relativePreference", "minor");
    store("showDecimals", true);
    store("compactBar", true);
    store("tempoRange", "fast");
    store("audioSource", "microphone");
    launch();
    EXPECT_TRUE(items().camelotItem->isChecked());
    EXPECT_TRUE(items().notesItem->isChecked());
    EXPECT_TRUE(checked(Preference::minor));
    EXPECT_FALSE(checked(Preference::both));
    EXPECT_TRUE(items().decimalsItem->isChecked());
    EXPECT_TRUE(items().compactItem->isChecked());
    EXPECT_TRUE(checked(TempoRange::fast));
    EXPECT_FALSE(checked(TempoRange::Auto));
    EXPECT_TRUE(items().micItem->isChecked());
    EXPECT_EQ(delegate->service().kind(), AudioSourceKind::microphone);
    EXPECT_TRUE(delegate->barView().compact);
    EXPECT_EQ(delegate->barView().keySlot, 7);
    EXPECT_EQ(delegate->barView().bpmSlot, 5);

    // Toggles are stored and read back by the next launch.
    delegate->toggleCamelot();
    delegate->toggleNotes();
    delegate->toggleDecimals();
    delegate->toggleCompact();
    delegate.reset();
    launch();
    EXPECT_FALSE(items().camelotItem->isChecked());
    EXPECT_FALSE(items().notesItem->isChecked());
    EXPECT_FALSE(items().decimalsItem->isChecked());
    EXPECT_FALSE(items().compactItem->isChecked());
    EXPECT_EQ(delegate->barView().keySlot, 6);

    // Unknown values: auto range, system audio, both.
    delegate.reset();
    store("tempoRange", "Fast");
    store("audioSource", "speakers");
    store("relativePreference", "neither");
    launch();
    EXPECT_TRUE(checked(TempoRange::Auto));
    EXPECT_TRUE(items().systemItem->isChecked());
    EXPECT_TRUE(checked(Preference::both));
    EXPECT_EQ(stored("tempoRange").toString(), "auto");
    EXPECT_EQ(stored("audioSource").toString(), "systemAudio");
}

TEST_F(AppDelegateTest, RenderFillsTheBarAndTheInformationLines) {
    launch();
    StatusBarView& bar = delegate->barView();

    // Below 0.35 the bar shows no key, but the status line still gives it with its percentage.
    delegate->render({128, 0.8, 0}, keyOf(9, true, 0.34, cMajor));
    EXPECT_EQ(bar.keyText, "-");
    EXPECT_EQ(bar.bpmText, "128");
    EXPECT_DOUBLE_EQ(bar.confidence, 0.34);
    EXPECT_EQ(statusLine(), "A minor (8A) 34% \u2014 or C major (8B)  \u00b7  128 BPM 80%");
    EXPECT_FALSE(bar.showingFile);

    delegate->render({128, 0.8, 0}, keyOf(9, true, 0.35, cMajor));
    EXPECT_EQ(bar.keyText, "Am/C");
    // Sharps and flats in plain characters.
    delegate->render({128, 0.8, 0}, keyOf(6, false, 0.9));
    EXPECT_EQ(bar.keyText, "F#");
    delegate->render({128, 0.8, 0}, keyOf(10, true, 0.9));
    EXPECT_EQ(bar.keyText, "Bbm");
    EXPECT_EQ(statusLine(), "B\u266d minor (3A) 90%  \u00b7  128 BPM 80%");

    // A key and no tempo: the ring is empty; three hyphens, or five with decimals.
    delegate->render({0, 0.9, 0}, keyOf(9, true, 0.9));
    EXPECT_EQ(bar.bpmText, "---");
    EXPECT_EQ(bar.confidence, 0);
    EXPECT_EQ(statusLine(), "A minor (8A) 90%");
    delegate->toggleDecimals();
    delegate->render({0, 0.9, 0}, keyOf(9, true, 0.9));
    EXPECT_EQ(bar.bpmText, "-----");
    delegate->render({128.44, 0.5, 0}, KeyEstimate::unknown);
    EXPECT_EQ(bar.bpmText, "128.4");
    EXPECT_EQ(bar.keyText, "-");
    EXPECT_EQ(statusLine(), "128.4 BPM 50%");
    EXPECT_EQ(bar.confidence, 0);

    // Camelot in the bar and a one-key preference.
    delegate->toggleCamelot();
    delegate->chooseRelative(items().relativeItems.at(Preference::major));
    delegate->render({120, 0.9, 0}, keyOf(9, true, 0.9, cMajor));
    EXPECT_EQ(bar.keyText, "8B");
    // The alternative is the key shown, so it is not offered again.
    EXPECT_EQ(statusLine(), "C major (8B) 90%  \u00b7  120.0 BPM 90%");
    EXPECT_EQ(stored("relativePreference").toString(), "major");
    EXPECT_TRUE(checked(Preference::major));
    EXPECT_FALSE(checked(Preference::both));

    // Tuning shows from 8 cents either way, rounded.
    const auto tuning = [&](double cents) {
        delegate->render({120, 0.9, 0}, keyOf(9, true, 0.9, std::nullopt, cents));
        return items().tuningLine->isVisible() ? std::optional(items().tuningLine->text()) : std::nullopt;
    };
    EXPECT_EQ(tuning(-7.9), std::nullopt);
    EXPECT_EQ(tuning(-8.0), "Tuned -8 cents from A440");
    EXPECT_EQ(tuning(12.4), "Tuned +12 cents from A440");
    KeyEstimate noKey = KeyEstimate::unknown;
    noKey.tuningCents = 20;
    delegate->render({120, 0.9, 0}, noKey);
    EXPECT_FALSE(items().tuningLine->isVisible());

    // The note line: twelve cells, the tonic bold; hidden without a key or when switched off.
    delegate->render({120, 0.9, 0}, keyOf(9, true, 0.9));
    EXPECT_TRUE(items().notesLine->isVisible());
    EXPECT_EQ(delegate->notesLineText().count("<b>"), 1);
    EXPECT_TRUE(delegate->notesLineText().contains("<b>A&nbsp;"));
    delegate->toggleNotes();
    EXPECT_FALSE(items().notesLine->isVisible());
    delegate->toggleNotes();
    delegate->render({120, 0.9, 0}, KeyEstimate::unknown);
    EXPECT_FALSE(items().notesLine->isVisible());
}

TEST_F(AppDelegateTest, StatusLineWithoutEstimatesFollowsTheServiceState) {
    launch();
    delegate->render({}, KeyEstimate::unknown);
    EXPECT_EQ(statusLine(), "Listening to System Audio\u2026");
    delegate->togglePause();
    EXPECT_TRUE(items().pauseItem->isChecked());
    EXPECT_FALSE(delegate->service().isRunning());
    EXPECT_EQ(statusLine(), "Paused");
    // Choosing a source again ends the pause.
    delegate->chooseSystem();
    EXPECT_FALSE(items().pauseItem->isChecked());
    EXPECT_TRUE(delegate->service().isRunning());
    delegate->chooseMic();
    delegate->render({}, KeyEstimate::unknown);
    EXPECT_EQ(statusLine(), "Listening to Microphone\u2026");
    EXPECT_EQ(stored("audioSource").toString(), "microphone");
    EXPECT_TRUE(items().micItem->isChecked());
    EXPECT_FALSE(items().systemItem->isChecked());
}

TEST_F(AppDelegateTest, CaptureErrorsAlertAndCanSwitchToTheMicrophone) {
    systemAudioFailure = "no monitor source";
    launch();
    ASSERT_EQ(errorAlerts.size(), 1u);
    EXPECT_EQ(errorAlerts[0].toStdString(), *delegate->service().lastError());
    // The update after the error shows the error text.
    EXPECT_EQ(statusLine().toStdString(), *delegate->service().lastError());
    EXPECT_TRUE(items().systemItem->isChecked());

    delegate->show("something broke");
    EXPECT_EQ(statusLine(), "Error \u2014 see menu");

    useMicrophone = true;
    delegate->chooseSystem();
    EXPECT_EQ(errorAlerts.size(), 3u);
    EXPECT_TRUE(items().micItem->isChecked());
    EXPECT_TRUE(delegate->service().isRunning());
    EXPECT_EQ(delegate->service().kind(), AudioSourceKind::microphone);
    EXPECT_EQ(statusLine(), "Listening to Microphone\u2026");
}

TEST_F(AppDelegateTest, RangeChoicesAreCheckedStoredAndPassedOn) {
    launch();
    QAction bogus;
    bogus.setData(QStringLiteral("presto"));
    delegate->chooseRange(&bogus);
    EXPECT_TRUE(checked(TempoRange::Auto));
    delegate->chooseRange(items().rangeItems.at(TempoRange::verySlow));
    EXPECT_TRUE(checked(TempoRange::verySlow));
    EXPECT_FALSE(checked(TempoRange::Auto));
    EXPECT_EQ(delegate->service().range(), TempoRange::verySlow);
    EXPECT_EQ(stored("tempoRange").toString(), "verySlow");
    bogus.setData(QStringLiteral("Both"));
    delegate->chooseRelative(&bogus);
    EXPECT_TRUE(checked(Preference::both));
}

TEST_F(AppDelegateTest, CopyUsesLiveValuesAndBeepsWithNothingToCopy) {
    launch();
    EXPECT_EQ(delegate->copiedText({128.4, 0.9, 0}, KeyEstimate::unknown), "128 BPM");
    delegate->toggleDecimals();
    EXPECT_EQ(delegate->copiedText({128.4, 0.9, 0}, KeyEstimate::unknown), "128.4 BPM");
    // No confidence threshold and no plain-character sharps here.
    delegate->toggleCamelot();
    EXPECT_EQ(delegate->copiedText({128, 0.9, 0}, keyOf(9, true, 0.1)), "8A \u00b7 128.0 BPM");
    delegate->toggleCamelot();
    EXPECT_EQ(delegate->copiedText({0, 0, 0}, keyOf(6, false, 0.1)), "F\u266f");
    EXPECT_EQ(delegate->copiedText({0, 0, 0}, KeyEstimate::unknown), std::nullopt);
    // The live service has estimated nothing yet.
    delegate->copyBoth();
    EXPECT_EQ(beeps, 1);
}

TEST_F(AppDelegateTest, ShortenedKeepsBothEndsAroundAnEllipsis) {
    const QString forty = "abcdefghijklmnopqrstuvwxyz0123456789.wav";
    ASSERT_EQ(forty.size(), 40);
    const QString shortened = AppDelegate::shortened(forty, 30);
    EXPECT_EQ(shortened, "abcdefghijklmnopq\u202623456789.wav");
    EXPECT_EQ(shortened.size(), 30);
    EXPECT_EQ(AppDelegate::shortened(forty.left(30), 30), forty.left(30));
    // Characters, not UTF-16 units.
    const QString wide = QString::fromUtf8("\xF0\x9F\x8E\xB5").repeated(31);
    EXPECT_EQ(AppDelegate::shortened(wide, 30).toUcs4().size(), 30);
}

TEST_F(AppDelegateTest, ADroppedFileShowsOnTheShelfThenInTheBarForAWhile) {
    launch();
    const QString name = "abcdefghijklmnopqrstuvwxyz0123456789.wav";
    analyzerAnswers(TempoService::FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8, cMajor)});
    delegate->analyzeDropped(QUrl::fromLocalFile("/music/" + name));
    EXPECT_EQ(delegate->barView().keyText, "...");
    EXPECT_EQ(delegate->barView().bpmText, "");
    EXPECT_EQ(shelfLines(), (QStringList{"Listening to file\u2026", "", name}));
    EXPECT_EQ(log.back(), "dropped: " + name.toStdString());

    ASSERT_TRUE(test::waitUntil([&] { return delegate->fileResult().has_value(); }, 10000));
    EXPECT_EQ(shelfLines(), (QStringList{"A minor / C major", "8A/8B  \u00b7  120 BPM", name}));
    EXPECT_TRUE(delegate->shelf().isVisible());
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), 4.0);
    EXPECT_TRUE(delegate->fileInBar());
    EXPECT_TRUE(delegate->isFileTimerPending());
    StatusBarView& bar = delegate->barView();
    EXPECT_TRUE(bar.showingFile);
    EXPECT_EQ(bar.keyText, "Am/C");
    EXPECT_EQ(bar.bpmText, "120");
    // Live updates keep showing the file while it is in the bar.
    delegate->render({90, 0.5, 0}, KeyEstimate::unknown);
    EXPECT_EQ(bar.bpmText, "120");
    EXPECT_EQ(statusLine(), "A minor (8A) 80% \u2014 or C major (8B)  \u00b7  120 BPM 90%");
    EXPECT_TRUE(items().fileLine->isVisible());
    EXPECT_EQ(items().fileLine->text(),
              "Last file: abcdefghijklmnopq\u202623456789.wav \u2014 A minor (8A) or C major \u00b7 120 BPM");

    // A file with neither key nor tempo; the bar goes back to live values when its time is up, the file
    // line stays until Reset.
    analyzerAnswers(TempoService::FileResult{{0, 0, 0}, KeyEstimate::unknown});
    delegate->analyzeDropped(QUrl::fromLocalFile("/music/quiet.wav"));
    ASSERT_TRUE(test::waitUntil([&] { return delegate->fileResult()->name == "quiet.wav"; }, 10000));
    EXPECT_EQ(shelfLines(), (QStringList{"No clear key", "no steady tempo", "quiet.wav"}));
    EXPECT_EQ(bar.keyText, "-");
    EXPECT_EQ(bar.bpmText, "---");
    EXPECT_TRUE(bar.showingFile);
    // Another drop restarts the time in the bar; this one is up at once.
    delegate->fileInBarSeconds = 0;
    delegate->analyzeDropped(QUrl::fromLocalFile("/music/quiet.wav"));
    EXPECT_EQ(bar.keyText, "...");
    ASSERT_TRUE(
        test::waitUntil([&] { return !delegate->isFileTimerPending() && !delegate->fileInBar(); }, 10000));
    EXPECT_EQ(delegate->fileResult()->name, "quiet.wav");
    EXPECT_FALSE(bar.showingFile);
    EXPECT_TRUE(items().fileLine->isVisible());
    EXPECT_EQ(items().fileLine->text(), "Last file: quiet.wav \u2014 ");

    delegate->resetAll();
    EXPECT_FALSE(delegate->fileResult());
    delegate->render({}, KeyEstimate::unknown);
    EXPECT_FALSE(items().fileLine->isVisible());

    // A key and no tempo.
    analyzerAnswers(TempoService::FileResult{{0, 0, 0}, keyOf(0, false, 0.7)});
    delegate->analyzeDropped(QUrl::fromLocalFile("/music/drone.flac"));
    ASSERT_TRUE(test::waitUntil([&] { return delegate->fileResult().has_value(); }, 10000));
    EXPECT_EQ(shelfLines(), (QStringList{"C major", "8B  \u00b7  no steady tempo", "drone.flac"}));
}

TEST_F(AppDelegateTest, AnUnreadableDropLeavesTheLiveDisplay) {
    launch();
    analyzerAnswers(TempoService::FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8)});
    delegate->analyzeDropped(QUrl::fromLocalFile("/music/good.wav"));
    ASSERT_TRUE(test::waitUntil([&] { return delegate->fileResult().has_value(); }, 10000));
    analyzerAnswers(std::nullopt);
    delegate->analyzeDropped(QUrl::fromLocalFile("/music/broken.mp3"));
    ASSERT_TRUE(test::waitUntil([&] { return !delegate->fileResult().has_value(); }, 10000));
    EXPECT_EQ(shelfLines(), (QStringList{"Could not read that file", "", "broken.mp3"}));
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), 4.0);
    EXPECT_FALSE(delegate->barView().showingFile);
    EXPECT_EQ(delegate->barView().bpmText, "---");
    EXPECT_FALSE(items().fileLine->isVisible());
    EXPECT_TRUE(errorAlerts.empty());
}

TEST_F(AppDelegateTest, MenuAnalysisShowsAnAlertAndLeavesTheBarAlone) {
    launch();
    analyzerAnswers(TempoService::FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8, cMajor)});
    // Cancelled: nothing happens.
    delegate->analyzeFile();
    QTest::qWait(50);
    EXPECT_TRUE(fileAlerts.empty());

    chosenFile = "/music/song.m4a";
    delegate->analyzeFile();
    ASSERT_TRUE(test::waitUntil([&] { return !fileAlerts.empty(); }, 10000));
    EXPECT_EQ(fileAlerts[0].first, "song.m4a");
    EXPECT_EQ(fileAlerts[0].second, "A minor  (8A)  80% sure\nor C major  (8B)\n120 BPM  90% sure");
    EXPECT_FALSE(delegate->fileResult());
    EXPECT_FALSE(delegate->barView().showingFile);

    analyzerAnswers(TempoService::FileResult{{0, 0, 0}, KeyEstimate::unknown});
    delegate->analyzeFile();
    ASSERT_TRUE(test::waitUntil([&] { return fileAlerts.size() == 2; }, 10000));
    EXPECT_EQ(fileAlerts[1].second, "No clear key.\nNo steady tempo.");

    analyzerAnswers(std::nullopt, "Could not open the file.");
    delegate->analyzeFile();
    ASSERT_TRUE(test::waitUntil([&] { return !errorAlerts.empty(); }, 10000));
    EXPECT_EQ(errorAlerts[0], "Could not open the file.");
    EXPECT_EQ(statusLine(), "Error \u2014 see menu");
}

TEST_F(AppDelegateTest, ADropOnTheBarLocatesItOpensTheShelfAndMeasuresTheFile) {
    launch();
    analyzerAnswers(TempoService::FileResult{{100, 0.9, 0}, keyOf(9, true, 0.8)});
    StatusItem& bar = delegate->statusItem();
    const QRect frame = bar.frameGeometry();
    QCursor::setPos(frame.topLeft() + QPoint(12 + 5, 5));  // the bar is really 12 px right of its frame
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile("/notes/a.txt"), QUrl::fromLocalFile("/music/b.ogg")});
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(&bar, &enter, &delegate->dropTarget());
    EXPECT_TRUE(enter.isAccepted());
    EXPECT_EQ(delegate->knownItemFrame(), frame.translated(12, 0));
    EXPECT_TRUE(delegate->shelf().isVisible());
    EXPECT_EQ(delegate->shelf().panel().y(), frame.y() + frame.height() + 6);
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(&bar, &drop, &delegate->dropTarget());
    EXPECT_TRUE(drop.isAccepted());
    ASSERT_TRUE(test::waitUntil([&] { return delegate->fileResult().has_value(); }, 10000));
    EXPECT_EQ(delegate->fileResult()->name, "b.ogg");
    const std::vector<std::string> expected = {
        "item: drag entered",
        "item located at QRect(" + std::to_string(frame.x() + 12) + "," + std::to_string(frame.y()) + " " +
            std::to_string(frame.width()) + "x22); window says QRect(" + std::to_string(frame.x()) + "," +
            std::to_string(frame.y()) + " " + std::to_string(frame.width()) + "x22); offset 12.0",
        "shelf: show under QRect(" + std::to_string(frame.x() + 12) + "," + std::to_string(frame.y()) + " " +
            std::to_string(frame.width()) + "x22)",
    };
    const auto at = std::find(log.begin(), log.end(), "item: drag entered");
    ASSERT_NE(at, log.end());
    EXPECT_EQ(std::vector<std::string>(at, at + 3), expected);
    EXPECT_NE(std::find(log.begin(), log.end(), "item: dropped b.ogg"), log.end());
    EXPECT_NE(std::find(log.begin(), log.end(), "dropped: b.ogg"), log.end());

    // The same place again is not logged again.
    const size_t lines = log.size();
    delegate->locate(frame.translated(12, 0));
    EXPECT_EQ(log.size(), lines);
}

TEST_F(AppDelegateTest, TheDragWatcherShowsKeepsAndHidesTheShelf) {
    launch();
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    // Unknown item frame: nothing to show under without a drag.
    delegate->showShelf(std::nullopt);
    EXPECT_FALSE(delegate->shelf().isVisible());

    // A drag across the left of the top band never shows the shelf.
    delegate->leftMouseDragged(screen.topLeft() + QPoint(10, 10));
    delegate->leftMouseDragged(QPoint(screen.center().x(), screen.top() + 60));
    EXPECT_FALSE(delegate->shelf().isVisible());

    // In the top band: under a rectangle guessed around the pointer.
    const QPoint m(screen.x() + screen.width() / 2, screen.top() + 10);
    delegate->leftMouseDragged(m);
    ASSERT_TRUE(delegate->shelf().isVisible());
    EXPECT_EQ(delegate->shelf().panel().pos(), QPoint(m.x() - 30 + 30 - 150, screen.top() + 24 + 6));
    // Down onto the shelf: kept; far away: hidden 0.6 s later; released: 0.5 s.
    delegate->leftMouseDragged(QPoint(m.x(), screen.top() + 24 + 150));
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), std::nullopt);
    delegate->leftMouseDragged(QPoint(m.x(), screen.top() + 24 + 230));
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), 0.6);
    delegate->leftMouseDragged(QPoint(m.x() + 100, screen.top() + 24 + 100));
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), std::nullopt);
    delegate->leftMouseUp();
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), 0.5);
    delegate->shelf().scheduleHide(0);
    ASSERT_TRUE(test::waitUntil([&] { return !delegate->shelf().isVisible(); }, 5000));
    delegate->leftMouseUp();
    EXPECT_EQ(delegate->shelf().pendingHideSeconds(), std::nullopt);

    // Once the bar has been found, the zone is around it.
    const QRect frame = delegate->statusItem().frameGeometry();
    delegate->locate(frame);
    delegate->leftMouseDragged(QPoint(frame.x() - 50, frame.y() + frame.height() + 30));
    ASSERT_TRUE(delegate->shelf().isVisible());
    EXPECT_EQ(delegate->shelf().panel().y(), frame.y() + frame.height() + 6);
    EXPECT_EQ(delegate->shelf().panel().geometry().right(),
              QGuiApplication::primaryScreen()->availableGeometry().right() - 8);
}

TEST_F(AppDelegateTest, HelpOpensTheTroubleshootingSectionOfTheShippedPage) {
    launch();
    delegate->openHelp();
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_TRUE(opened[0].isLocalFile());
    EXPECT_TRUE(opened[0].path().endsWith("/install.html"));
    EXPECT_EQ(opened[0].fragment(), "troubleshooting");
}

}  // namespace
}  // namespace velquin
