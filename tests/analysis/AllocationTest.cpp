// Counts heap allocations made by this thread while the live analyzers run in their steady state.
#include <gtest/gtest.h>

#include "analysis/LiveAnalysis.h"
#include "support/AllocationCounter.h"
#include "support/TestSupport.h"

namespace allocations = velquin::test::allocations;

TEST(Allocation, LiveTicksAllocateNothingOnceTheHistoriesAreFull) {
    constexpr double rate = 48000;
    constexpr size_t tick = 5760;  // 0.12 s
    // Music long enough to fill both histories (tempo: about 8 s; key: 45 s), then keep going.
    auto music =
        velquin::test::progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}, {57, 60, 64}}, rate, 80.0);
    velquin::test::mixInto(music, velquin::test::clickTrain(120, rate, 80.0), 0.5f);
    velquin::LiveAnalysis live(rate, velquin::bounds(velquin::TempoRange::Auto));
    size_t i = 0;
    const auto step = [&] {
        live.append(std::span<const float>(music.data() + i, tick));
        (void)live.read();
        i += tick;
    };
    while (i < size_t(55 * rate)) step();
    allocations::reset();
    allocations::countOnThisThread(true);
    size_t ticks = 0;
    while (i + tick <= music.size()) {
        step();
        ++ticks;
    }
    allocations::countOnThisThread(false);
    EXPECT_GT(ticks, 150u);
    EXPECT_EQ(allocations::count(), 0) << "over " << ticks << " ticks";
}
