#include "ui/ReadingText.h"

#include <QColor>
#include <algorithm>
#include <cmath>

#include "analysis/Confidence.h"
#include "ui/NoteMeter.h"

namespace velquin::text {
namespace {

// Tuning offsets smaller than this are within what a listener hears as in tune.
constexpr double tuningThresholdCents = 8.0;
const QString middleDot = QStringLiteral(" \u00b7 ");
const QString spacedDot = QStringLiteral("  \u00b7  ");

QString q(const std::string& text) {
    return QString::fromStdString(text);
}

// "A minor (8A)"
QString nameWithCode(const MusicalKey& key, const QString& between = QStringLiteral(" (")) {
    return q(key.longName()) + between + q(key.camelot()) + QLatin1Char(')');
}

}  // namespace

QString bpm(double value, const DisplaySettings& settings) {
    return QString::asprintf(settings.showDecimals ? "%.1f" : "%.0f", value);
}

QString barKey(const KeyEstimate& key, const DisplaySettings& settings) {
    if (key.confidence < weakConfidence) return QStringLiteral("-");
    const auto text = key.shortText(settings.useCamelot, settings.relativePreference);
    if (!text) return QStringLiteral("-");
    return q(*text)
        .replace(QStringLiteral("\u266f"), QStringLiteral("#"))
        .replace(QStringLiteral("\u266d"), QStringLiteral("b"));
}

QString barBpm(const TempoEstimate& tempo, const DisplaySettings& settings) {
    return tempo.bpm > 0 ? bpm(tempo.bpm, settings)
                         : QString(settings.showDecimals ? 5 : 3, QLatin1Char('-'));
}

double ringConfidence(const TempoEstimate& tempo, const KeyEstimate& key) {
    return std::min(key.key ? key.confidence : 0.0, tempo.bpm > 0 ? tempo.confidence : 0.0);
}

std::optional<QString> estimateLine(const TempoEstimate& tempo, const KeyEstimate& key,
                                    const DisplaySettings& settings) {
    if (!(tempo.bpm > 0) && !key.key) return std::nullopt;
    QStringList parts;
    if (const auto keys = key.displayKeys(settings.relativePreference)) {
        QString part = nameWithCode(keys->first) + QString::asprintf(" %.0f%%", key.confidence * 100);
        if (key.alternative && *key.alternative != keys->first) {
            part += QStringLiteral(" \u2014 or ") + nameWithCode(*key.alternative);
        }
        parts << part;
    }
    if (tempo.bpm > 0)
        parts << barBpm(tempo, settings) + QString::asprintf(" BPM %.0f%%", tempo.confidence * 100);
    return parts.join(spacedDot);
}

QString fileLine(const QString& name, const TempoEstimate& tempo, const KeyEstimate& key,
                 const DisplaySettings& settings) {
    QStringList parts;
    if (const auto keys = key.displayKeys(settings.relativePreference)) {
        QString part = nameWithCode(keys->first);
        if (keys->second) part += QStringLiteral(" or ") + q(keys->second->longName());
        parts << part;
    }
    if (tempo.bpm > 0) parts << bpm(tempo.bpm, settings) + QStringLiteral(" BPM");
    QString line = QStringLiteral("Last file: ") + shortened(name, 30);
    if (!parts.isEmpty()) line += QStringLiteral(" \u2014 ") + parts.join(middleDot);
    return line;
}

std::optional<QString> tuningLine(const KeyEstimate& key) {
    if (std::abs(key.tuningCents) < tuningThresholdCents || !key.key) return std::nullopt;
    return QString::asprintf("Tuned %+.0f cents from A440", key.tuningCents);
}

QString alertText(const TempoEstimate& tempo, const KeyEstimate& key, const DisplaySettings& settings) {
    QString keyLine = QStringLiteral("No clear key.");
    if (const auto keys = key.displayKeys(settings.relativePreference)) {
        keyLine = nameWithCode(keys->first, QStringLiteral("  (")) +
                  QString::asprintf("  %.0f%% sure", key.confidence * 100);
        if (keys->second)
            keyLine += QStringLiteral("\nor ") + nameWithCode(*keys->second, QStringLiteral("  ("));
    }
    const QString tempoLine =
        tempo.bpm > 0
            ? bpm(tempo.bpm, settings) + QString::asprintf(" BPM  %.0f%% sure", tempo.confidence * 100)
            : QStringLiteral("No steady tempo.");
    return keyLine + QLatin1Char('\n') + tempoLine;
}

QStringList shelfLines(const QString& name, const TempoEstimate& tempo, const KeyEstimate& key,
                       const DisplaySettings& settings) {
    QString first = QStringLiteral("No clear key");
    QStringList second;
    if (const auto keys = key.displayKeys(settings.relativePreference)) {
        first = q(keys->first.longName());
        QString codes = q(keys->first.camelot());
        if (keys->second) {
            first += QStringLiteral(" / ") + q(keys->second->longName());
            codes += QLatin1Char('/') + q(keys->second->camelot());
        }
        second << codes;
    }
    second << (tempo.bpm > 0 ? bpm(tempo.bpm, settings) + QStringLiteral(" BPM")
                             : QStringLiteral("no steady tempo"));
    return {first, second.join(spacedDot), name};
}

std::optional<QString> copied(const TempoEstimate& tempo, const KeyEstimate& key,
                              const DisplaySettings& settings) {
    QStringList parts;
    if (const auto text = key.shortText(settings.useCamelot, settings.relativePreference)) parts << q(*text);
    if (tempo.bpm > 0) parts << bpm(tempo.bpm, settings) + QStringLiteral(" BPM");
    if (parts.isEmpty()) return std::nullopt;
    return parts.join(middleDot);
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

QString progress(double doneSeconds, double totalSeconds) {
    const auto clock = [](double seconds) {
        const long whole = std::lround(std::max(seconds, 0.0));
        return QString::asprintf("%ld:%02ld", whole / 60, whole % 60);
    };
    return totalSeconds > 0 ? clock(doneSeconds) + QStringLiteral(" of ") + clock(totalSeconds)
                            : clock(doneSeconds);
}

QString shortened(const QString& text, int to) {
    const QList<uint> characters = text.toUcs4();
    if (characters.size() <= to) return text;
    const qsizetype head = to / 2 + 2;
    const qsizetype tail = std::max(0, to / 2 - 3);
    const auto part = [&](qsizetype from, qsizetype count) {
        return QString::fromUcs4(reinterpret_cast<const char32_t*>(characters.constData() + from), count);
    };
    return part(0, head) + QStringLiteral("\u2026") + part(characters.size() - tail, tail);
}

}  // namespace velquin::text
