#pragma once
// Counts the calling thread's heap allocations, mutex locks and writes: alloc_counter.cpp replaces operator new/delete,
// the malloc family, the pthread mutex locks and the output functions.
#include <cstddef>

namespace lumbrel_test {

// Since the process started.
std::size_t allocationCount();
std::size_t lockCount(); // 0 where allocations aren't counted
std::size_t writeCount(); // write, writev and the stdio output functions; 0 likewise

// False in sanitizer builds, which bring their own allocator: the counter then counts nothing, and tests that rely on it
// skip.
bool allocationCountingAvailable();

// What this thread does within a scope's lifetime.
struct AllocationScope {
	std::size_t start = allocationCount();
	std::size_t count() const { return allocationCount() - start; }
};
struct LockScope {
	std::size_t start = lockCount();
	std::size_t count() const { return lockCount() - start; }
};

} // namespace lumbrel_test
