#include <gtest/gtest.h>

#include "analysis/LiveAnalysis.h"
#include "support/TestSupport.h"

namespace velquin {

TEST(LiveAnalysis, AKeyRestartReleasesTheTempoLock) {
    LiveAnalysis live(16000, bounds(TempoRange::Auto));
    const auto clicks = test::clickTrain(120, 16000, 12.0);
    for (size_t i = 0; i + 1920 <= clicks.size(); i += 1920) {
        live.append({clicks.data() + i, 1920});
        (void)live.read();
    }
    ASSERT_GT(live.tempo().lockedBPM(), 0);
    live.key().restart(LiveAnalysis::keepAfterSongChangeSeconds);  // a song change the key heard
    (void)live.read();
    EXPECT_EQ(live.tempo().lockedBPM(), 0);
}

}  // namespace velquin
