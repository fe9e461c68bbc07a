#include "AppMenu.h"

#include <QFontDatabase>
#include <QLabel>
#include <QWidgetAction>

namespace velquin {
namespace {

// Menu titles treat "&" as a mnemonic marker; file names must show it as it is.
void setTitle(QAction* item, const QString& title) {
    item->setText(QString(title).replace(QLatin1Char('&'), QLatin1String("&&")));
}

void setLine(QAction* item, const std::optional<QString>& text) {
    if (text) setTitle(item, *text);
    item->setVisible(text.has_value());
}

}  // namespace

AppMenu::AppMenu() : menu_(std::make_unique<QMenu>()) {
    createItems();
}

AppMenu::~AppMenu() = default;

void AppMenu::createItems() {
    QMenu& m = *menu_;
    const auto item = [&m](const QString& text, const char* key = nullptr) {
        QAction* a = m.addAction(text);
        m.removeAction(a);  // placed by build
        if (key) a->setShortcut(QKeySequence(QLatin1String(key)));
        return a;
    };
    const auto info = [&](const QString& text) {
        QAction* a = item(text);
        a->setEnabled(false);
        return a;
    };
    const auto checkable = [&](const QString& text, const char* key = nullptr) {
        QAction* a = item(text, key);
        a->setCheckable(true);
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

    items_.systemItem = checkable(QStringLiteral("System Audio"));
    items_.micItem = checkable(QStringLiteral("Microphone"));
    items_.pauseItem = checkable(QStringLiteral("Pause Listening"), "Ctrl+P");
    items_.camelotItem = checkable(QStringLiteral("Camelot Names (8A)"));
    items_.notesItem = checkable(QStringLiteral("Show Note Strengths"));
    items_.decimalsItem = checkable(QStringLiteral("Show BPM Decimals (141.0)"));
    items_.compactItem = checkable(QStringLiteral("Compact (Two Lines)"));
    items_.copyItem = item(QStringLiteral("Copy Key and BPM"), "Ctrl+C");
    items_.analyzeItem = item(QStringLiteral("Analyze Audio File\u2026"), "Ctrl+O");
    items_.resetItem = item(QStringLiteral("Reset"), "Ctrl+R");
    items_.helpItem = item(QStringLiteral("Help\u2026"), "Ctrl+?");
    items_.quitItem = item(QStringLiteral("Quit Velquin"), "Ctrl+Q");

    for (TempoRange range : allTempoRanges()) {
        QAction* a = checkable(QString::fromStdString(menuTitle(range)));
        a->setData(rawText(rawValue(range)));
        items_.rangeItems[range] = a;
    }
    const std::map<RelativePreference, QString> relativeTitles = {
        {RelativePreference::both, QStringLiteral("Show Both (Cm/E\u266d)")},
        {RelativePreference::major, QStringLiteral("Prefer Major")},
        {RelativePreference::minor, QStringLiteral("Prefer Minor")},
    };
    for (RelativePreference preference : allRelativePreferences()) {
        QAction* a = checkable(relativeTitles.at(preference));
        a->setData(rawText(rawValue(preference)));
        items_.relativeItems[preference] = a;
    }
}

void AppMenu::build(const DisplaySettings& settings) {
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
    for (RelativePreference preference : allRelativePreferences())
        ties->addAction(items_.relativeItems.at(preference));
    checkRelative(settings.relativePreference);
    items_.camelotItem->setChecked(settings.useCamelot);
    items_.notesItem->setChecked(settings.showNotes);
    items_.decimalsItem->setChecked(settings.showDecimals);
    items_.compactItem->setChecked(settings.compact);
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

void AppMenu::setStatus(const QString& text) {
    setTitle(items_.statusLine, text);
}

QString AppMenu::status() const {
    return QString(items_.statusLine->text()).replace(QLatin1String("&&"), QLatin1String("&"));
}

void AppMenu::setNotes(const std::optional<QString>& html) {
    if (html) notesLabel_->setText(*html);
    items_.notesLine->setVisible(html.has_value());
}

QString AppMenu::notesHtml() const {
    return notesLabel_->text();
}

void AppMenu::setTuning(const std::optional<QString>& text) {
    setLine(items_.tuningLine, text);
}

void AppMenu::setFileLine(const std::optional<QString>& text) {
    setLine(items_.fileLine, text);
}

void AppMenu::checkSource(AudioSourceKind kind) {
    items_.systemItem->setChecked(kind == AudioSourceKind::systemAudio);
    items_.micItem->setChecked(kind == AudioSourceKind::microphone);
}

void AppMenu::checkRange(TempoRange range) {
    for (const auto& [itemRange, item] : items_.rangeItems) item->setChecked(itemRange == range);
}

void AppMenu::checkRelative(RelativePreference preference) {
    for (const auto& [itemPreference, item] : items_.relativeItems)
        item->setChecked(itemPreference == preference);
}

}  // namespace velquin
