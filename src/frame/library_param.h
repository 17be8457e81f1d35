#pragma once

namespace quorl {

// One parameter's value as the frame tracks it. V is double for ranged and int
// for stepped parameters. Every writer (host event, page edit, state load, the
// declared default) writes `value`; the frame moves the other three once per
// block so that an effect could fade from `from` to `to`.
template<class V>
struct LibraryParam {
	V value;
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
		storage("value", value);
	}
};

} // namespace quorl
