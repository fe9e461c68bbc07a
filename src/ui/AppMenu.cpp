#include "ui/AppMenu.h"

#include <QActionGroup>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QKeyEvent>
#include <QLabel>
#include <QScreen>
#include <QWidgetAction>
#include <algorithm>

#include "analysis/Format.h"
#include "ui/ReadingText.h"

namespace velquin {
namespace {

// "Auto (60–200)", "40–80 BPM", …
std::string menuTitle(TempoRange range) {
    if (range == TempoRange::Auto) return "Auto (60–200)";
    const BPMBounds b = bounds(range);
    return format("%.0f–%.0f BPM", b.lower, b.upper);
}

constexpr int statusLimit = 60;  // characters; longer status texts are shortened, whole in the tooltip

QLabel* labelOf(const QWidgetAction* line) {
    return static_cast<QLabel*>(line->defaultWidget());
}

// QMenu leaves the widget of a hidden widget action where it was last laid out, painted over whatever
// moves there; hiding the widget too keeps the menu clean. The menu shows it again when it lays out.
void setLineVisible(QWidgetAction* line, bool visible) {
    line->setVisible(visible);
    if (!visible) labelOf(line)->hide();
}

// A monospaced font at 11 pt that has real sharp and flat signs; DejaVu Sans Mono when the system's
// fixed font lacks them.
QFont noteFont() {
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPointSize(11);
    const QFontMetricsF metrics(font);
    if (metrics.inFontUcs4(0x266F) && metrics.inFontUcs4(0x266D)) return font;
    QFont dejaVu(QStringLiteral("DejaVu Sans Mono"));
    dejaVu.setStyleHint(QFont::Monospace);
    dejaVu.setPointSize(11);
    return dejaVu;
}

// A popup menu is never the focused window, so its items' shortcuts would not fire while it is open;
// it matches them itself. Ctrl+? arrives as Ctrl+Shift+? on most layouts.
class ShortcutMenu : public QMenu {
  protected:
    void keyPressEvent(QKeyEvent* event) override {
        if (event->modifiers() & Qt::ControlModifier) {
            const QKeySequence pressed(event->keyCombination());
            const QKeySequence unshifted(
                QKeyCombination(event->modifiers() & ~Qt::ShiftModifier, Qt::Key(event->key())));
            for (QAction* action : actions()) {
                const QKeySequence shortcut = action->shortcut();
                if (shortcut.isEmpty() || !action->isEnabled() ||
                    (shortcut != pressed && shortcut != unshifted)) {
                    continue;
                }
                close();
                action->trigger();
                return;
            }
        }
        QMenu::keyPressEvent(event);
    }
};

}  // namespace

AppMenu::AppMenu() : menu_(std::make_unique<ShortcutMenu>()) {
    createItems();
}

AppMenu::~AppMenu() = default;

QWidgetAction* AppMenu::createLine(bool richText) {
    auto* line = new QWidgetAction(menu_.get());  // owned by the menu
    auto* label = new QLabel();                   // owned by the action
    label->setTextFormat(richText ? Qt::RichText : Qt::PlainText);
    label->setContentsMargins(28, 3, 12, 3);
    line->setDefaultWidget(label);
    return line;
}

void AppMenu::createItems() {
    QMenu& m = *menu_;
    const auto item = [&m](const QString& text, const char* key = nullptr) {
        QAction* a = m.addAction(text);
        m.removeAction(a);  // placed by build
        if (key) a->setShortcut(QKeySequence(QLatin1String(key)));
        return a;
    };
    const auto checkable = [&](const QString& text, const char* key = nullptr) {
        QAction* a = item(text, key);
        a->setCheckable(true);
        return a;
    };
    const auto group = [&m] {
        auto* g = new QActionGroup(&m);
        g->setExclusionPolicy(QActionGroup::ExclusionPolicy::Exclusive);
        return g;
    };

    items_.statusLine = createLine(false);
    QFont bold = labelOf(items_.statusLine)->font();
    bold.setBold(true);
    labelOf(items_.statusLine)->setFont(bold);
    setStatus(QStringLiteral("Listening\u2026"));
    items_.hintLine = createLine(false);
    labelOf(items_.hintLine)
        ->setText(QStringLiteral("Click the bar any time for this menu; drag it to move it"));
    setLineVisible(items_.hintLine, false);
    items_.notesLine = createLine(true);
    labelOf(items_.notesLine)->setFont(noteFont());
    setLineVisible(items_.notesLine, false);
    items_.tuningLine = createLine(false);
    setLineVisible(items_.tuningLine, false);
    items_.fileLine = createLine(false);
    setLineVisible(items_.fileLine, false);

    QActionGroup* sources = group();
    items_.systemItem = sources->addAction(checkable(QStringLiteral("System Audio")));
    items_.micItem = sources->addAction(checkable(QStringLiteral("Microphone")));
    items_.pauseItem = checkable(QStringLiteral("Pause Listening"), "Ctrl+P");
    items_.followItem = checkable(QStringLiteral("Follow the Player"));
    items_.camelotItem = checkable(QStringLiteral("Camelot Names (8A)"));
    items_.notesItem = checkable(QStringLiteral("Show Note Strengths"));
    items_.decimalsItem = checkable(QStringLiteral("Show BPM Decimals (141.0)"));
    items_.compactItem = checkable(QStringLiteral("Compact (Two Lines)"));
    items_.floatItem = checkable(QStringLiteral("Float Bar"));
    items_.copyItem = item(QStringLiteral("Copy Key and BPM"), "Ctrl+C");
    items_.analyzeItem = item(QStringLiteral("Analyze Audio File\u2026"), "Ctrl+O");
    items_.preciseItem = checkable(QStringLiteral("Precise File Analysis"));
    items_.resetItem = item(QStringLiteral("Reset"), "Ctrl+R");
    items_.helpItem = item(QStringLiteral("Help\u2026"), "Ctrl+?");
    items_.quitItem = item(QStringLiteral("Quit Velquin"), "Ctrl+Q");

    QActionGroup* ranges = group();
    for (TempoRange range : allTempoRanges()) {
        QAction* a = ranges->addAction(checkable(QString::fromStdString(menuTitle(range))));
        a->setData(qTextName(textName(range)));
        items_.rangeItems[range] = a;
    }
    const std::map<RelativePreference, QString> relativeTitles = {
        {RelativePreference::both, QStringLiteral("Show Both (Cm/E\u266d)")},
        {RelativePreference::major, QStringLiteral("Prefer Major")},
        {RelativePreference::minor, QStringLiteral("Prefer Minor")},
    };
    QActionGroup* ties = group();
    for (RelativePreference preference : allRelativePreferences()) {
        QAction* a = ties->addAction(checkable(relativeTitles.at(preference)));
        a->setData(qTextName(textName(preference)));
        items_.relativeItems[preference] = a;
    }
}

void AppMenu::build(const DisplaySettings& settings) {
    QMenu& m = *menu_;
    m.addAction(items_.statusLine);
    m.addAction(items_.hintLine);
    m.addAction(items_.notesLine);
    m.addAction(items_.tuningLine);
    m.addAction(items_.fileLine);
    m.addSeparator();
    m.addAction(QStringLiteral("Listen to"))->setEnabled(false);
    m.addAction(items_.systemItem);
    m.addAction(items_.micItem);
    m.addAction(items_.pauseItem);
    items_.followItem->setChecked(settings.followPlayer);
    m.addAction(items_.followItem);
    m.addSeparator();
    QMenu* ranges = m.addMenu(QStringLiteral("Tempo Range"));
    for (TempoRange range : allTempoRanges()) ranges->addAction(items_.rangeItems.at(range));
    QMenu* ties = m.addMenu(QStringLiteral("When Major and Minor Tie"));
    for (RelativePreference preference : allRelativePreferences())
        ties->addAction(items_.relativeItems.at(preference));
    checkRelative(settings.relativePreference);
    items_.camelotItem->setChecked(settings.useCamelot);
    items_.notesItem->setChecked(settings.showNotes);
    items_.decimalsItem->setChecked(settings.showDecimals);
    items_.compactItem->setChecked(settings.compact);
    items_.floatItem->setChecked(settings.floatBar);
    m.addAction(items_.camelotItem);
    m.addAction(items_.notesItem);
    m.addAction(items_.decimalsItem);
    m.addAction(items_.compactItem);
    m.addAction(items_.floatItem);
    m.addSeparator();
    m.addAction(items_.copyItem);
    m.addAction(items_.analyzeItem);
    items_.preciseItem->setChecked(settings.preciseAnalysis);
    m.addAction(items_.preciseItem);
    m.addAction(items_.resetItem);
    m.addSeparator();
    m.addAction(items_.helpItem);
    m.addAction(items_.quitItem);
}

void AppMenu::setStatus(const QString& text) {
    status_ = text;
    QLabel* label = labelOf(items_.statusLine);
    label->setText(text::shortened(text, statusLimit));
    label->setToolTip(text.size() > statusLimit ? text : QString());
}

QString AppMenu::status() const {
    return status_;
}

QString AppMenu::lineText(const QWidgetAction* line) {
    return line->isVisible() ? labelOf(line)->text() : QString();
}

void AppMenu::showHint(bool shown) {
    setLineVisible(items_.hintLine, shown);
}

void AppMenu::setHintText(const QString& text) {
    labelOf(items_.hintLine)->setText(text);
}

QString AppMenu::hintText() const {
    return labelOf(items_.hintLine)->text();
}

void AppMenu::setNotes(const std::optional<QString>& html) {
    if (html) labelOf(items_.notesLine)->setText(*html);
    setLineVisible(items_.notesLine, html.has_value());
}

QString AppMenu::notesHtml() const {
    return labelOf(items_.notesLine)->text();
}

void AppMenu::setTuning(const std::optional<QString>& text) {
    if (text) labelOf(items_.tuningLine)->setText(*text);
    setLineVisible(items_.tuningLine, text.has_value());
}

void AppMenu::setFileLine(const std::optional<QString>& text) {
    if (text) labelOf(items_.fileLine)->setText(*text);
    setLineVisible(items_.fileLine, text.has_value());
}

void AppMenu::keepOnScreen() {
    QMenu& m = *menu_;
    if (!m.isVisible()) return;
    const QSize wanted = m.sizeHint();
    if (wanted != m.size()) m.resize(wanted);
    QScreen* screen = m.screen();
    if (!screen) return;
    const QRect area = screen->availableGeometry();
    const int x = std::max(area.left(), std::min(m.x(), area.right() + 1 - m.width()));
    if (x != m.x()) m.move(x, m.y());
}

void AppMenu::checkSource(AudioSourceKind kind) {
    items_.systemItem->setChecked(kind == AudioSourceKind::systemAudio);
    items_.micItem->setChecked(kind == AudioSourceKind::microphone);
}

void AppMenu::checkRange(TempoRange range) {
    items_.rangeItems.at(range)->setChecked(true);
}

void AppMenu::checkRelative(RelativePreference preference) {
    items_.relativeItems.at(preference)->setChecked(true);
}

}  // namespace velquin
