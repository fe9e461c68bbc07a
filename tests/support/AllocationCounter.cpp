#include "support/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
thread_local bool counting = false;
std::atomic<int64_t> counted{0};

void* allocate(size_t size) noexcept {
    if (counting) counted.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}
}  // namespace

namespace velquin::test::allocations {
void countOnThisThread(bool on) {
    counting = on;
}
void reset() {
    counted = 0;
}
int64_t count() {
    return counted.load();
}
}  // namespace velquin::test::allocations

void* operator new(size_t size) {
    if (void* p = allocate(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    return operator new(size);
}
// The non-throwing forms too (std::stable_sort's buffer uses them), so every form pairs with free().
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
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
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
