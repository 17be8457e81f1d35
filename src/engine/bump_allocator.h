#pragma once
// Allocator of every array inside the engine and the effects, so that one arena
// can hold a whole effect.
//
// It reads the process-wide hook (varkesh_lumbrel_set_bump_malloc) at each call:
// with a hook set, memory comes from it (falling back to malloc when it returns
// null) and is never given back piece by piece, since the hook's owner reclaims
// its arena at once. A malloc fallback made while a hook is set is thereby leaked,
// by design. Without a hook it is plain malloc and free. Changing the hook while
// engines live pairs allocations with the wrong release: set it first.
#include "engine/engine.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace varkesh::lumbrel {

// The hook's storage; null when none is installed.
extern varkesh_lumbrel_bump_malloc bumpMallocHook;

// Memory for `bytes` bytes with the given alignment (at most that of malloc when
// the fallback is taken).
inline void *bumpAllocate(std::size_t bytes, std::size_t alignment) {
	if (varkesh_lumbrel_bump_malloc hook = bumpMallocHook) {
		if (void *p = hook(bytes, alignment)) return p;
	}
	return std::malloc(bytes);
}

// Frees only when no hook is installed at this moment.
inline void bumpFree(void *p) {
	if (!bumpMallocHook) std::free(p);
}

template <typename T>
struct BumpAllocator {
	using value_type = T;

	BumpAllocator() noexcept = default;
	template <typename U>
	BumpAllocator(const BumpAllocator<U> &) noexcept {}

	T *allocate(std::size_t n) {
		if (n > std::size_t(-1) / sizeof(T)) throw std::bad_array_new_length();
		return static_cast<T *>(bumpAllocate(n * sizeof(T), alignof(T)));
	}
	void deallocate(T *p, std::size_t) noexcept { bumpFree(p); }

	template <typename U>
	bool operator==(const BumpAllocator<U> &) const noexcept { return true; }
	template <typename U>
	bool operator!=(const BumpAllocator<U> &) const noexcept { return false; }
};

} // namespace varkesh::lumbrel

#include <vector>

namespace varkesh::lumbrel {

// A vector whose storage comes from BumpAllocator.
template <typename T>
using BumpVector = std::vector<T, BumpAllocator<T>>;

} // namespace varkesh::lumbrel
