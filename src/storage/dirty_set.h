#pragma once
#include <unordered_set>

namespace varkesh::storage {

// What changed in an object tree during one exchange, by object address: a
// writer given this set writes only the dirty part. Filled and used on one
// thread within one call; allocates, so never on the audio thread.
struct DirtySet {
	// Objects of which something below changed: a writer walks in and asks each member.
	std::unordered_set<const void *> partial;
	// Objects and fields that changed as a whole: written with all their content.
	std::unordered_set<const void *> whole;

	bool includes(const void *address) const { return whole.count(address) || partial.count(address); }
	bool empty() const { return partial.empty() && whole.empty(); }
};

} // namespace varkesh::storage
