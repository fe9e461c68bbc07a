#pragma once
// Every text the interface shows for a reading: the bar's key and BPM, the ring's fill, the menu's
// status, file and tuning lines, the result alert of a picked file, the shelf's result lines and the
// clipboard text. Pure functions of the estimates and the display settings, so that the bar, the menu,
// the tray and the shelf always say the same thing.

#include <QPalette>
#include <QString>
#include <QStringList>
#include <optional>

#include "analysis/MusicalKey.h"
#include "analysis/TempoEstimate.h"
#include "ui/DisplaySettings.h"

namespace velquin::text {

// "128" or "128.4" by the decimals setting.
QString bpm(double bpm, const DisplaySettings& settings);
// The bar's key: plain "#" and "b" for sharps and flats, "-" below 0.35 confidence or without a key.
QString barKey(const KeyEstimate& key, const DisplaySettings& settings);
// The bar's BPM: hyphens (three, or five with decimals) without a tempo.
QString barBpm(const TempoEstimate& tempo, const DisplaySettings& settings);
// The ring's fill: the weaker of the two confidences; 0 when either is missing.
double ringConfidence(const TempoEstimate& tempo, const KeyEstimate& key);
// The status line for an estimate ("A minor (8A) 90%  ·  128 BPM 80%"); absent when nothing is known.
std::optional<QString> estimateLine(const TempoEstimate& tempo, const KeyEstimate& key,
                                    const DisplaySettings& settings);
// "Last file: NAME — A minor (8A) · 120 BPM", the name shortened to 30 characters.
QString fileLine(const QString& name, const TempoEstimate& tempo, const KeyEstimate& key,
                 const DisplaySettings& settings);
// "Tuned +12 cents from A440"; absent within 8 cents or without a key.
std::optional<QString> tuningLine(const KeyEstimate& key);
// The two lines of the alert for a file picked from the menu.
QString alertText(const TempoEstimate& tempo, const KeyEstimate& key, const DisplaySettings& settings);
// The shelf's three result lines for a dropped file.
QStringList shelfLines(const QString& name, const TempoEstimate& tempo, const KeyEstimate& key,
                       const DisplaySettings& settings);
// What "Copy Key and BPM" puts on the clipboard; absent when there is nothing to copy.
std::optional<QString> copied(const TempoEstimate& tempo, const KeyEstimate& key,
                              const DisplaySettings& settings);
// The note-strength line as rich text in the palette's colours; the tonic bold, notes outside the
// key faint.
QString noteLineHtml(const KeyEstimate& key, const QPalette& palette);
// "0:42 of 3:10" (seconds of audio analysed of the whole), or "0:42" when the length is not known.
QString progress(double doneSeconds, double totalSeconds);
// Longer texts keep their first to/2 + 2 and last to/2 − 3 characters (code points) around an ellipsis.
QString shortened(const QString& text, int to);

}  // namespace velquin::text
