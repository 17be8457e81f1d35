// Sanitizer builds: the sanitizer's allocator stays in place and nothing is counted.
#include "support/alloc_counter.h"

namespace lumbrel_test {
std::size_t allocationCount() { return 0; }
bool allocationCountingAvailable() { return false; }
std::size_t lockCount() { return 0; }
std::size_t writeCount() { return 0; }
} // namespace lumbrel_test
