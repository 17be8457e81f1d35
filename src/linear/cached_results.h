#pragma once
// Scratch store for the temporaries of the expression layer: one arena used
// like a stack, plus an overflow list of heap rows for whatever does not fit.
// With the arena reserved large enough, handing out temporaries allocates
// nothing.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace varkesh::linear {

// Linear: the evaluator that owns the store; useLibrary: its variant;
// alignBytes: alignment of every temporary.
template <class Linear, bool useLibrary, std::size_t alignBytes>
class CachedResults {
	static_assert(alignBytes % sizeof(float) == 0 && (alignBytes & (alignBytes - 1)) == 0, "alignment");
	static constexpr std::size_t alignFloats = alignBytes / sizeof(float);
	static constexpr std::size_t paddedTemporaries = 16;

public:
	CachedResults() = default;
	CachedResults(const CachedResults &) = delete;
	CachedResults &operator=(const CachedResults &) = delete;
	// Moves take the arena along; not while a scope is open.
	CachedResults(CachedResults &&other) noexcept { *this = std::move(other); }
	CachedResults &operator=(CachedResults &&other) noexcept {
		if (this != &other) {
			delete[] raw;
			raw = std::exchange(other.raw, nullptr);
			aligned = std::exchange(other.aligned, nullptr);
			cursor = std::exchange(other.cursor, 0);
			end = std::exchange(other.end, 0);
			reserved = std::exchange(other.reserved, 0);
			overflow = std::move(other.overflow);
			other.overflow.clear();
		}
		return *this;
	}
	~CachedResults() { delete[] raw; }

	// [set-up, allocates] Replaces the arena by one of `floats` floats, aligned
	// to alignBytes, plus room for the alignment padding of up to
	// `paddedTemporaries` temporaries, so that k rows of n floats fit in a
	// reservation of k * n however n rounds. Must not be called while a scope is
	// open.
	void reserve(std::size_t floats) {
		delete[] raw;
		const std::size_t total = floats + paddedTemporaries * alignFloats;
		raw = new float[total];
		std::uintptr_t address = reinterpret_cast<std::uintptr_t>(raw);
		if (address % alignBytes) {
			delete[] raw;
			raw = new float[total + alignFloats];
			address = alignUp(reinterpret_cast<std::uintptr_t>(raw));
		}
		aligned = reinterpret_cast<float *>(address);
		cursor = address;
		end = address + total * sizeof(float);
		reserved = floats;
	}

	// Floats in the arena, and rows in the overflow list now (for tests).
	std::size_t reservedFloats() const { return reserved; }
	std::size_t overflowRows() const { return overflow.size(); }

	// One scope of the store: temporaries taken through it are released, in
	// stack order, when it ends. Scopes nest; only the innermost may hand out.
	class Scope {
	public:
		explicit Scope(CachedResults &store)
			: store(store), savedCursor(store.cursor), savedOverflow(store.overflow.size()) {}
		Scope(const Scope &) = delete;
		Scope &operator=(const Scope &) = delete;
		~Scope() {
			store.cursor = savedCursor;
			store.overflow.resize(savedOverflow); // frees overflow rows of this scope
		}

		// [no allocation while the arena has room] A fresh row of `size` floats,
		// alignBytes aligned, valid until the scope ends. Past the arena's end it
		// comes from a new overflow row; the cursor moves on regardless, so every
		// later temporary of the scope overflows too.
		float *temporary(std::size_t size) {
			std::uintptr_t start = store.cursor;
			std::uintptr_t next = start + size * sizeof(float);
			float *result;
			if (next > store.end) {
				auto &row = store.overflow.emplace_back(size + alignFloats, 0.0f);
				result = reinterpret_cast<float *>(alignUp(reinterpret_cast<std::uintptr_t>(row.data())));
			} else {
				result = reinterpret_cast<float *>(start);
			}
			store.cursor = alignUp(next);
			return result;
		}

	private:
		CachedResults &store;
		std::uintptr_t savedCursor;
		std::size_t savedOverflow;
	};

private:
	float *raw = nullptr;
	float *aligned = nullptr;
	// Addresses as integers: past the arena's end the cursor no longer points
	// into any object.
	std::uintptr_t cursor = 0, end = 0;
	std::size_t reserved = 0;
	std::vector<std::vector<float>> overflow;

	static std::uintptr_t alignUp(std::uintptr_t address) {
		return (address + alignBytes - 1) & ~std::uintptr_t(alignBytes - 1);
	}
};

} // namespace varkesh::linear
