#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <thread>

#include "capture/SampleRing.h"

using velquin::SampleRing;

namespace {
std::vector<float> counting(int from, int count) {
    std::vector<float> values(static_cast<size_t>(count));
    std::iota(values.begin(), values.end(), static_cast<float>(from));
    return values;
}
std::vector<float> drain(SampleRing& ring) {
    std::vector<float> out{-1};  // stale contents must go
    ring.drainInto(out);
    return out;
}
}  // namespace

TEST(SampleRing, KeepsTheNewestUnreadSamplesInOrder) {
    // One ring through every step: counting runs written (first value, count), then what a drain gives.
    struct Step {
        std::vector<std::pair<int, int>> writes;
        int first, count;
    };
    const std::vector<Step> steps = {
        {{{1, 4}}, 1, 4},          {{}, 0, 0},
        {{{1, 8}, {9, 5}}, 4, 10},  // overflow: the last ten, oldest first; the drain wraps
        {{{1, 25}}, 16, 10},        // a batch longer than the ring keeps its last ten
        {{{1, 0}, {1, -3}}, 0, 0},  // counts below one change nothing
        {{{1, 3}}, 1, 3},           // ends exactly at the end of the storage,
        {{{4, 2}}, 4, 2},           // so this one starts at index 0
    };
    SampleRing ring(10);
    for (const Step& step : steps) {
        for (const auto& [from, count] : step.writes)
            ring.write(counting(from, std::max(count, 1)).data(), count);
        EXPECT_EQ(drain(ring), counting(step.first, step.count)) << "from " << step.first;
    }
    // Replacing gives an empty ring of the new size.
    ring.write(counting(1, 5).data(), 5);
    ring.replace(3);
    EXPECT_TRUE(drain(ring).empty());
    ring.write(counting(1, 5).data(), 5);
    EXPECT_EQ(drain(ring), counting(3, 3));
}

TEST(SampleRing, OneWriterOneReaderLoseNothingWithinCapacity) {
    // The writer stays within the capacity ahead of the reader, so every sample arrives once, in order.
    SampleRing ring(4096);
    constexpr int total = 200000;
    std::atomic<int> drained = 0;
    std::thread writer([&] {
        std::vector<float> block(64);
        for (int next = 0; next < total; next += 64) {
            while (next - drained.load() > 4096 - 64) std::this_thread::yield();
            std::iota(block.begin(), block.end(), static_cast<float>(next));
            ring.write(block.data(), 64);
        }
    });
    float expected = 0;
    bool inOrder = true;
    while (drained.load() < total) {
        for (float v : drain(ring)) {
            inOrder = inOrder && v == expected;
            expected += 1;
            drained.fetch_add(1);
        }
    }
    writer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(expected, static_cast<float>(total));
}
