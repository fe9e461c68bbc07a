#include "ui/DesktopApp.h"

#include <QCoreApplication>
#include <QCursor>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMimeData>
#include <QScreen>
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "ui/BarDropTarget.h"
#include "ui/ReadingText.h"

#ifndef VELQUIN_INSTALLED_HELP
#define VELQUIN_INSTALLED_HELP ""
#endif
#ifndef VELQUIN_HELP_FROM_BIN
#define VELQUIN_HELP_FROM_BIN "../share/doc/velquin/install.html"
#endif

namespace velquin {
namespace {

constexpr int shelfAtLaunchDelayMs = 1000;
constexpr double shelfAtLaunchSeconds = 6.0;

}  // namespace

DesktopApp::DesktopApp(Options options)
    : dialogs(options.dialogs ? std::move(*options.dialogs) : Dialogs::desktop()),
      log_(std::move(options.log)),
      store_(options.settings ? std::move(options.settings) : std::make_unique<QSettings>()),
      service_(std::move(options.sourceFactory)),
      showShelfAtLaunch_(options.showShelfAtLaunch),
      barPlaceable_(options.barPlaceable),
      currentDesktop_(options.currentDesktop ? *options.currentDesktop
                                             : qEnvironmentVariable("XDG_CURRENT_DESKTOP")),
      bar_(std::make_unique<BarWindow>()),
      layerBar_(std::move(options.layerBar)),
      barPosition_(*bar_, *store_),
      presenter_(menu_.menu(), options.focusableMenu),
      tray_(menu_.menu()),
      panel_(menu_.menu(), tray_, log_),
      drops_(log_),
      follower_(options.playerBus ? *options.playerBus : QDBusConnection::sessionBus(),
                std::make_shared<LibraryTrackCache>()) {
    fileTimer_.setSingleShot(true);
    connect(&fileTimer_, &QTimer::timeout, this, [this] {
        fileInBar_ = false;
        rerender();
    });
    connectItems();
}

DesktopApp::~DesktopApp() {
    // The service's callbacks point here; it is stopped before anything they use goes.
    service_.onUpdate = nullptr;
    service_.onError = nullptr;
    service_.onNotice = nullptr;
    service_.onProblem = nullptr;
    service_.onRecovered = nullptr;
    service_.stop();
    follower_.onReading = nullptr;
    follower_.onLog = nullptr;
}

void DesktopApp::connectItems() {
    const AppMenu::Items& items = menu_.items();
    const auto on = [this](QAction* item, void (DesktopApp::*action)()) {
        connect(item, &QAction::triggered, this, action);
    };
    on(items.systemItem, &DesktopApp::chooseSystem);
    on(items.micItem, &DesktopApp::chooseMic);
    on(items.pauseItem, &DesktopApp::togglePause);
    on(items.camelotItem, &DesktopApp::toggleCamelot);
    on(items.notesItem, &DesktopApp::toggleNotes);
    on(items.decimalsItem, &DesktopApp::toggleDecimals);
    on(items.preciseItem, &DesktopApp::togglePrecise);
    on(items.compactItem, &DesktopApp::toggleCompact);
    on(items.floatItem, &DesktopApp::toggleFloatBar);
    on(items.copyItem, &DesktopApp::copyBoth);
    on(items.analyzeItem, &DesktopApp::analyzeFile);
    on(items.resetItem, &DesktopApp::resetAll);
    on(items.followItem, &DesktopApp::toggleFollow);
    on(items.helpItem, &DesktopApp::openHelp);
    connect(items.quitItem, &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    for (const auto& [range, item] : items.rangeItems) {
        connect(item, &QAction::triggered, this, [this, a = item] { chooseRange(a); });
    }
    for (const auto& [preference, item] : items.relativeItems) {
        connect(item, &QAction::triggered, this, [this, a = item] { chooseRelative(a); });
    }
}

void DesktopApp::installQuitShortcuts() {
    // A desktop without a global menu bar needs only a way to quit from the program's own windows.
    const auto quitAction = [](QWidget& window) {
        auto action = std::make_unique<QAction>(QStringLiteral("Quit Velquin"));
        action->setShortcut(QKeySequence(QStringLiteral("Ctrl+Q")));
        action->setShortcutContext(Qt::WindowShortcut);
        connect(action.get(), &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        window.addAction(action.get());
        return action;
    };
    barQuitAction_ = quitAction(*bar_);
    shelfQuitAction_ = quitAction(drops_.shelf().window());
}

void DesktopApp::launch() {
    installQuitShortcuts();
    const bool firstLaunch = store_->allKeys().isEmpty();
    settings_ = DisplaySettings::read(*store_);

    StatusBarView& view = bar_->view();
    view.onClick = [this] { toggleMenu(); };
    view.onLocate = [this](const QRect& r) { drops_.locate(r); };
    if (barPlaceable_) {
        view.onMove = [this](const QPoint& topLeft) { bar_->move(topLeft); };
        view.onMoveEnd = [this] { barPosition_.remember(); };
    }
    drops_.barFrame = [this] { return bar_->frameGeometry(); };
    drops_.range = [this] { return service_.range(); };
    drops_.analysis = [this] { return fileAnalysis(); };
    drops_.onWorking = [this](const QString&) { rerender(); };
    drops_.describe = [this](const QString& name, const FileResult& result) {
        return text::shelfLines(name, result.tempo, result.key, settings_);
    };
    drops_.onAnalyzed = [this](const QString& name, const std::optional<FileResult>& result) {
        droppedResult(name, result);
    };
    drops_.attach(*bar_);
    connect(&menu_.menu(), &QMenu::aboutToShow, this, [this] { bar_->view().setHighlighted(true); });
    connect(&menu_.menu(), &QMenu::aboutToHide, this, [this] {
        bar_->view().setHighlighted(false);
        menu_.showHint(false);
    });

    const bool watching = drops_.watchDrags();
    if (log_) log_(std::string("drag monitor installed: ") + (watching ? "true" : "false"));

    menu_.build(settings_);
    menu_.setHintText(QLatin1String(barPlaceable_ ? movableHint : fixedHint));
    applyFixedWidth();
    if (layerBar_) {
        attachLayerBar();
    } else {
        if (barPlaceable_) {
            barPosition_.place();
            barPosition_.watchScreens();
        }
        bar_->setVisible(settings_.floatBar);
    }
    tray_.onTrigger = [this] { presenter_.popup(QCursor::pos()); };
    menu_.menu().insertAction(menu_.items().helpItem, panel_.loginItem());
    subscribe([this](const Reading& reading) { panel_.update(reading, settings_); });
    panel_.onActivate = [this](QPoint at) { presenter_.popup(at.isNull() ? QCursor::pos() : at); };
    panel_.onNoHost = [this] { noPanelHost(); };
    panel_.start();

    if (showShelfAtLaunch_) {
        QTimer::singleShot(shelfAtLaunchDelayMs, this, [this] {
            std::optional<QRect> r = drops_.knownItemFrame();
            if (!r && bar_->isVisible()) r = bar_->frameGeometry();
            drops_.showShelf(r);
            drops_.shelf().scheduleHide(shelfAtLaunchSeconds);
        });
    }

    const QPointer<DesktopApp> self(this);
    service_.onUpdate = [self](const TempoEstimate& tempo, const KeyEstimate& key) {
        if (self) self->render(tempo, key);
    };
    service_.onError = [self](const std::string& message) {
        // The service may replace its copy while the alert is open.
        const QString text = QString::fromStdString(message);
        if (self) self->show(text);
    };
    // Waits are said in the status line, not in an alert; only one that lasts gets the alert, and
    // capture coming back closes it.
    service_.onNotice = [self](const std::string&) {
        if (self) self->rerender();
    };
    service_.onProblem = service_.onError;
    service_.onRecovered = [self] {
        if (!self) return;
        if (self->dialogs.closeSourceAlert) self->dialogs.closeSourceAlert();
        self->rerender();
    };

    applyRange(storedRange(*store_));
    start(storedSource(*store_));

    follower_.onReading = [this](const std::optional<PlayerReading>& playing) { showPlaying(playing); };
    follower_.onLog = [this](const QString& line) {
        if (log_) log_(line.toStdString());
    };
    follower_.setEnabled(settings_.followPlayer);
    follower_.setAnalysis(fileAnalysis());
    follower_.start();
    if (firstLaunch) {
        // Once, so that a new user learns where the menu is and that the bar moves.
        menu_.showHint(true);
        QTimer::singleShot(0, this, [this] { showMenu(); });
    }
}

void DesktopApp::shutDown() {
    service_.stop();
}

QPoint DesktopApp::menuPoint() const {
    return bar_->isVisible() ? bar_->mapToGlobal(QPoint(0, bar_->height())) : QCursor::pos();
}

void DesktopApp::showMenu() {
    presenter_.popup(menuPoint());
}

void DesktopApp::toggleMenu() {
    presenter_.toggle(menuPoint());
}

void DesktopApp::attachLayerBar() {
    layerBar_->onClick = [this] { toggleMenu(); };
    layerBar_->onDrop = [this](const QList<QUrl>& urls) {
        QMimeData dragged;
        dragged.setUrls(urls);
        if (const std::optional<QUrl> url = BarDropTarget::audioURL(&dragged)) drops_.analyzeDropped(*url);
    };
    layerBar_->onMoved = [this](int margin) { storeBarMargin(*store_, layerBar_->outputName(), margin); };
    layerBar_->onOutput = [this](const QString& output) {
        layerBar_->setMargin(storedBarMargin(*store_, output).value_or(barPlacement::margin));
        showLayerBar();
    };
    showLayerBar();
}

void DesktopApp::showLayerBar() {
    if (!layerBar_) return;
    if (!settings_.floatBar) {
        layerBar_->hide();
        return;
    }
    // The hidden bar window draws what the layer surface shows.
    const int scale = layerBar_->scale();
    QImage image(bar_->size() * scale, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(scale);
    image.fill(Qt::transparent);
    bar_->render(&image);
    layerBar_->show(image);
}

void DesktopApp::noPanelHost() {
    // GNOME shows panel items only with the AppIndicator extension; its users are told once.
    if (!currentDesktop_.split(QLatin1Char(':')).contains(QLatin1String("GNOME"), Qt::CaseInsensitive))
        return;
    const QString key = QStringLiteral("panelExtensionHintShown");
    if (store_->value(key, false).toBool()) return;
    store_->setValue(key, true);
    std::fprintf(stderr, "Velquin: %s\n", extensionHint);
    if (log_) log_(std::string("no panel item host on GNOME: ") + extensionHint);
    menu_.setHintText(menu_.hintText() + QLatin1Char('\n') + QLatin1String(extensionHint));
    menu_.showHint(true);
    menu_.keepOnScreen();
}

void DesktopApp::subscribe(std::function<void(const Reading&)> display) {
    displays_.push_back(std::move(display));
}

void DesktopApp::publish() {
    StatusBarView& view = bar_->view();
    view.keyText = reading_.keyText;
    view.bpmText = reading_.bpmText;
    view.confidence = reading_.confidence;
    view.showingFile = reading_.showingFile;
    view.setToolTip(reading_.status);
    view.update();
    // The window title carries the status too: scripts and accessibility tools can read it there.
    const QString windowTitle = reading_.status + QStringLiteral(" \u2014 Velquin");
    if (bar_->windowTitle() != windowTitle) bar_->setWindowTitle(windowTitle);
    tray_.update(reading_);
    showLayerBar();
    menu_.keepOnScreen();
    for (const auto& display : displays_) display(reading_);
}

QString DesktopApp::statusText(const TempoEstimate& tempo, const KeyEstimate& key) const {
    if (const auto line = text::estimateLine(tempo, key, settings_)) return *line;
    if (service_.isRunning()) {
        if (service_.lastError()) return QString::fromStdString(*service_.lastError());
        if (!service_.notice().empty()) return QString::fromStdString(service_.notice());
        return QStringLiteral("Listening to ") + QString::fromUtf8(displayName(service_.kind())) +
               QStringLiteral("\u2026");
    }
    if (paused_) return QStringLiteral("Paused");
    if (service_.lastError()) return QString::fromStdString(*service_.lastError());
    return QStringLiteral("Stopped");
}

void DesktopApp::render(const TempoEstimate& liveTempo, const KeyEstimate& liveKey) {
    // A file just dropped wins for its few seconds; then the playing file's reading; then the live one.
    const bool showingDrop = fileInBar_ && shownFile_;
    const bool showingPlayer = !showingDrop && playing_;
    const bool showingFile = showingDrop || showingPlayer;
    const TempoEstimate& tempo = showingDrop     ? shownFile_->tempo
                                 : showingPlayer ? playing_->tempo
                                                 : liveTempo;
    const KeyEstimate& key = showingDrop ? shownFile_->key : showingPlayer ? playing_->key : liveKey;

    if (playing_) {
        menu_.setFileLine(playing_->line);
    } else {
        menu_.setFileLine(shownFile_ ? std::optional(text::fileLine(shownFile_->name, shownFile_->tempo,
                                                                    shownFile_->key, settings_))
                                     : std::nullopt);
    }
    const bool working = drops_.isBusy() && !showingFile;
    // While a dropped file is measured the bar says so and no live value replaces that.
    reading_.keyText = working ? QStringLiteral("...") : text::barKey(key, settings_);
    reading_.bpmText = working ? QString() : text::barBpm(tempo, settings_);
    reading_.confidence = text::ringConfidence(tempo, key);
    reading_.showingFile = showingFile;
    reading_.status = statusText(tempo, key);
    if (showingPlayer) {
        const auto line = text::estimateLine(tempo, key, settings_);
        reading_.status = line ? *line + QStringLiteral("  \u00b7  from the playing file")
                               : QStringLiteral("From the playing file");
    }
    menu_.setStatus(reading_.status);
    menu_.setNotes(key.key && settings_.showNotes
                       ? std::optional(text::noteLineHtml(key, menu_.menu().palette()))
                       : std::nullopt);
    menu_.setTuning(text::tuningLine(key));
    const bool nothingYet = !working && !showingFile && !(tempo.bpm > 0) && !key.key;
    bar_->view().hint = !nothingYet || !service_.isRunning() ? QString()
                        : service_.notice().empty()          ? QStringLiteral("listening\u2026")
                                                             : QStringLiteral("waiting\u2026");
    publish();
}

void DesktopApp::rerender() {
    render(service_.estimate(), service_.keyEstimate());
}

void DesktopApp::applyFixedWidth() {
    StatusBarView& view = bar_->view();
    view.compact = settings_.compact;
    view.keySlot = settings_.useCamelot ? 7 : 6;
    view.bpmSlot = settings_.showDecimals ? 5 : 3;
    // The bar grows to the left: its right edge stays where the user sees it.
    const int right = bar_->geometry().right();
    const bool placed = bar_->isVisible();
    bar_->setLength(view.preferredWidth());
    if (placed) bar_->move(right + 1 - bar_->width(), bar_->y());
    view.update();
    showLayerBar();
}

void DesktopApp::applyRange(TempoRange range) {
    store(*store_, range);
    menu_.checkRange(range);
    service_.setRange(range);
    follower_.setRange(range);
}

void DesktopApp::start(AudioSourceKind kind) {
    store(*store_, kind);
    menu_.checkSource(kind);
    render(TempoEstimate{}, KeyEstimate::unknown);
    service_.start(kind);
    // Say at once that it listens, rather than "Stopped" until the first tick.
    if (service_.isRunning()) rerender();
}

void DesktopApp::show(const QString& error) {
    reading_.status = QStringLiteral("Error \u2014 see menu");
    menu_.setStatus(reading_.status);
    publish();
    const AudioSourceKind failed = service_.kind();
    if (dialogs.askOtherSource && dialogs.askOtherSource(error, failed)) {
        start(failed == AudioSourceKind::systemAudio ? AudioSourceKind::microphone
                                                     : AudioSourceKind::systemAudio);
    }
}

void DesktopApp::resetAll() {
    shownFile_.reset();
    fileInBar_ = false;
    service_.reset();
}

QString DesktopApp::helpPagePath() {
    const QString beside = QCoreApplication::applicationDirPath() + QStringLiteral("/docs/install.html");
    if (QFileInfo::exists(beside)) return beside;
    const QString relative =
        QCoreApplication::applicationDirPath() + QStringLiteral("/" VELQUIN_HELP_FROM_BIN);
    if (QFileInfo::exists(relative)) return QFileInfo(relative).canonicalFilePath();
    const QString installed = QStringLiteral(VELQUIN_INSTALLED_HELP);
    if (!installed.isEmpty() && QFileInfo::exists(installed)) return installed;
    return beside;
}

void DesktopApp::openHelp() {
    QUrl url = QUrl::fromLocalFile(helpPagePath());
    url.setFragment(QStringLiteral("troubleshooting"));
    if (dialogs.openUrl && dialogs.openUrl(url)) return;
    if (dialogs.showHelpPath) dialogs.showHelpPath(helpPagePath());
}

void DesktopApp::analyzeFile() {
    const std::optional<QString> path = dialogs.chooseAudioFile ? dialogs.chooseAudioFile() : std::nullopt;
    if (!path) return;
    const QString name = QFileInfo(*path).fileName();
    const fileAnalysis::Analyzer analyzer = withAnalysis(drops_.analyzer, fileAnalysis());
    menuAnalysis_.start(*path, service_.range(), analyzer, [this, name](FileJobOutcome outcome) {
        if (!outcome.result) {
            if (dialogs.showFileError) dialogs.showFileError(name, outcome.error);
        } else if (dialogs.showFileAlert) {
            dialogs.showFileAlert(name,
                                  text::alertText(outcome.result->tempo, outcome.result->key, settings_));
        }
    });
}

void DesktopApp::droppedResult(const QString& name, const std::optional<FileResult>& result) {
    if (!result) {
        shownFile_.reset();
        rerender();
        return;
    }
    shownFile_ = ShownFile{name, result->tempo, result->key};
    fileInBar_ = true;
    fileTimer_.start(static_cast<int>(std::lround(std::max(fileInBarSeconds, 0.0) * 1000)));
    rerender();
}

}  // namespace velquin
