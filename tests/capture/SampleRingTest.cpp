#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <thread>

#include "SampleRing.h"

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
    SampleRing ring(10);
    const auto abcd = counting(1, 4);
    ring.write(abcd.data(), 4);
    EXPECT_EQ(drain(ring), abcd);
    EXPECT_TRUE(drain(ring).empty());

    // Overflow: 8 then 5 without a drain keeps the last 10, oldest first; the drain wraps.
    const auto first = counting(1, 8), second = counting(9, 5);
    ring.write(first.data(), 8);
    ring.write(second.data(), 5);
    EXPECT_EQ(drain(ring), counting(4, 10));

    // A batch longer than the ring keeps its last capacity samples.
    const auto batch = counting(1, 25);
    ring.write(batch.data(), 25);
    EXPECT_EQ(drain(ring), counting(16, 10));

    // Counts below one change nothing.
    ring.write(batch.data(), 0);
    ring.write(batch.data(), -3);
    EXPECT_TRUE(drain(ring).empty());
    EXPECT_EQ(ring.capacity(), 10);

    // Replacing gives an empty ring of the new size.
    ring.write(batch.data(), 5);
    ring.replace(3);
    EXPECT_TRUE(drain(ring).empty());
    ring.write(batch.data(), 5);
    EXPECT_EQ(drain(ring), counting(3, 3));
}

TEST(SampleRing, WriteEndingAtTheEndWrapsToTheStart) {
    SampleRing ring(10);
    const auto six = counting(1, 6), four = counting(7, 4), two = counting(11, 2);
    ring.write(six.data(), 6);
    drain(ring);
    ring.write(four.data(), 4);  // ends exactly at the end of the storage
    EXPECT_EQ(drain(ring), four);
    ring.write(two.data(), 2);  // so this starts at index 0
    EXPECT_EQ(drain(ring), two);
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
