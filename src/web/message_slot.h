#pragma once
#include <atomic>
#include <vector>

namespace quorl::web {

// One slot of the ring of messages to the page. A producer owns it from its
// claim until it sets `ready`; the drain owns it from seeing `ready` until it
// clears it. The buffer keeps its capacity, so allocation stops after warm-up.
struct MessageSlot {
	std::vector<unsigned char> bytes;
	std::atomic<bool> ready{false};

	MessageSlot() { bytes.reserve(256); }
};

} // namespace quorl::web
