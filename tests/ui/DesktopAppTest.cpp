#include <gtest/gtest.h>

#include <QActionGroup>
#include <QDBusConnection>
#include <QDropEvent>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QMimeData>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QWidgetAction>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "UiTestSupport.h"
#include "support/SilentSource.h"
#include "ui/DesktopApp.h"

namespace velquin {
namespace {

using Preference = KeyEstimate::RelativePreference;

using test::keyOf;

class DesktopAppTest : public ::testing::Test {
  protected:
    QTemporaryDir dir;
    std::vector<std::string> log;
    std::vector<QString> errorAlerts;
    std::vector<std::pair<QString, QString>> fileAlerts;
    std::vector<QUrl> opened;
    int beeps = 0;
    bool switchSource = false;
    bool browserOpens = true;
    std::vector<AudioSourceKind> failedSources;
    std::vector<std::pair<QString, QString>> fileErrors;
    std::vector<QString> helpPaths;
    std::optional<std::string> systemAudioFailure;
    std::optional<QString> chosenFile;
    int closedAlerts = 0;
    AudioSource* lastSource = nullptr;  // the service owns it
    QString desktop = QStringLiteral("KDE");
    bool barPlaceable = true;
    std::unique_ptr<DesktopApp> app;

    QString settingsPath() const { return dir.filePath(QStringLiteral("Velquin.conf")); }
    void store(const QString& key, const QVariant& value) {
        QSettings(settingsPath(), QSettings::IniFormat).setValue(key, value);
    }
    QVariant stored(const QString& key) { return QSettings(settingsPath(), QSettings::IniFormat).value(key); }

    void launch() {
        Dialogs dialogs{
            .askOtherSource =
                [this](const QString& message, AudioSourceKind failed) {
                    errorAlerts.push_back(message);
                    failedSources.push_back(failed);
                    return switchSource;
                },
            .closeSourceAlert = [this] { ++closedAlerts; },
            .showFileAlert = [this](const QString& message,
                                    const QString& text) { fileAlerts.emplace_back(message, text); },
            .showFileError = [this](const QString& name,
                                    const QString& reason) { fileErrors.emplace_back(name, reason); },
            .chooseAudioFile = [this] { return chosenFile; },
            .openUrl =
                [this](const QUrl& url) {
                    opened.push_back(url);
                    return browserOpens;
                },
            .showHelpPath = [this](const QString& path) { helpPaths.push_back(path); },
            .beep = [this] { ++beeps; },
        };
        app.reset();
        app = std::make_unique<DesktopApp>(DesktopApp::Options{
            .log = [this](std::string_view line) { log.emplace_back(line); },
            .settings = std::make_unique<QSettings>(settingsPath(), QSettings::IniFormat),
            .sourceFactory =
                [this](AudioSourceKind kind) {
                    auto source = std::make_unique<test::SilentSource>(
                        kind == AudioSourceKind::systemAudio ? systemAudioFailure : std::nullopt);
                    lastSource = source.get();
                    return source;
                },
            .dialogs = dialogs,
            .playerBus = QDBusConnection(QStringLiteral("no bus")),  // no desktop's players in tests
            .barPlaceable = barPlaceable,
            .currentDesktop = desktop,
        });
        app->launch();
    }

    // A file analysis that answers `result`, or throws `error` when there is no result.
    void analyzerAnswers(std::optional<FileResult> result, const std::string& error = "bad file") {
        app->drops().analyzer = [result, error](const std::string&, TempoRange,
                                                const fileAnalysis::FileAnalysisOptions&) {
            if (!result) throw std::runtime_error(error);
            return *result;
        };
    }

    const AppMenu::Items& items() { return app->menu().items(); }
    QString statusLine() { return app->menu().status(); }
    QString line(const QWidgetAction* item) { return AppMenu::lineText(item); }
    StatusBarView& view() { return app->bar().view(); }
    QStringList shelfLines() { return app->drops().shelf().zone().resultLines; }
    bool checked(Preference p) { return items().relativeItems.at(p)->isChecked(); }
    bool checked(TempoRange r) { return items().rangeItems.at(r)->isChecked(); }
};

TEST_F(DesktopAppTest, SettingsAreReadStoredAndFallBackToTheirDefaults) {
    struct Case {
        QString stored;               // key=value …, as an older run left them
        std::array<bool, 4> checked;  // Camelot, notes, decimals, compact
        Preference preference;
        TempoRange range;
        AudioSourceKind source;
    };
    const std::vector<Case> cases = {
        {"useCamelot=true showNotes=false relativePreference=minor showDecimals=1 compactBar=yes "
         "tempoRange=fast audioSource=microphone",
         {true, false, true, true},
         Preference::minor,
         TempoRange::fast,
         AudioSourceKind::microphone},
        // Values no version wrote fall back to the defaults.
        {"showNotes=maybe tempoRange=Fast audioSource=speakers relativePreference=neither",
         {false, true, false, false},
         Preference::both,
         TempoRange::Auto,
         AudioSourceKind::systemAudio},
    };
    for (const Case& c : cases) {
        QFile::remove(settingsPath());
        for (const QString& entry : c.stored.split(' '))
            store(entry.section('=', 0, 0), entry.section('=', 1));
        launch();
        const std::array<bool, 4> checks = {items().camelotItem->isChecked(), items().notesItem->isChecked(),
                                            items().decimalsItem->isChecked(),
                                            items().compactItem->isChecked()};
        EXPECT_EQ(checks, c.checked);
        EXPECT_TRUE(checked(c.preference) && checked(c.range));
        EXPECT_EQ(app->service().range(), c.range);
        EXPECT_EQ(app->service().kind(), c.source);
        EXPECT_EQ(items().micItem->isChecked(), c.source == AudioSourceKind::microphone);
        EXPECT_EQ(view().compact, c.checked[3]);
        EXPECT_EQ(app->bar().width(), static_cast<int>(view().preferredWidth()));
    }
    // Toggles and choices are stored and read back by the next launch.
    app->toggleCamelot();
    app->toggleDecimals();
    app->toggleCompact();
    app->toggleNotes();
    app->chooseRange(items().rangeItems.at(TempoRange::verySlow));
    app->chooseRelative(items().relativeItems.at(Preference::major));
    launch();
    EXPECT_TRUE(items().camelotItem->isChecked() && items().decimalsItem->isChecked() &&
                items().compactItem->isChecked());
    EXPECT_FALSE(items().notesItem->isChecked());
    EXPECT_TRUE(checked(TempoRange::verySlow) && !checked(TempoRange::Auto));
    EXPECT_TRUE(checked(Preference::major) && !checked(Preference::both));
}

TEST_F(DesktopAppTest, RenderFillsTheBarAndTheInformationLines) {
    launch();
    std::vector<Reading> seen;
    app->subscribe([&](const Reading& r) { seen.push_back(r); });
    app->render({128, 0.8, 0}, keyOf(9, true, 0.9, 12.4));
    EXPECT_EQ(view().keyText, "Am");
    EXPECT_EQ(view().bpmText, "128");
    EXPECT_DOUBLE_EQ(view().confidence, 0.8);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].line(), "Am 128");
    EXPECT_EQ(seen[0].status, statusLine());
    EXPECT_TRUE(items().tuningLine->isVisible());
    // The note line: the tonic bold; hidden without a key or when switched off.
    EXPECT_TRUE(items().notesLine->isVisible());
    EXPECT_EQ(app->menu().notesHtml().count("<b>"), 1);
    EXPECT_TRUE(app->menu().notesHtml().contains("<b>A&nbsp;"));
    app->toggleNotes();
    EXPECT_FALSE(items().notesLine->isVisible());
    app->toggleNotes();
    app->render({120, 0.9, 0}, KeyEstimate::unknown);
    EXPECT_FALSE(items().notesLine->isVisible());
    EXPECT_FALSE(items().tuningLine->isVisible());
    // The tempo range items name each range by its bounds.
    QStringList titles;
    for (const auto& [range, item] : items().rangeItems) titles << item->text();
    EXPECT_EQ(titles.join('|'), "Auto (60–200)|40–80 BPM|70–140 BPM|85–170 BPM|100–200 BPM");
}

TEST_F(DesktopAppTest, ThePlayingFilesReadingStandsInForTheLiveOneWhileFollowed) {
    launch();
    EXPECT_TRUE(items().followItem->isChecked());
    app->showPlaying(PlayerReading{
        "Playing: Artist \u2014 Song", "/music/song.mp3", {134.4, 0.9, 0}, keyOf(9, true, 0.8), 1.05});
    EXPECT_EQ(view().keyText, "Am");
    EXPECT_EQ(view().bpmText, "134");
    EXPECT_TRUE(view().showingFile);
    EXPECT_TRUE(items().fileLine->isVisible());
    EXPECT_EQ(line(items().fileLine), "Playing: Artist \u2014 Song");
    EXPECT_TRUE(statusLine().endsWith("  \u00b7  from the playing file")) << statusLine().toStdString();
    app->showPlaying(std::nullopt);  // paused, stopped, gone: the live (here silent) reading at once
    EXPECT_EQ(view().keyText, "-");
    EXPECT_FALSE(view().showingFile);
    EXPECT_FALSE(items().fileLine->isVisible());

    app->toggleFollow();
    EXPECT_FALSE(app->follower().isEnabled());
    launch();
    EXPECT_FALSE(items().followItem->isChecked());
    EXPECT_FALSE(app->follower().isEnabled());
}

TEST_F(DesktopAppTest, StatusLineFollowsPauseSourcesAndErrors) {
    systemAudioFailure = "no monitor source";
    launch();
    ASSERT_EQ(errorAlerts.size(), 1u);
    EXPECT_EQ(errorAlerts[0].toStdString(), *app->service().lastError());
    // The update after the error shows the error text.
    EXPECT_EQ(statusLine().toStdString(), *app->service().lastError());
    app->show("something broke");
    EXPECT_EQ(statusLine(), "Error \u2014 see menu");

    app->chooseMic();
    app->render({}, KeyEstimate::unknown);
    EXPECT_EQ(statusLine(), "Listening to Microphone\u2026");
    app->togglePause();
    EXPECT_TRUE(items().pauseItem->isChecked());
    EXPECT_FALSE(app->service().isRunning());
    EXPECT_EQ(statusLine(), "Paused");
    // Choosing a source ends the pause; "Use Microphone Instead" after a failure switches over.
    switchSource = true;
    app->chooseSystem();
    EXPECT_FALSE(items().pauseItem->isChecked());
    EXPECT_EQ(errorAlerts.size(), 3u);
    EXPECT_EQ(failedSources.back(), AudioSourceKind::systemAudio);
    EXPECT_TRUE(items().micItem->isChecked() && !items().systemItem->isChecked());
    EXPECT_EQ(app->service().kind(), AudioSourceKind::microphone);
    EXPECT_EQ(stored("audioSource").toString(), "microphone");
    EXPECT_EQ(statusLine(), "Listening to Microphone\u2026");

    // Copy takes the live values; with nothing estimated it only beeps.
    app->copyBoth();
    EXPECT_EQ(beeps, 1);
    app->openHelp();
    EXPECT_EQ(opened.size(), 1u);
    EXPECT_TRUE(helpPaths.empty());
    browserOpens = false;
    app->openHelp();
    EXPECT_EQ(helpPaths, std::vector<QString>{DesktopApp::helpPagePath()});
}

// Runs the event loop until `done`, for at most `seconds`.
bool pumpUntil(const std::function<bool()>& done, double seconds = 10) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > seconds * 1000) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

TEST_F(DesktopAppTest, AMissingOutputIsAWaitThenOneAlertThatCaptureComingBackCloses) {
    launch();
    app->service().setGracePeriod(std::chrono::milliseconds(300));
    lastSource->onRouteChange(AudioSource::Route::waitingForDevice);
    ASSERT_TRUE(pumpUntil([&] { return statusLine() == "Waiting for an output device\u2026"; }));
    EXPECT_TRUE(errorAlerts.empty());
    EXPECT_EQ(view().hint, "waiting\u2026");
    EXPECT_EQ(app->service().estimate().bpm, 0);

    ASSERT_TRUE(pumpUntil([&] { return !errorAlerts.empty(); }));
    EXPECT_EQ(errorAlerts[0], "No default output device was found.");
    ASSERT_TRUE(pumpUntil([&] { return statusLine() == "No default output device was found."; }));

    lastSource->onRouteChange(AudioSource::Route::capturing);
    ASSERT_TRUE(pumpUntil([&] { return closedAlerts == 1; }));
    ASSERT_TRUE(pumpUntil([&] { return statusLine() == "Listening to System Audio\u2026"; }));
    EXPECT_EQ(errorAlerts.size(), 1u);
}

TEST_F(DesktopAppTest, ADroppedFileShowsOnTheShelfThenInTheBarForAWhile) {
    launch();
    analyzerAnswers(FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8)});
    app->drops().analyzeDropped(QUrl::fromLocalFile("/music/a.wav"));
    EXPECT_EQ(view().keyText, "...");
    EXPECT_EQ(view().bpmText, "");
    EXPECT_EQ(shelfLines(), (QStringList{"Listening to file\u2026", "", "a.wav"}));
    EXPECT_EQ(log.back(), "dropped: a.wav");

    ASSERT_TRUE(test::waitUntil([&] { return app->shownFile().has_value(); }, 10000));
    EXPECT_EQ(shelfLines(), (QStringList{"A minor", "8A  \u00b7  120 BPM", "a.wav"}));
    EXPECT_TRUE(app->drops().shelf().isVisible());
    EXPECT_EQ(app->drops().shelf().pendingHideSeconds(), 4.0);
    EXPECT_TRUE(view().showingFile);
    // Live updates keep showing the file while it is in the bar.
    app->render({90, 0.5, 0}, KeyEstimate::unknown);
    EXPECT_EQ(view().bpmText, "120");
    EXPECT_TRUE(items().fileLine->isVisible());

    // Another drop restarts the time in the bar; this one is up at once. The file line stays until Reset.
    app->fileInBarSeconds = 0;
    app->drops().analyzeDropped(QUrl::fromLocalFile("/music/b.wav"));
    ASSERT_TRUE(
        test::waitUntil([&] { return app->shownFile()->name == "b.wav" && !app->fileInBar(); }, 10000));
    EXPECT_FALSE(view().showingFile);
    EXPECT_TRUE(items().fileLine->isVisible());
    app->resetAll();
    app->render({}, KeyEstimate::unknown);
    EXPECT_FALSE(items().fileLine->isVisible());

    // An unreadable file leaves the live display and shows no alert.
    analyzerAnswers(std::nullopt);
    app->drops().analyzeDropped(QUrl::fromLocalFile("/music/broken.mp3"));
    ASSERT_TRUE(test::waitUntil([&] { return shelfLines().value(0) == "Could not read that file"; }, 10000));
    EXPECT_EQ(shelfLines(), (QStringList{"Could not read that file", "", "broken.mp3"}));
    EXPECT_FALSE(app->shownFile());
    EXPECT_EQ(view().bpmText, "---");
    EXPECT_TRUE(errorAlerts.empty());
}

TEST_F(DesktopAppTest, MenuAnalysisShowsAnAlertAndLeavesTheBarAlone) {
    launch();
    analyzerAnswers(FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8)});
    app->analyzeFile();  // cancelled
    QTest::qWait(50);
    EXPECT_TRUE(fileAlerts.empty());

    chosenFile = "/music/song.m4a";
    app->analyzeFile();
    ASSERT_TRUE(test::waitUntil([&] { return !fileAlerts.empty(); }, 10000));
    EXPECT_EQ(fileAlerts[0].first, "song.m4a");
    EXPECT_EQ(fileAlerts[0].second, "A minor  (8A)  80% sure\n120 BPM  90% sure");
    EXPECT_FALSE(app->shownFile());
    EXPECT_FALSE(view().showingFile);

    // A file that cannot be read gets a file alert, never the capture alert.
    analyzerAnswers(std::nullopt, "Could not open the file.");
    app->analyzeFile();
    ASSERT_TRUE(test::waitUntil([&] { return !fileErrors.empty(); }, 10000));
    EXPECT_EQ(fileErrors[0], (std::pair<QString, QString>("song.m4a", "Could not open the file.")));
    EXPECT_TRUE(errorAlerts.empty());
}

TEST_F(DesktopAppTest, ADropOnTheBarLocatesItOpensTheShelfAndMeasuresTheFile) {
    launch();
    analyzerAnswers(FileResult{{100, 0.9, 0}, keyOf(9, true, 0.8)});
    BarWindow& bar = app->bar();
    const QRect frame = bar.frameGeometry();
    QCursor::setPos(frame.topLeft() + QPoint(12 + 5, 5));  // the bar is really 12 px right of its frame
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile("/notes/a.txt"), QUrl::fromLocalFile("/music/b.ogg")});
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(&bar, &enter, &app->drops().dropTarget());
    EXPECT_TRUE(enter.isAccepted());
    EXPECT_EQ(app->drops().knownItemFrame(), frame.translated(12, 0));
    EXPECT_TRUE(app->drops().shelf().isVisible());
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    test::deliver(&bar, &drop, &app->drops().dropTarget());
    ASSERT_TRUE(test::waitUntil([&] { return app->shownFile().has_value(); }, 10000));
    EXPECT_EQ(app->shownFile()->name, "b.ogg");
}

TEST_F(DesktopAppTest, TheDragWatcherShowsKeepsAndHidesTheShelf) {
    launch();
    DropCoordinator& drops = app->drops();
    DropShelf& shelf = drops.shelf();
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    drops.showShelf(std::nullopt);                            // unknown bar: nothing to show under
    drops.pointerDragged(screen.topLeft() + QPoint(10, 10));  // left of the top band
    EXPECT_FALSE(shelf.isVisible());

    // In the top band: under a rectangle guessed around the pointer. Then each move's effect on the hide.
    const QPoint m(screen.x() + screen.width() / 2, screen.top() + 10);
    drops.pointerDragged(m);
    ASSERT_TRUE(shelf.isVisible());
    EXPECT_EQ(shelf.window().pos(), QPoint(m.x() - 150, screen.top() + 24 + 6));
    const std::vector<std::pair<QPoint, std::optional<double>>> moves = {
        {{m.x(), screen.top() + 24 + 150}, std::nullopt},  // on the shelf
        {{m.x(), screen.top() + 24 + 230}, 0.6},           // below it
        {{m.x() + 100, screen.top() + 24 + 100}, std::nullopt},
    };
    for (const auto& [point, hide] : moves) {
        drops.pointerDragged(point);
        EXPECT_EQ(shelf.pendingHideSeconds(), hide);
    }
    drops.pointerReleased();
    EXPECT_EQ(shelf.pendingHideSeconds(), 0.5);
}

TEST_F(DesktopAppTest, FirstLaunchOpensTheMenuWithAHintAndTheBarSaysItIsListening) {
    launch();
    ASSERT_TRUE(test::waitUntil([&] { return app->menu().menu().isVisible(); }, 5000));
    EXPECT_TRUE(items().hintLine->isVisible());
    EXPECT_EQ(view().hint, "listening\u2026");
    EXPECT_EQ(view().toolTip(), statusLine());
    app->menu().menu().hide();
    EXPECT_FALSE(items().hintLine->isVisible());
    // Not on later launches.
    launch();
    QTest::qWait(50);
    EXPECT_FALSE(app->menu().menu().isVisible());
}

TEST_F(DesktopAppTest, GnomeWithoutAPanelHostIsToldOnceAboutTheExtension) {
    // Elsewhere a missing host says nothing.
    launch();
    ASSERT_TRUE(test::waitUntil([&] { return app->menu().menu().isVisible(); }, 5000));
    app->panel().onNoHost();
    EXPECT_EQ(line(items().hintLine), DesktopApp::movableHint);
    EXPECT_FALSE(stored(QStringLiteral("panelExtensionHintShown")).isValid());

    desktop = QStringLiteral("ubuntu:GNOME");
    launch();
    app->menu().menu().show();
    app->panel().onNoHost();
    EXPECT_TRUE(items().hintLine->isVisible());
    EXPECT_TRUE(line(items().hintLine).contains(QLatin1String("gnome-shell-extension-appindicator")));
    EXPECT_TRUE(stored(QStringLiteral("panelExtensionHintShown")).toBool());
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& l) { return l.find("AppIndicator") != std::string::npos; }),
              1);
    app->menu().menu().hide();
    // Once: a host that goes away later, or the next launch, says nothing more.
    app->panel().onNoHost();
    launch();
    app->panel().onNoHost();
    EXPECT_FALSE(items().hintLine->isVisible());
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& l) { return l.find("AppIndicator") != std::string::npos; }),
              1);
}

TEST_F(DesktopAppTest, ABarTheCompositorPlacesOffersNoDragAndRemembersNoPlace) {
    barPlaceable = false;
    launch();
    ASSERT_TRUE(test::waitUntil([&] { return app->menu().menu().isVisible(); }, 5000));
    EXPECT_EQ(line(items().hintLine), DesktopApp::fixedHint);
    EXPECT_FALSE(view().onMove);
    EXPECT_FALSE(view().onMoveEnd);
    EXPECT_TRUE(view().onClick);
    app->menu().menu().hide();
    EXPECT_TRUE(
        QSettings(settingsPath(), QSettings::IniFormat).childGroups().filter("barPosition").isEmpty());
}

TEST_F(DesktopAppTest, HidingTheNoteLineLeavesNothingPaintedBehind) {
    std::vector<QImage> pausedMenus;
    for (const bool showNotesFirst : {true, false}) {
        launch();
        QMenu& menu = app->menu().menu();
        const auto shown = [&] {
            menu.popup(QPoint(100, 100));
            EXPECT_TRUE(QTest::qWaitForWindowExposed(&menu));
            QTest::qWait(20);
            const QImage image = menu.grab().toImage();
            menu.hide();
            return image;
        };
        if (showNotesFirst) {
            app->render({120, 0.9, 0}, keyOf(1, false, 0.9, 20));
            shown();
        }
        app->togglePause();
        pausedMenus.push_back(shown());
    }
    EXPECT_TRUE(pausedMenus[0] == pausedMenus[1]);
}

TEST_F(DesktopAppTest, ShortcutsWorkWhileTheMenuIsOpen) {
    launch();
    QObject::disconnect(items().quitItem, &QAction::triggered, qApp, nullptr);
    int quits = 0;
    QObject::connect(items().quitItem, &QAction::triggered, [&] { ++quits; });
    int picks = 0;
    app->dialogs.chooseAudioFile = [&] {
        ++picks;
        return std::optional<QString>();
    };
    struct Case {
        Qt::Key key;
        Qt::KeyboardModifiers modifiers;
        std::function<bool()> happened;
    };
    const std::vector<Case> cases = {
        {Qt::Key_P, Qt::ControlModifier, [&] { return app->paused(); }},
        {Qt::Key_C, Qt::ControlModifier, [&] { return beeps == 1; }},
        {Qt::Key_O, Qt::ControlModifier, [&] { return picks == 1; }},
        {Qt::Key_R, Qt::ControlModifier, [&] { return !app->shownFile(); }},
        {Qt::Key_Question, Qt::ControlModifier | Qt::ShiftModifier, [&] { return opened.size() == 1; }},
        {Qt::Key_Q, Qt::ControlModifier, [&] { return quits == 1; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(QKeySequence(c.key).toString().toStdString());
        QMenu& menu = app->menu().menu();
        menu.popup(QPoint(100, 100));
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&menu));
        QTest::keyClick(&menu, c.key, c.modifiers);
        EXPECT_TRUE(test::waitUntil(c.happened, 2000));
        EXPECT_FALSE(menu.isVisible());
    }
}

TEST_F(DesktopAppTest, ADropKeepsItsShelfAndWorkingStateUntilTheResult) {
    launch();
    std::atomic<bool> finish = false;
    app->drops().analyzer = [&](const std::string&, TempoRange,
                                const fileAnalysis::FileAnalysisOptions& control) {
        control.onProgress(5, 10);
        while (!finish) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8)};
    };
    app->drops().locate(app->bar().frameGeometry());
    app->drops().analyzeDropped(QUrl::fromLocalFile("/music/long set.mp3"));
    app->drops().pointerReleased();  // the drag's release, seen after the drop
    app->render({90, 0.9, 0}, keyOf(0, false, 0.9));
    ASSERT_TRUE(test::waitUntil([&] { return shelfLines().value(1) == "0:05 of 0:10"; }, 5000));
    QTest::qWait(700);
    EXPECT_TRUE(app->drops().shelf().isVisible());
    EXPECT_EQ(app->drops().shelf().pendingHideSeconds(), std::nullopt);
    EXPECT_EQ(view().keyText, "...");
    EXPECT_EQ(view().bpmText, "");
    finish = true;
    ASSERT_TRUE(test::waitUntil([&] { return app->shownFile().has_value(); }, 5000));
    EXPECT_EQ(view().keyText, "Am");
    EXPECT_EQ(app->drops().shelf().pendingHideSeconds(), 4.0);
}

TEST_F(DesktopAppTest, PreciseFileAnalysisReachesDroppedAndPickedFilesAndIsRemembered) {
    launch();
    EXPECT_FALSE(items().preciseItem->isChecked());
    std::mutex mutex;
    std::vector<fileAnalysis::Analysis> asked;
    app->drops().analyzer = [&](const std::string&, TempoRange,
                                const fileAnalysis::FileAnalysisOptions& control) {
        std::lock_guard lock(mutex);
        asked.push_back(control.analysis);
        return FileResult{{120, 0.9, 0}, keyOf(9, true, 0.8)};
    };
    const auto askedCount = [&] {
        std::lock_guard lock(mutex);
        return asked.size();
    };
    app->drops().analyzeDropped(QUrl::fromLocalFile("/music/a.mp3"));
    ASSERT_TRUE(test::waitUntil([&] { return askedCount() == 1; }, 5000));
    app->togglePrecise();
    EXPECT_TRUE(items().preciseItem->isChecked());
    app->drops().analyzeDropped(QUrl::fromLocalFile("/music/b.mp3"));
    ASSERT_TRUE(test::waitUntil([&] { return askedCount() == 2; }, 5000));
    chosenFile = "/music/c.flac";
    app->analyzeFile();
    ASSERT_TRUE(test::waitUntil([&] { return askedCount() == 3; }, 5000));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(asked, (std::vector<fileAnalysis::Analysis>{fileAnalysis::Analysis::specified,
                                                              fileAnalysis::Analysis::precise,
                                                              fileAnalysis::Analysis::precise}));
    }
    launch();
    EXPECT_TRUE(items().preciseItem->isChecked());
}

TEST_F(DesktopAppTest, MenuAnalysisShowsProgressAndCancelsQuickly) {
    launch();
    std::atomic<bool> returned = false;
    app->drops().analyzer = [&](const std::string&, TempoRange,
                                const fileAnalysis::FileAnalysisOptions& control) {
        for (double done = 0; !control.stop.stop_requested(); done += 0.1) {
            control.onProgress(done, 600);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        returned = true;
        throw std::runtime_error("cancelled");
        return FileResult{};
    };
    chosenFile = "/music/mix.flac";
    app->analyzeFile();
    ASSERT_NE(app->progressWindow(), nullptr);
    EXPECT_TRUE(app->progressWindow()->isVisible());
    ASSERT_TRUE(
        test::waitUntil([&] { return app->progressWindow()->progressText().endsWith("of 10:00"); }, 5000));
    QElapsedTimer clock;
    clock.start();
    app->progressWindow()->close();
    ASSERT_TRUE(test::waitUntil([&] { return returned.load(); }, 1000));
    EXPECT_LT(clock.elapsed(), 200);
    QTest::qWait(50);
    EXPECT_EQ(app->progressWindow(), nullptr);
    EXPECT_TRUE(fileAlerts.empty() && fileErrors.empty());
}

}  // namespace
}  // namespace velquin
