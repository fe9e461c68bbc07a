#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "Format.h"
#include "MusicalKey.h"

using velquin::KeyEstimate;
using velquin::MusicalKey;
using velquin::NoteMeter;
using Preference = KeyEstimate::RelativePreference;

TEST(MusicalKey, CamelotWheelAndNames) {
    EXPECT_EQ((MusicalKey{0, false}).camelot(), "8B");
    EXPECT_EQ((MusicalKey{9, true}).camelot(), "8A");
    EXPECT_EQ((MusicalKey{3, true}).shortName(), "E♭m");
    EXPECT_EQ((MusicalKey{8, false}).shortName(), "A♭");
    EXPECT_EQ((MusicalKey{8, true}).shortName(), "G♯m");
    EXPECT_EQ((MusicalKey{1, false}).longName(), "D♭ major");
    EXPECT_EQ((MusicalKey{10, true}).longName(), "B♭ minor");

    // With C = 8B, these fix the rest of the wheel: 24 distinct codes, a key and its relative share the
    // number, and keys a fifth apart are neighbours.
    std::set<std::string> codes;
    const auto number = [](const MusicalKey& k) { return std::stoi(k.camelot()); };
    for (const MusicalKey& key : MusicalKey::all()) {
        codes.insert(key.camelot());
        const MusicalKey relative =
            key.isMinor ? MusicalKey{(key.tonic + 3) % 12, false} : MusicalKey{(key.tonic + 9) % 12, true};
        EXPECT_TRUE(relative.isRelativeOf(key));
        EXPECT_EQ(number(relative), number(key));
        const MusicalKey fifth{(key.tonic + 7) % 12, key.isMinor};
        EXPECT_EQ(number(fifth) % 12, (number(key) + 1) % 12) << key.shortName();
    }
    EXPECT_EQ(codes.size(), 24u);
    EXPECT_EQ(MusicalKey::all()[0], (MusicalKey{0, false}));
    EXPECT_EQ(MusicalKey::all()[3], (MusicalKey{1, true}));
}

TEST(KeyEstimate, ShortTextNamesTheRelativeByPreference) {
    KeyEstimate cMinor;
    cMinor.key = MusicalKey{0, true};
    cMinor.alternative = MusicalKey{3, false};
    EXPECT_EQ(cMinor.shortText(false, Preference::both), "Cm/E♭");
    EXPECT_EQ(cMinor.shortText(false, Preference::major), "E♭");
    EXPECT_EQ(cMinor.shortText(false, Preference::minor), "Cm");
    EXPECT_EQ(cMinor.shortText(true, Preference::both), "5A/5B");

    KeyEstimate eFlat;
    eFlat.key = MusicalKey{3, false};
    eFlat.alternative = MusicalKey{0, true};
    EXPECT_EQ(eFlat.shortText(false, Preference::both), "E♭/Cm");  // the key always comes first
    EXPECT_EQ(eFlat.shortText(false, Preference::minor), "Cm");

    KeyEstimate dominant;
    dominant.key = MusicalKey{0, false};
    dominant.alternative = MusicalKey{7, false};
    for (auto preference : velquin::allRelativePreferences()) {
        EXPECT_EQ(dominant.shortText(false, preference), "C");
        EXPECT_FALSE(dominant.displayKeys(preference)->second);
    }
    EXPECT_FALSE(KeyEstimate::unknown.shortText(false, Preference::both));
    EXPECT_FALSE(KeyEstimate::unknown.displayKeys(Preference::both));

    EXPECT_EQ(velquin::relativePreferenceFromRaw("minor"), Preference::minor);
    EXPECT_FALSE(velquin::relativePreferenceFromRaw("Both"));
    for (auto preference : velquin::allRelativePreferences())
        EXPECT_EQ(velquin::relativePreferenceFromRaw(velquin::rawValue(preference)), preference);
}

TEST(NoteMeter, BarsScaleAndStyle) {
    std::array<double, 12> chroma{};
    chroma[0] = 0.06;    // rounds to level 0
    chroma[1] = 0.0625;  // half rounds up to level 1, drawn like 0
    chroma[2] = 0.3;     // 2.4 → level 2
    chroma[4] = 1.0;
    chroma[5] = 7.0;   // clamped
    chroma[6] = -1.0;  // clamped
    chroma[7] = std::nan("");
    const auto cells = NoteMeter::cells(chroma, MusicalKey{0, false});
    EXPECT_EQ(cells[0].text, "C ▁ ");
    EXPECT_EQ(cells[1].text, "C♯▁ ");
    EXPECT_EQ(cells[2].text, "D ▂ ");
    EXPECT_EQ(cells[4].text, "E █ ");
    EXPECT_EQ(cells[5].text, "F █ ");
    EXPECT_EQ(cells[6].text, "F♯▁ ");
    EXPECT_EQ(cells[7].text, "G ▁ ");
    EXPECT_TRUE(cells[0].bold);
    EXPECT_FALSE(cells[2].bold);
    EXPECT_TRUE(cells[1].faint);    // C♯ is outside C major
    EXPECT_FALSE(cells[11].faint);  // B is inside
    const std::string line = NoteMeter::plainText(cells);
    EXPECT_EQ(velquin::characterCount(line), 48u);
    EXPECT_EQ(line.back(), ' ');

    // A minor key uses the natural minor scale from its tonic; no key: nothing bold or faint.
    const auto aMinor = NoteMeter::cells(std::vector<double>{0.5}, MusicalKey{9, true});
    EXPECT_FALSE(aMinor[0].faint);  // C is in A minor
    EXPECT_TRUE(aMinor[8].faint);   // G♯ is not (natural minor)
    EXPECT_TRUE(aMinor[9].bold);
    EXPECT_EQ(aMinor[1].text, "C♯▁ ");  // a short chroma draws the missing notes at the lowest bar
    for (const auto& cell : NoteMeter::cells(std::vector<double>{}, std::nullopt)) {
        EXPECT_FALSE(cell.bold);
        EXPECT_FALSE(cell.faint);
    }
}
