#include <gtest/gtest.h>

#include <cmath>

#include "analysis/Format.h"
#include "ui/NoteMeter.h"

using velquin::MusicalKey;
using velquin::NoteMeter;

TEST(NoteMeter, BarsScaleAndStyle) {
    // Rounds to 0; half rounds up to 1 (drawn like 0); 2.4 → 2; full; clamped above, below; not a number.
    const std::array<double, 12> chroma{0.06, 0.0625, 0.3, 0, 1.0, 7.0, -1.0, std::nan("")};
    const auto cells = NoteMeter::cells(chroma, MusicalKey{0, false});
    const std::array<std::string, 8> drawn{"C ▁ ", "C♯▁ ", "D ▂ ", "D♯▁ ", "E █ ", "F █ ", "F♯▁ ", "G ▁ "};
    for (size_t i = 0; i < drawn.size(); ++i) EXPECT_EQ(cells[i].text, drawn[i]) << i;
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
