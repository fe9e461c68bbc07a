#include "ui/DisplaySettings.h"

namespace velquin {

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

QString qTextName(std::string_view name) {
    return QString::fromLatin1(name.data(), static_cast<qsizetype>(name.size()));
}

DisplaySettings DisplaySettings::read(const QSettings& s) {
    const auto flag = [&s](const char* key, bool fallback) {
        return boolValue(s.value(QLatin1String(key))).value_or(fallback);
    };
    DisplaySettings d;
    d.useCamelot = flag(settingsKey::useCamelot, false);
    d.showNotes = flag(settingsKey::showNotes, true);
    d.relativePreference =
        relativePreferenceFromTextName(
            s.value(QLatin1String(settingsKey::relativePreference)).toString().toStdString())
            .value_or(KeyEstimate::RelativePreference::both);
    d.showDecimals = flag(settingsKey::showDecimals, false);
    d.preciseAnalysis = flag(settingsKey::preciseAnalysis, false);
    d.compact = flag(settingsKey::compactBar, false);
    d.followPlayer = flag(settingsKey::followPlayer, true);
    d.floatBar = flag(settingsKey::floatBar, true);
    return d;
}

AudioSourceKind storedSource(const QSettings& s) {
    return s.value(QLatin1String(settingsKey::audioSource)).toString() == QLatin1String("microphone")
               ? AudioSourceKind::microphone
               : AudioSourceKind::systemAudio;
}

TempoRange storedRange(const QSettings& s) {
    return tempoRangeFromTextName(s.value(QLatin1String(settingsKey::tempoRange)).toString().toStdString())
        .value_or(TempoRange::Auto);
}

void store(QSettings& s, const char* key, bool value) {
    s.setValue(QLatin1String(key), value);
}

void store(QSettings& s, AudioSourceKind kind) {
    s.setValue(QLatin1String(settingsKey::audioSource), qTextName(textName(kind)));
}

void store(QSettings& s, TempoRange range) {
    s.setValue(QLatin1String(settingsKey::tempoRange), qTextName(textName(range)));
}

void store(QSettings& s, KeyEstimate::RelativePreference preference) {
    s.setValue(QLatin1String(settingsKey::relativePreference), qTextName(textName(preference)));
}

namespace {

// Screen names may hold "/" or spaces, which QSettings would read as groups or mangle.
QString positionKey(const QString& screen) {
    return QLatin1String(settingsKey::barPositionGroup) + QLatin1Char('/') +
           QString::fromLatin1(screen.toUtf8().toPercentEncoding());
}

}  // namespace

std::optional<QPointF> storedBarPosition(const QSettings& s, const QString& screen) {
    const QStringList parts = s.value(positionKey(screen)).toString().split(QLatin1Char(' '));
    if (parts.size() != 2) return std::nullopt;
    bool okX = false, okY = false;
    const QPointF p(parts[0].toDouble(&okX), parts[1].toDouble(&okY));
    if (!okX || !okY) return std::nullopt;
    return p;
}

void storeBarPosition(QSettings& s, const QString& screen, const QPointF& fraction) {
    s.setValue(positionKey(screen),
               QString::number(fraction.x()) + QLatin1Char(' ') + QString::number(fraction.y()));
}

namespace {

QString marginKey(const QString& output) {
    return QStringLiteral("barMargin/") + QString::fromLatin1(output.toUtf8().toPercentEncoding());
}

}  // namespace

std::optional<int> storedBarMargin(const QSettings& s, const QString& output) {
    bool ok = false;
    const int margin = s.value(marginKey(output)).toInt(&ok);
    if (!ok || margin < 0) return std::nullopt;
    return margin;
}

void storeBarMargin(QSettings& s, const QString& output, int margin) {
    s.setValue(marginKey(output), margin);
}

}  // namespace velquin
