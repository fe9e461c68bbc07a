#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "UiTestSupport.h"
#include "ui/ReadingText.h"

namespace velquin {
namespace {

using test::keyOf;

using Preference = KeyEstimate::RelativePreference;

const MusicalKey cMajor{0, false};
const DisplaySettings plain;
const DisplaySettings decimals{.showDecimals = true};
const DisplaySettings camelotMajor{.useCamelot = true, .relativePreference = Preference::major};

TEST(ReadingText, BarStatusAndRingForEachKindOfEstimate) {
    struct Case {
        TempoEstimate tempo;
        KeyEstimate key;
        DisplaySettings settings;
        QString barKey, barBpm;
        double ring;
        std::optional<QString> status;
    };
    const TempoEstimate t128{128, 0.8, 0}, t120{120, 0.9, 0}, none{0, 0.9, 0};
    const std::vector<Case> cases = {
        // Below 0.35 the bar shows no key; the status line still names it with its percentage.
        {t128, keyOf(9, true, 0.34, 0, cMajor), plain, "-", "128", 0.34,
         "A minor (8A) 34% — or C major (8B)  ·  128 BPM 80%"},
        {t128, keyOf(9, true, 0.35, 0, cMajor), plain, "Am/C", "128", 0.35,
         "A minor (8A) 35% — or C major (8B)  ·  128 BPM 80%"},
        {t128, keyOf(6, false, 0.9), plain, "F#", "128", 0.8, "F♯ major (2B) 90%  ·  128 BPM 80%"},
        {t128, keyOf(10, true, 0.9), plain, "Bbm", "128", 0.8, "B♭ minor (3A) 90%  ·  128 BPM 80%"},
        // A key and no tempo: an empty ring and hyphens, five with decimals.
        {none, keyOf(9, true, 0.9), plain, "Am", "---", 0, "A minor (8A) 90%"},
        {none, keyOf(9, true, 0.9), decimals, "Am", "-----", 0, "A minor (8A) 90%"},
        {{128.44, 0.5, 0}, KeyEstimate::unknown, decimals, "-", "128.4", 0, "128.4 BPM 50%"},
        // The alternative is the key shown, so it is not offered again.
        {t120, keyOf(9, true, 0.9, 0, cMajor), camelotMajor, "8B", "120", 0.9,
         "C major (8B) 90%  ·  120 BPM 90%"},
        {{0, 0, 0}, KeyEstimate::unknown, plain, "-", "---", 0, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.barKey.toStdString() + " " + c.barBpm.toStdString());
        EXPECT_EQ(text::barKey(c.key, c.settings), c.barKey);
        EXPECT_EQ(text::barBpm(c.tempo, c.settings), c.barBpm);
        EXPECT_DOUBLE_EQ(text::ringConfidence(c.tempo, c.key), c.ring);
        EXPECT_EQ(text::estimateLine(c.tempo, c.key, c.settings), c.status);
    }
}

TEST(ReadingText, FileShelfAlertAndClipboardTexts) {
    const TempoEstimate tempo{120, 0.9, 0};
    const KeyEstimate both = keyOf(9, true, 0.8, 0, cMajor);
    const KeyEstimate none = KeyEstimate::unknown;
    const QString forty = "abcdefghijklmnopqrstuvwxyz0123456789.wav";
    EXPECT_EQ(text::fileLine(forty, tempo, both, plain),
              "Last file: abcdefghijklmnopq\u202623456789.wav \u2014 A minor (8A) or C major \u00b7 120 BPM");
    // Neither key nor tempo: no dangling dash.
    EXPECT_EQ(text::fileLine("quiet.wav", {}, none, plain), "Last file: quiet.wav");
    EXPECT_EQ(text::shelfLines("a.wav", tempo, both, plain),
              (QStringList{"A minor / C major", "8A/8B  \u00b7  120 BPM", "a.wav"}));
    EXPECT_EQ(text::shelfLines("q.wav", {}, none, plain),
              (QStringList{"No clear key", "no steady tempo", "q.wav"}));
    EXPECT_EQ(text::shelfLines("d.flac", {}, keyOf(0, false, 0.7), plain),
              (QStringList{"C major", "8B  \u00b7  no steady tempo", "d.flac"}));
    EXPECT_EQ(text::alertText(tempo, both, plain),
              "A minor  (8A)  80% sure\nor C major  (8B)\n120 BPM  90% sure");
    EXPECT_EQ(text::alertText({}, none, plain), "No clear key.\nNo steady tempo.");
    // The clipboard: no confidence threshold, real sharps, the BPM alone when there is no key.
    EXPECT_EQ(text::copied({128.4, 0.9, 0}, none, decimals), "128.4 BPM");
    EXPECT_EQ(text::copied({128, 0.9, 0}, keyOf(9, true, 0.1),
                           DisplaySettings{.useCamelot = true, .showDecimals = true}),
              "8A \u00b7 128.0 BPM");
    EXPECT_EQ(text::copied({}, keyOf(6, false, 0.1), plain), "F\u266f");
    EXPECT_EQ(text::copied({}, none, plain), std::nullopt);
}

TEST(ReadingText, TuningLineFromEightCentsAndShortenedNames) {
    EXPECT_EQ(text::tuningLine(keyOf(9, true, 0.9, -7.9)), std::nullopt);
    EXPECT_EQ(text::tuningLine(keyOf(9, true, 0.9, -8.0)), "Tuned -8 cents from A440");
    EXPECT_EQ(text::tuningLine(keyOf(9, true, 0.9, 12.4)), "Tuned +12 cents from A440");
    KeyEstimate noKey = KeyEstimate::unknown;
    noKey.tuningCents = 20;
    EXPECT_EQ(text::tuningLine(noKey), std::nullopt);

    EXPECT_EQ(text::progress(42.4, 190), "0:42 of 3:10");
    EXPECT_EQ(text::progress(3725, 0), "62:05");

    EXPECT_EQ(text::shortened(QString(30, 'x'), 30), QString(30, 'x'));
    // Characters, not UTF-16 units.
    EXPECT_EQ(text::shortened(QString::fromUtf8("\xF0\x9F\x8E\xB5").repeated(31), 30).toUcs4().size(), 30);
}

}  // namespace
}  // namespace velquin
