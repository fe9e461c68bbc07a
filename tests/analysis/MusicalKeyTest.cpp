#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "analysis/Format.h"
#include "analysis/MusicalKey.h"

using velquin::KeyEstimate;
using velquin::MusicalKey;
using Preference = KeyEstimate::RelativePreference;

TEST(MusicalKey, CamelotWheelAndNames) {
    EXPECT_EQ((MusicalKey{0, false}).camelot() + (MusicalKey{9, true}).camelot(), "8B8A");
    const MusicalKey named[] = {{3, true}, {8, false}, {8, true}, {1, false}, {10, true}};
    std::string names;
    for (const MusicalKey& k : named) names += k.shortName() + "," + k.longName() + ";";
    EXPECT_EQ(names, "E♭m,E♭ minor;A♭,A♭ major;G♯m,G♯ minor;D♭,D♭ major;B♭m,B♭ minor;");

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

    EXPECT_FALSE(velquin::relativePreferenceFromTextName("Both"));
    for (auto preference : velquin::allRelativePreferences())
        EXPECT_EQ(velquin::relativePreferenceFromTextName(velquin::textName(preference)), preference);
}
