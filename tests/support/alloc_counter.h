#pragma once
// Counts heap allocations made by the calling thread. Linking alloc_counter.cpp
// into a test binary replaces the global operator new/delete and malloc family.
#include <cstddef>

namespace lumbrel_test {

// Allocations (new, new[], malloc, calloc, realloc, aligned forms) made by this
// thread since the process started.
std::size_t allocationCount();

// False in sanitizer builds, which bring their own allocator: the counter then
// counts nothing, and tests that rely on it skip.
bool allocationCountingAvailable();

// pthread mutex locks (pthread_mutex_lock, _trylock, _timedlock) taken by this
// thread since the process started; 0 where allocations aren't counted.
std::size_t lockCount();

// Writes to a stream or a file descriptor (write, writev, and the stdio
// output functions) made by this thread since the process started; 0 where
// allocations aren't counted.
std::size_t writeCount();

// Counts the allocations made by this thread within its lifetime.
class AllocationScope {
public:
	AllocationScope() : start(allocationCount()) {}
	std::size_t count() const { return allocationCount() - start; }
private:
	std::size_t start;
};

// Counts the mutex locks taken by this thread within its lifetime.
class LockScope {
public:
	LockScope() : start(lockCount()) {}
	std::size_t count() const { return lockCount() - start; }
private:
	std::size_t start;
};

} // namespace lumbrel_test
