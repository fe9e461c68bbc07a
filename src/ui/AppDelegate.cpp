#include "AppDelegate.h"

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QCursor>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QThreadPool>
#include <QWidgetAction>
#include <algorithm>
#include <charconv>
#include <cmath>

#include "ConfidenceRing.h"
#include "RectText.h"

#ifndef VELQUIN_INSTALLED_HELP
#define VELQUIN_INSTALLED_HELP ""
#endif

namespace velquin {
namespace {

constexpr double tuningThresholdCents = 8.0;
constexpr double barConfidenceThreshold = 0.35;
constexpr int barMargin = 8;  // from the right edge of the screen's available area
const QString middleDot = QStringLiteral(" \u00b7 ");
const QString spacedDot = QStringLiteral("  \u00b7  ");

QString q(const std::string& text) {
    return QString::fromStdString(text);
}

// Menu titles treat "&" as a mnemonic marker; file names must show it as it is.
void setTitle(QAction* item, const QString& title) {
    item->setText(QString(title).replace(QLatin1Char('&'), QLatin1String("&&")));
}

QString title(const QAction* item) {
    return QString(item->text()).replace(QLatin1String("&&"), QLatin1String("&"));
}

// The shortest text that reads back as the same double, with ".0" on whole numbers ("12.0", "-3.5").
std::string doubleText(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

// A bool stored by this program or edited by hand: real bools, numbers and the usual words.
std::optional<bool> boolValue(const QVariant& value) {
    if (!value.isValid()) return std::nullopt;
    if (value.typeId() == QMetaType::Bool) return value.toBool();
    const QString text = value.toString().trimmed().toLower();
    if (text == QLatin1String("true") || text == QLatin1String("yes")) return true;
    if (text == QLatin1String("false") || text == QLatin1String("no")) return false;
    bool isNumber = false;
    const double number = text.toDouble(&isNumber);
    if (isNumber) return number != 0;
    return std::nullopt;
}

QString noteLineHtml(const KeyEstimate& key, const QPalette& palette) {
    const QColor text = palette.color(QPalette::Active, QPalette::WindowText);
    const QColor background = palette.color(QPalette::Active, QPalette::Window);
    // Faint notes: the label colour two thirds of the way to the background, so it works as plain RGB.
    const QColor faint = QColor::fromRgbF(text.redF() * 0.35f + background.redF() * 0.65f,
                                          text.greenF() * 0.35f + background.greenF() * 0.65f,
                                          text.blueF() * 0.35f + background.blueF() * 0.65f);
    QString html = QStringLiteral("<span style=\"color:%1\">").arg(text.name());
    for (const NoteMeter::Cell& cell : NoteMeter::cells(key.chroma, key.key)) {
        QString part = q(cell.text).toHtmlEscaped().replace(QLatin1Char(' '), QLatin1String("&nbsp;"));
        if (cell.faint) part = QStringLiteral("<span style=\"color:%1\">%2</span>").arg(faint.name(), part);
        if (cell.bold) part = QStringLiteral("<b>%1</b>").arg(part);
        html += part;
    }
    return html + QStringLiteral("</span>");
}

TempoService::FileResult analyzeWithService(const std::string& path, TempoRange range) {
    return FileAnalysis::analyzeFile(path, range);
}

bool defaultAskUseMicrophone(const QString& message) {
    QMessageBox alert(QMessageBox::Warning, QStringLiteral("Velquin"),
                      QStringLiteral("Velquin could not listen"));
    alert.setInformativeText(message);
    QPushButton* ok = alert.addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
    QPushButton* microphone =
        alert.addButton(QStringLiteral("Use Microphone Instead"), QMessageBox::ActionRole);
    alert.setDefaultButton(ok);
    alert.setWindowFlag(Qt::WindowStaysOnTopHint);
    alert.show();
    alert.raise();
    alert.activateWindow();
    alert.exec();
    return alert.clickedButton() == microphone;
}

void defaultShowFileAlert(const QString& message, const QString& informativeText) {
    QMessageBox alert(QMessageBox::Information, QStringLiteral("Velquin"), message, QMessageBox::Ok);
    alert.setInformativeText(informativeText);
    alert.setWindowFlag(Qt::WindowStaysOnTopHint);
    alert.show();
    alert.raise();
    alert.activateWindow();
    alert.exec();
}

std::optional<QString> defaultChooseAudioFile() {
    QFileDialog panel(nullptr, QStringLiteral("Pick an audio file to measure."));
    panel.setFileMode(QFileDialog::ExistingFile);
    panel.setNameFilters(
        {QStringLiteral("Audio files (*.mp3 *.wav *.wave *.aif *.aiff *.aifc *.m4a *.mp4 *.aac "
                        "*.flac *.ogg *.oga *.opus *.caf)"),
         QStringLiteral("All files (*)")});
    panel.setWindowFlag(Qt::WindowStaysOnTopHint);
    panel.show();
    panel.raise();
    panel.activateWindow();
    if (panel.exec() != QDialog::Accepted || panel.selectedFiles().isEmpty()) return std::nullopt;
    return panel.selectedFiles().constFirst();
}

}  // namespace

AppDelegate::AppDelegate(LogSink log, std::unique_ptr<QSettings> defaults,
                         TempoService::SourceFactory sourceFactory)
    : askUseMicrophone(defaultAskUseMicrophone),
      showFileAlert(defaultShowFileAlert),
      chooseAudioFile(defaultChooseAudioFile),
      openUrl([](const QUrl& url) { QDesktopServices::openUrl(url); }),
      beep([] { QApplication::beep(); }),
      fileAnalyzer(analyzeWithService),
      log_(std::move(log)),
      defaults_(defaults ? std::move(defaults) : std::make_unique<QSettings>()),
      service_(std::move(sourceFactory)),
      statusItem_(std::make_unique<StatusItem>()),
      menu_(std::make_unique<QMenu>()),
      shelf_(log_),
      dropTarget_(log_) {
    fileTimer_.setSingleShot(true);
    connect(&fileTimer_, &QTimer::timeout, this, [this] {
        fileInBar_ = false;
        render(service_.estimate(), service_.keyEstimate());
    });
    shelfTestTimer_.setSingleShot(true);
    connect(&shelfTestTimer_, &QTimer::timeout, this, &AppDelegate::shelfTest);
    createItems();
}

AppDelegate::~AppDelegate() {
    // The service's callbacks point here; it is stopped before anything they use goes.
    service_.onUpdate = nullptr;
    service_.onError = nullptr;
    service_.stop();
}

void AppDelegate::createItems() {
    QMenu& m = *menu_;
    const auto item = [&m](const QString& text, const QKeySequence& key = {}) {
        QAction* a = m.addAction(text);
        m.removeAction(a);  // placed by buildMenu
        if (!key.isEmpty()) a->setShortcut(key);
        return a;
    };
    const auto info = [&](const QString& text) {
        QAction* a = item(text);
        a->setEnabled(false);
        return a;
    };
    const auto checkable = [&](const QString& text, void (AppDelegate::*action)(),
                               const QKeySequence& key = {}) {
        QAction* a = item(text, key);
        a->setCheckable(true);
        connect(a, &QAction::triggered, this, action);
        return a;
    };
    const auto plain = [&](const QString& text, void (AppDelegate::*action)(), const QKeySequence& key) {
        QAction* a = item(text, key);
        connect(a, &QAction::triggered, this, action);
        return a;
    };

    items_.statusLine = info(QStringLiteral("Listening\u2026"));
    items_.tuningLine = info(QString());
    items_.fileLine = info(QString());
    items_.fileLine->setVisible(false);

    // The note-strength line needs mixed weights and colours, which a plain menu item cannot show.
    notesLine_ = std::make_unique<QWidgetAction>(nullptr);
    items_.notesLine = notesLine_.get();
    auto label = std::make_unique<QLabel>();
    label->setTextFormat(Qt::RichText);
    QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    fixed.setPixelSize(12);
    label->setFont(fixed);
    label->setContentsMargins(28, 2, 12, 2);
    notesLabel_ = label.get();
    items_.notesLine->setDefaultWidget(label.release());
    items_.notesLine->setEnabled(false);
    items_.notesLine->setVisible(false);

    items_.systemItem = checkable(QStringLiteral("System Audio"), &AppDelegate::chooseSystem);
    items_.micItem = checkable(QStringLiteral("Microphone"), &AppDelegate::chooseMic);
    items_.pauseItem = checkable(QStringLiteral("Pause Listening"), &AppDelegate::togglePause,
                                 QKeySequence(QStringLiteral("Ctrl+P")));
    items_.camelotItem = checkable(QStringLiteral("Camelot Names (8A)"), &AppDelegate::toggleCamelot);
    items_.notesItem = checkable(QStringLiteral("Show Note Strengths"), &AppDelegate::toggleNotes);
    items_.decimalsItem =
        checkable(QStringLiteral("Show BPM Decimals (141.0)"), &AppDelegate::toggleDecimals);
    items_.compactItem = checkable(QStringLiteral("Compact (Two Lines)"), &AppDelegate::toggleCompact);
    items_.copyItem = plain(QStringLiteral("Copy Key and BPM"), &AppDelegate::copyBoth,
                            QKeySequence(QStringLiteral("Ctrl+C")));
    items_.analyzeItem = plain(QStringLiteral("Analyze Audio File\u2026"), &AppDelegate::analyzeFile,
                               QKeySequence(QStringLiteral("Ctrl+O")));
    items_.resetItem =
        plain(QStringLiteral("Reset"), &AppDelegate::resetAll, QKeySequence(QStringLiteral("Ctrl+R")));
    items_.helpItem =
        plain(QStringLiteral("Help\u2026"), &AppDelegate::openHelp, QKeySequence(QStringLiteral("Ctrl+?")));
    items_.quitItem = item(QStringLiteral("Quit Velquin"), QKeySequence(QStringLiteral("Ctrl+Q")));
    connect(items_.quitItem, &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);

    for (TempoRange range : allTempoRanges()) {
        QAction* a = item(q(menuTitle(range)));
        a->setCheckable(true);
        a->setData(
            QString::fromLatin1(rawValue(range).data(), static_cast<qsizetype>(rawValue(range).size())));
        connect(a, &QAction::triggered, this, [this, a] { chooseRange(a); });
        items_.rangeItems[range] = a;
    }
    const std::map<RelativePreference, QString> relativeTitles = {
        {RelativePreference::both, QStringLiteral("Show Both (Cm/E\u266d)")},
        {RelativePreference::major, QStringLiteral("Prefer Major")},
        {RelativePreference::minor, QStringLiteral("Prefer Minor")},
    };
    for (RelativePreference preference : allRelativePreferences()) {
        QAction* a = item(relativeTitles.at(preference));
        a->setCheckable(true);
        const std::string_view raw = rawValue(preference);
        a->setData(QString::fromLatin1(raw.data(), static_cast<qsizetype>(raw.size())));
        connect(a, &QAction::triggered, this, [this, a] { chooseRelative(a); });
        items_.relativeItems[preference] = a;
    }
}

void AppDelegate::buildMenu() {
    QMenu& m = *menu_;
    m.addAction(items_.statusLine);
    m.addAction(items_.notesLine);
    m.addAction(items_.tuningLine);
    m.addAction(items_.fileLine);
    m.addSeparator();
    m.addAction(QStringLiteral("Listen to"))->setEnabled(false);
    m.addAction(items_.systemItem);
    m.addAction(items_.micItem);
    m.addAction(items_.pauseItem);
    m.addSeparator();
    QMenu* ranges = m.addMenu(QStringLiteral("Tempo Range"));
    for (TempoRange range : allTempoRanges()) ranges->addAction(items_.rangeItems.at(range));
    QMenu* ties = m.addMenu(QStringLiteral("When Major and Minor Tie"));
    for (RelativePreference preference : allRelativePreferences()) {
        QAction* a = items_.relativeItems.at(preference);
        a->setChecked(preference == relativePreference_);
        ties->addAction(a);
    }
    items_.camelotItem->setChecked(useCamelot_);
    items_.notesItem->setChecked(showNotes_);
    items_.decimalsItem->setChecked(showDecimals_);
    items_.compactItem->setChecked(compact_);
    m.addAction(items_.camelotItem);
    m.addAction(items_.notesItem);
    m.addAction(items_.decimalsItem);
    m.addAction(items_.compactItem);
    m.addSeparator();
    m.addAction(items_.copyItem);
    m.addAction(items_.analyzeItem);
    m.addAction(items_.resetItem);
    m.addSeparator();
    m.addAction(items_.helpItem);
    m.addAction(items_.quitItem);
}

void AppDelegate::installEditMenu() {
    // A desktop without a global menu bar needs only a way to quit from the program's own windows.
    const auto quitAction = [](QWidget& window) {
        auto action = std::make_unique<QAction>(QStringLiteral("Quit Velquin"));
        action->setShortcut(QKeySequence(QStringLiteral("Ctrl+Q")));
        action->setShortcutContext(Qt::WindowShortcut);
        connect(action.get(), &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        window.addAction(action.get());
        return action;
    };
    barQuitAction_ = quitAction(*statusItem_);
    shelfQuitAction_ = quitAction(shelf_.panel());
}

void AppDelegate::readDefaults() {
    QSettings& d = *defaults_;
    useCamelot_ = boolValue(d.value(QLatin1String(camelotDefaultsKey))).value_or(false);
    // Read as an object: anything but a stored bool means the line is shown.
    const QVariant notes = d.value(QLatin1String(notesDefaultsKey));
    showNotes_ = notes.typeId() == QMetaType::Bool ? notes.toBool() : boolValue(notes).value_or(true);
    relativePreference_ =
        relativePreferenceFromRaw(d.value(QLatin1String(relativeDefaultsKey)).toString().toStdString())
            .value_or(RelativePreference::both);
    showDecimals_ = boolValue(d.value(QLatin1String(decimalsDefaultsKey))).value_or(false);
    compact_ = boolValue(d.value(QLatin1String(compactDefaultsKey))).value_or(false);
}

void AppDelegate::applicationDidFinishLaunching() {
    installEditMenu();
    readDefaults();

    StatusBarView& bar = barView();
    bar.onClick = [this] { openMenuUnderBar(); };
    bar.onLocate = [this](const QRect& r) { locate(r); };
    dropTarget_.onLocate = [this](const QRect& r) { locate(r); };
    dropTarget_.onDrop = [this](const QUrl& url) { analyzeDropped(url); };
    dropTarget_.onDragEntered = [this] { showShelf(std::nullopt); };
    // Without the drag watcher nothing else notices a drag that opened the shelf and went elsewhere;
    // a drag moving on to the shelf cancels this hide when it enters the zone.
    dropTarget_.onDragExited = [this] {
        if (!dragMonitor_ && shelf_.isVisible()) shelf_.scheduleHide(0.6);
    };
    dropTarget_.attach(statusItem_.get());
    shelf_.onDrop = [this](const QUrl& url) { analyzeDropped(url); };
    connect(menu_.get(), &QMenu::aboutToShow, this, [this] { barView().setHighlighted(true); });
    connect(menu_.get(), &QMenu::aboutToHide, this, [this] { barView().setHighlighted(false); });

    const bool watching = watchDrags();
    if (log_) log_(std::string("drag monitor installed: ") + (watching ? "true" : "false"));

    buildMenu();
    applyFixedWidth();
    placeBar();
    statusItem_->show();
    createTray();

    if (qEnvironmentVariableIsSet("TESSARO_DEBUG_SHELF")) shelfTestTimer_.start(1000);

    const QPointer<AppDelegate> self(this);
    service_.onUpdate = [self](const TempoEstimate& tempo, const KeyEstimate& key) {
        if (self) self->render(tempo, key);
    };
    service_.onError = [self](const std::string& message) {
        const QString text = q(message);  // the service may replace its copy while the alert is open
        if (self) self->show(text);
    };

    const std::string storedRange =
        defaults_->value(QLatin1String(rangeDefaultsKey)).toString().toStdString();
    applyRange(tempoRangeFromRaw(storedRange).value_or(TempoRange::Auto));
    const QString storedSource = defaults_->value(QLatin1String(sourceDefaultsKey)).toString();
    start(storedSource == QLatin1String("microphone") ? AudioSourceKind::microphone
                                                      : AudioSourceKind::systemAudio);
}

void AppDelegate::applicationWillTerminate() {
    service_.stop();
}

void AppDelegate::placeBar() {
    QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen) return;
    const QRect area = screen->availableGeometry();
    statusItem_->move(area.x() + area.width() - barMargin - statusItem_->width(), area.y());
}

void AppDelegate::openMenuUnderBar() {
    menu_->popup(statusItem_->mapToGlobal(QPoint(0, statusItem_->height())));
}

void AppDelegate::createTray() {
    if (!QSystemTrayIcon::isSystemTrayAvailable()) return;
    tray_ = std::make_unique<QSystemTrayIcon>();
    tray_->setContextMenu(menu_.get());
    connect(tray_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger) menu_->popup(QCursor::pos());
    });
    updateTray(barView().confidence, title(items_.statusLine));
    tray_->show();
}

void AppDelegate::updateTray(double confidence, const QString& status) {
    // The window title carries the status too: scripts and accessibility tools can read it there.
    const QString windowTitle = status + QStringLiteral(" \u2014 Velquin");
    if (statusItem_->windowTitle() != windowTitle) statusItem_->setWindowTitle(windowTitle);
    if (!tray_) return;
    if (tray_->toolTip() != status) tray_->setToolTip(status);
    // Redrawn only when the ring would look different.
    const int step = static_cast<int>(std::lround(std::clamp(confidence, 0.0, 1.0) * 100));
    if (step == trayConfidence_) return;
    trayConfidence_ = step;
    tray_->setIcon(QIcon(QPixmap::fromImage(ConfidenceRing::image(confidence, 22, 2))));
}

QString AppDelegate::bpmText(double bpm) const {
    return QString::asprintf(showDecimals_ ? "%.1f" : "%.0f", bpm);
}

QString AppDelegate::shortened(const QString& text, int to) {
    const QList<uint> characters = text.toUcs4();
    if (characters.size() <= to) return text;
    const qsizetype head = to / 2 + 2;
    const qsizetype tail = std::max(0, to / 2 - 3);
    const auto part = [&](qsizetype from, qsizetype count) {
        return QString::fromUcs4(reinterpret_cast<const char32_t*>(characters.constData() + from), count);
    };
    return part(0, head) + QStringLiteral("\u2026") + part(characters.size() - tail, tail);
}

void AppDelegate::render(const TempoEstimate& tempoIn, const KeyEstimate& keyIn) {
    const bool showingFile = fileInBar_ && fileResult_;
    const TempoEstimate& tempo = showingFile ? fileResult_->tempo : tempoIn;
    const KeyEstimate& key = showingFile ? fileResult_->key : keyIn;

    if (fileResult_) {
        QStringList parts;
        if (const auto keys = fileResult_->key.displayKeys(relativePreference_)) {
            QString part = q(keys->first.longName()) + QStringLiteral(" (") + q(keys->first.camelot()) + ')';
            if (keys->second) part += QStringLiteral(" or ") + q(keys->second->longName());
            parts << part;
        }
        if (fileResult_->tempo.bpm > 0) parts << bpmText(fileResult_->tempo.bpm) + QStringLiteral(" BPM");
        setTitle(items_.fileLine, QStringLiteral("Last file: ") + shortened(fileResult_->name, 30) +
                                      QStringLiteral(" \u2014 ") + parts.join(middleDot));
        items_.fileLine->setVisible(true);
    } else {
        items_.fileLine->setVisible(false);
    }

    StatusBarView& bar = barView();
    bar.keyText = QStringLiteral("-");
    if (key.confidence >= barConfidenceThreshold) {
        if (const auto text = key.shortText(useCamelot_, relativePreference_)) {
            bar.keyText = q(*text)
                              .replace(QStringLiteral("\u266f"), QStringLiteral("#"))
                              .replace(QStringLiteral("\u266d"), QStringLiteral("b"));
        }
    }
    const QString tempoText =
        tempo.bpm > 0 ? bpmText(tempo.bpm) : QString(showDecimals_ ? 5 : 3, QLatin1Char('-'));
    bar.bpmText = tempoText;
    bar.confidence = std::min(key.key ? key.confidence : 0.0, tempo.bpm > 0 ? tempo.confidence : 0.0);
    bar.showingFile = showingFile;
    bar.update();

    QString status;
    if (tempo.bpm > 0 || key.key) {
        QStringList parts;
        if (const auto keys = key.displayKeys(relativePreference_)) {
            QString part = q(keys->first.longName()) + QStringLiteral(" (") + q(keys->first.camelot()) +
                           QStringLiteral(") ") + QString::asprintf("%.0f%%", key.confidence * 100);
            if (key.alternative && *key.alternative != keys->first) {
                part += QStringLiteral(" \u2014 or ") + q(key.alternative->longName()) +
                        QStringLiteral(" (") + q(key.alternative->camelot()) + ')';
            }
            parts << part;
        }
        if (tempo.bpm > 0) parts << tempoText + QString::asprintf(" BPM %.0f%%", tempo.confidence * 100);
        status = parts.join(spacedDot);
    } else if (service_.isRunning()) {
        status = QStringLiteral("Listening to ") + q(std::string(displayName(service_.kind()))) +
                 QStringLiteral("\u2026");
    } else if (paused_) {
        status = QStringLiteral("Paused");
    } else if (service_.lastError()) {
        status = q(*service_.lastError());
    } else {
        status = QStringLiteral("Stopped");
    }
    setTitle(items_.statusLine, status);

    if (!key.key || !showNotes_) {
        items_.notesLine->setVisible(false);
    } else {
        notesLabel_->setText(noteLineHtml(key, menu_->palette()));
        items_.notesLine->setVisible(true);
    }

    if (std::abs(key.tuningCents) < tuningThresholdCents || !key.key) {
        items_.tuningLine->setVisible(false);
    } else {
        setTitle(items_.tuningLine, QString::asprintf("Tuned %+.0f cents from A440", key.tuningCents));
        items_.tuningLine->setVisible(true);
    }

    updateTray(bar.confidence, status);
}

QString AppDelegate::notesLineText() const {
    return notesLabel_->text();
}

void AppDelegate::applyFixedWidth() {
    StatusBarView& bar = barView();
    bar.compact = compact_;
    bar.keySlot = useCamelot_ ? 7 : 6;
    bar.bpmSlot = showDecimals_ ? 5 : 3;
    // The bar grows to the left: its right edge stays where the user sees it.
    const int right = statusItem_->geometry().right();
    const bool placed = statusItem_->isVisible();
    statusItem_->setLength(bar.preferredWidth());
    if (placed) statusItem_->move(right + 1 - statusItem_->width(), statusItem_->y());
    bar.update();
}

void AppDelegate::applyRange(TempoRange range) {
    const std::string_view raw = rawValue(range);
    defaults_->setValue(QLatin1String(rangeDefaultsKey),
                        QString::fromLatin1(raw.data(), static_cast<qsizetype>(raw.size())));
    for (const auto& [itemRange, item] : items_.rangeItems) item->setChecked(itemRange == range);
    service_.setRange(range);
}

void AppDelegate::start(AudioSourceKind kind) {
    const std::string_view raw = rawValue(kind);
    defaults_->setValue(QLatin1String(sourceDefaultsKey),
                        QString::fromLatin1(raw.data(), static_cast<qsizetype>(raw.size())));
    items_.systemItem->setChecked(kind == AudioSourceKind::systemAudio);
    items_.micItem->setChecked(kind == AudioSourceKind::microphone);
    render(TempoEstimate{}, KeyEstimate::unknown);
    service_.start(kind);
}

void AppDelegate::show(const QString& error) {
    setTitle(items_.statusLine, QStringLiteral("Error \u2014 see menu"));
    updateTray(barView().confidence, title(items_.statusLine));
    if (askUseMicrophone && askUseMicrophone(error)) start(AudioSourceKind::microphone);
}

void AppDelegate::chooseSystem() {
    paused_ = false;
    items_.pauseItem->setChecked(false);
    start(AudioSourceKind::systemAudio);
}

void AppDelegate::chooseMic() {
    paused_ = false;
    items_.pauseItem->setChecked(false);
    start(AudioSourceKind::microphone);
}

void AppDelegate::togglePause() {
    paused_ = !paused_;
    items_.pauseItem->setChecked(paused_);
    if (paused_) {
        service_.stop();
        render(TempoEstimate{}, KeyEstimate::unknown);
    } else {
        start(service_.kind());
    }
}

void AppDelegate::chooseRange(QAction* item) {
    if (!item) return;
    if (const auto range = tempoRangeFromRaw(item->data().toString().toStdString())) applyRange(*range);
}

void AppDelegate::chooseRelative(QAction* item) {
    if (!item) return;
    const auto preference = relativePreferenceFromRaw(item->data().toString().toStdString());
    if (!preference) return;
    relativePreference_ = *preference;
    const std::string_view raw = rawValue(*preference);
    defaults_->setValue(QLatin1String(relativeDefaultsKey),
                        QString::fromLatin1(raw.data(), static_cast<qsizetype>(raw.size())));
    for (const auto& [itemPreference, relativeItem] : items_.relativeItems) {
        relativeItem->setChecked(itemPreference == relativePreference_);
    }
    applyFixedWidth();
    render(service_.estimate(), service_.keyEstimate());
}

void AppDelegate::toggle(bool& setting, QAction* item, const char* key, bool fixedWidth) {
    setting = !setting;
    item->setChecked(setting);
    defaults_->setValue(QLatin1String(key), setting);
    if (fixedWidth) applyFixedWidth();
    render(service_.estimate(), service_.keyEstimate());
}

void AppDelegate::toggleCamelot() {
    toggle(useCamelot_, items_.camelotItem, camelotDefaultsKey, true);
}
void AppDelegate::toggleNotes() {
    toggle(showNotes_, items_.notesItem, notesDefaultsKey, false);
}
void AppDelegate::toggleDecimals() {
    toggle(showDecimals_, items_.decimalsItem, decimalsDefaultsKey, true);
}
void AppDelegate::toggleCompact() {
    toggle(compact_, items_.compactItem, compactDefaultsKey, true);
}

std::optional<QString> AppDelegate::copiedText(const TempoEstimate& tempo, const KeyEstimate& key) const {
    QStringList parts;
    if (const auto text = key.shortText(useCamelot_, relativePreference_)) parts << q(*text);
    if (tempo.bpm > 0) parts << bpmText(tempo.bpm) + QStringLiteral(" BPM");
    if (parts.isEmpty()) return std::nullopt;
    return parts.join(middleDot);
}

void AppDelegate::copyBoth() {
    // Always the live values, never a dropped file's.
    const std::optional<QString> text = copiedText(service_.estimate(), service_.keyEstimate());
    if (!text) {
        if (beep) beep();
        return;
    }
    QClipboard* clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(*text);
}

void AppDelegate::resetAll() {
    fileResult_.reset();
    fileInBar_ = false;
    service_.reset();
}

QString AppDelegate::helpPagePath() {
    const QString beside = QCoreApplication::applicationDirPath() + QStringLiteral("/docs/install.html");
    if (QFileInfo::exists(beside)) return beside;
    const QString installed = QStringLiteral(VELQUIN_INSTALLED_HELP);
    if (!installed.isEmpty() && QFileInfo::exists(installed)) return installed;
    return beside;
}

void AppDelegate::openHelp() {
    QUrl url = QUrl::fromLocalFile(helpPagePath());
    url.setFragment(QStringLiteral("troubleshooting"));
    if (openUrl) openUrl(url);
}

void AppDelegate::runAnalysis(const QString& path, std::function<void(AppDelegate&, Analysis)> done) {
    const QPointer<AppDelegate> self(this);
    auto analyzer = fileAnalyzer;
    const TempoRange range = service_.range();
    QThreadPool::globalInstance()->start([self, analyzer = std::move(analyzer), done = std::move(done),
                                          path = path.toStdString(), range]() mutable {
        Analysis analysis;
        try {
            analysis.result = analyzer(path, range);
        } catch (const std::exception& error) {
            analysis.error = QString::fromStdString(error.what());
        } catch (...) {
            analysis.error = QStringLiteral("The file could not be read.");
        }
        // Back on the main thread, and only while the delegate still exists.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, done = std::move(done), analysis = std::move(analysis)]() mutable {
                if (self) done(*self, std::move(analysis));
            },
            Qt::QueuedConnection);
    });
}

void AppDelegate::analyzeFile() {
    const std::optional<QString> path = chooseAudioFile ? chooseAudioFile() : std::nullopt;
    if (!path) return;
    const QString name = QFileInfo(*path).fileName();
    runAnalysis(*path, [name](AppDelegate& self, Analysis analysis) {
        if (!analysis.result) {
            self.show(analysis.error);
            return;
        }
        const KeyEstimate& key = analysis.result->key;
        const TempoEstimate& tempo = analysis.result->tempo;
        QString keyLine = QStringLiteral("No clear key.");
        if (const auto keys = key.displayKeys(self.relativePreference_)) {
            keyLine = q(keys->first.longName()) + QStringLiteral("  (") + q(keys->first.camelot()) +
                      QString::asprintf(")  %.0f%% sure", key.confidence * 100);
            if (keys->second) {
                keyLine += QStringLiteral("\nor ") + q(keys->second->longName()) + QStringLiteral("  (") +
                           q(keys->second->camelot()) + ')';
            }
        }
        const QString tempoLine =
            tempo.bpm > 0
                ? self.bpmText(tempo.bpm) + QString::asprintf(" BPM  %.0f%% sure", tempo.confidence * 100)
                : QStringLiteral("No steady tempo.");
        if (self.showFileAlert) self.showFileAlert(name, keyLine + '\n' + tempoLine);
    });
}

void AppDelegate::analyzeDropped(const QUrl& url) {
    const QString path = url.toLocalFile();
    const QString name = QFileInfo(path).fileName();
    if (log_) log_("dropped: " + name.toStdString());
    StatusBarView& bar = barView();
    bar.keyText = QStringLiteral("...");
    bar.bpmText = QString();
    bar.update();
    shelf_.showWorking(name);
    runAnalysis(path, [name](AppDelegate& self, Analysis analysis) { self.droppedResult(name, analysis); });
}

void AppDelegate::droppedResult(const QString& name, const Analysis& analysis) {
    if (!analysis.result) {
        fileResult_.reset();
        shelf_.showResult({QStringLiteral("Could not read that file"), QString(), name});
        shelf_.scheduleHide(4.0);
        render(service_.estimate(), service_.keyEstimate());
        return;
    }
    const KeyEstimate& key = analysis.result->key;
    const TempoEstimate& tempo = analysis.result->tempo;
    QString first = QStringLiteral("No clear key");
    QStringList second;
    if (const auto keys = key.displayKeys(relativePreference_)) {
        first = q(keys->first.longName());
        QString codes = q(keys->first.camelot());
        if (keys->second) {
            first += QStringLiteral(" / ") + q(keys->second->longName());
            codes += '/' + q(keys->second->camelot());
        }
        second << codes;
    }
    second << (tempo.bpm > 0 ? bpmText(tempo.bpm) + QStringLiteral(" BPM")
                             : QStringLiteral("no steady tempo"));
    shelf_.showResult({first, second.join(spacedDot), name});
    shelf_.scheduleHide(4.0);

    fileResult_ = FileResult{name, tempo, key};
    fileInBar_ = true;
    fileTimer_.start(static_cast<int>(std::lround(std::max(fileInBarSeconds, 0.0) * 1000)));
    render(service_.estimate(), service_.keyEstimate());
}

std::optional<QRect> AppDelegate::knownItemFrame() const {
    const QRect frame = statusItem_->frameGeometry();
    if (frame.height() <= 0 || !reportedToRealOffset_) return std::nullopt;
    return frame.translated(static_cast<int>(std::lround(*reportedToRealOffset_)), 0);
}

void AppDelegate::locate(const QRect& r) {
    const QRect frame = statusItem_->frameGeometry();
    const double offset = r.x() - frame.x();
    if (!reportedToRealOffset_ || *reportedToRealOffset_ != offset) {
        if (log_) {
            log_("item located at " + rectText(r) + "; window says " + rectText(frame) + "; offset " +
                 doubleText(offset));
        }
    }
    reportedToRealOffset_ = offset;
}

void AppDelegate::showShelf(std::optional<QRect> under) {
    if (!under) under = knownItemFrame();
    if (!under) return;
    if (!shelf_.isVisible() && log_) log_("shelf: show under " + rectText(*under));
    shelf_.show(*under);
}

bool AppDelegate::watchDrags() {
    auto monitor = std::make_unique<DragMonitor>();
    if (!monitor->install()) {
        dragMonitor_.reset();
        return false;
    }
    monitor->onLeftMouseUp = [this] { leftMouseUp(); };
    monitor->onLeftMouseDragged = [this](const QPoint& m) { leftMouseDragged(m); };
    dragMonitor_ = std::move(monitor);
    return true;
}

void AppDelegate::leftMouseUp() {
    if (shelf_.isVisible()) shelf_.scheduleHide(0.5);
}

void AppDelegate::leftMouseDragged(const QPoint& m) {
    QScreen* screen = QGuiApplication::screenAt(m);
    if (!screen) screen = QGuiApplication::primaryScreen();
    if (!screen) return;
    const QRect frame = screen->geometry();

    const std::optional<QRect> known = knownItemFrame();
    const QRect item = known.value_or(QRect(m.x() - 30, frame.y(), 60, 24));
    const QRect zone = known ? item.adjusted(-60, -40, 60, 40)
                             : QRect(frame.x() + static_cast<int>(std::lround(0.3 * frame.width())),
                                     frame.y(), static_cast<int>(std::lround(0.7 * frame.width())), 50);
    if (zone.contains(m)) {
        showShelf(item);
    } else if (shelf_.isVisible()) {
        // From just above the bar's lower edge down past the shelf, which hangs under it.
        const QRect keep(item.center().x() - 170, item.y() + item.height() - 20, 340, 220);
        if (keep.contains(m)) {
            showShelf(item);
        } else {
            shelf_.scheduleHide(0.6);
        }
    }
}

void AppDelegate::shelfTest() {
    std::optional<QRect> r = knownItemFrame();
    if (!r && statusItem_->isVisible()) r = statusItem_->frameGeometry();
    showShelf(r);
    shelf_.scheduleHide(6.0);
}

}  // namespace velquin
