#pragma once
// The user's display settings and where they are kept. Every setting lives under its own key in the
// application's QSettings file; a missing or unreadable value falls back to its default silently.
// Main thread only.

#include <QPointF>
#include <QSettings>
#include <QString>
#include <optional>

#include "analysis/MusicalKey.h"
#include "analysis/TempoRange.h"
#include "capture/AudioSource.h"

namespace velquin {

namespace settingsKey {
inline constexpr const char* audioSource = "audioSource";
inline constexpr const char* tempoRange = "tempoRange";
inline constexpr const char* useCamelot = "useCamelot";
inline constexpr const char* showNotes = "showNotes";
inline constexpr const char* relativePreference = "relativePreference";
inline constexpr const char* showDecimals = "showDecimals";
inline constexpr const char* compactBar = "compactBar";
inline constexpr const char* followPlayer = "followPlayer";
inline constexpr const char* floatBar = "floatBar";
inline constexpr const char* preciseAnalysis = "preciseAnalysis";
inline constexpr const char* barPositionGroup = "barPosition";
}  // namespace settingsKey

struct DisplaySettings {
    bool useCamelot = false;  // keys in Camelot notation
    bool showNotes = true;    // the note-strength line in the menu
    KeyEstimate::RelativePreference relativePreference = KeyEstimate::RelativePreference::both;
    bool showDecimals = false;     // BPM with one decimal
    bool compact = false;          // two-line bar
    bool followPlayer = true;      // the playing file's reading stands in for the live one
    bool floatBar = true;          // the bar is shown (else only the tray carries the reading)
    bool preciseAnalysis = false;  // dropped, picked and followed files get the precise analysis

    static DisplaySettings read(const QSettings& settings);
};

// The stored capture source (system audio unless "microphone") and tempo range (auto unless known).
AudioSourceKind storedSource(const QSettings& settings);
TempoRange storedRange(const QSettings& settings);

void store(QSettings& settings, const char* key, bool value);
void store(QSettings& settings, AudioSourceKind kind);
void store(QSettings& settings, TempoRange range);
void store(QSettings& settings, KeyEstimate::RelativePreference preference);

// The bar's remembered place on the screen named `screen`, as fractions of the room it has there.
std::optional<QPointF> storedBarPosition(const QSettings& settings, const QString& screen);
void storeBarPosition(QSettings& settings, const QString& screen, const QPointF& fraction);
// On layer-shell compositors: the bar's distance from the right edge of an output.
std::optional<int> storedBarMargin(const QSettings& settings, const QString& output);
void storeBarMargin(QSettings& settings, const QString& output, int margin);

// A bool stored by this program or edited by hand: real bools, numbers and the usual words.
std::optional<bool> boolValue(const QVariant& value);

// A text name ("verySlow", "microphone", …) as a QString.
QString qTextName(std::string_view name);

}  // namespace velquin
