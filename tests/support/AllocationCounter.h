#pragma once
// Counts the heap allocations of the threads that ask for it, for the tests that show a hot path
// allocates nothing. Linking AllocationCounter.cpp replaces the program's global operator new and delete.

#include <cstdint>

namespace velquin::test::allocations {

void countOnThisThread(bool on);
void reset();
int64_t count();  // since the last reset, over every counting thread

}  // namespace velquin::test::allocations
