#pragma once
#include <atomic>

namespace quorl {

// A number that two threads may write and read without a lock: the host's
// events and the engine read it on the audio thread, while state loads and page
// edits write it on the main thread. Relaxed loads and stores (plain moves on
// x86-64 and arm64) make that a defined race: each access sees some whole
// value, and nothing orders the two threads, as nothing needs to.
template<class V>
class RelaxedNumber {
public:
	explicit RelaxedNumber(V initial = V()) : number(initial) {}
	RelaxedNumber(const RelaxedNumber &other) : number(V(other)) {}

	RelaxedNumber &operator=(V v) {
		number.store(v, std::memory_order_relaxed);
		return *this;
	}
	RelaxedNumber &operator=(const RelaxedNumber &other) { return *this = V(other); }
	operator V() const { return number.load(std::memory_order_relaxed); }

private:
	std::atomic<V> number;
	static_assert(std::atomic<V>::is_always_lock_free, "the audio thread may not wait on a parameter");
};

// One parameter's value as the frame tracks it. V is double for ranged and int
// for stepped parameters. Every writer (host event, page edit, state load, the
// declared default) writes `value`, from either thread; the frame moves the
// other three, on the audio thread, once per block so that an effect could
// fade from `from` to `to`.
template<class V>
struct LibraryParam {
	RelaxedNumber<V> value;
	V current; // `value` at the end of the last processed block
	V from, to; // ends of the running fade

	LibraryParam(V initial = V()) : value(initial), current(initial), from(initial), to(initial) {}

	LibraryParam &operator=(V v) {
		value = v;
		return *this;
	}
	operator V() const { return value; }

	// Starts a fade towards `value` (configure and reset): `from` takes the old
	// `to`, then `to` and `current` take `value`.
	void restart() {
		from = to;
		to = current = value;
	}

	// As an object of its own: its value, under "value".
	template<class Storage>
	void state(Storage &storage) {
		visitValue(storage);
	}

	// Hands the value to a visitor as a plain number. Only a visitor that
	// changed it stores it back, so a writer on one thread can't undo a newer
	// value from the other.
	template<class Storage>
	void visitValue(Storage &storage) {
		const V before = value;
		V number = before;
		storage("value", number);
		if (!(number == before)) value = number;
	}
};

} // namespace quorl
