// Counts heap allocations made by this thread while the live analyzers run in their steady state.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "KeyAnalyzer.h"
#include "TempoAnalyzer.h"
#include "TestSupport.h"

namespace {
thread_local bool counting = false;
thread_local size_t allocations = 0;
}  // namespace

void* operator new(size_t size) {
    if (counting) ++allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    return operator new(size);
}
// The non-throwing forms too (std::stable_sort's buffer uses them), so every form pairs with free().
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (counting) ++allocations;
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}

TEST(Allocation, LiveTicksAllocateNothingOnceTheHistoriesAreFull) {
    constexpr double rate = 48000;
    constexpr size_t tick = 5760;  // 0.12 s
    // Music long enough to fill both histories (tempo: about 8 s; key: 45 s), then keep going.
    auto music =
        velquin::test::progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}, {57, 60, 64}}, rate, 80.0);
    velquin::test::mixInto(music, velquin::test::clickTrain(120, rate, 80.0), 0.5f);
    velquin::TempoAnalyzer tempo(rate, false);
    velquin::KeyAnalyzer key(rate, false);
    size_t i = 0;
    const auto step = [&] {
        const std::span<const float> block(music.data() + i, tick);
        tempo.append(block);
        key.append(block);
        (void)tempo.estimate();
        (void)key.estimate();
        i += tick;
    };
    while (i < size_t(55 * rate)) step();
    counting = true;
    allocations = 0;
    size_t ticks = 0;
    while (i + tick <= music.size()) {
        step();
        ++ticks;
    }
    counting = false;
    EXPECT_GT(ticks, 150u);
    EXPECT_EQ(allocations, 0u) << "over " << ticks << " ticks";
}
