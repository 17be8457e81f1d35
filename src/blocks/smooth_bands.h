#pragma once
#include <cstddef>

namespace varkesh::lumbrel {

// [audio-thread] Smooths `count` values of each of the K rows in place across
// bands with a one-pole recursion run backward and then forward, so that the
// result has no net shift along the band axis. `width` is in bands; at or below
// 1e-18 nothing happens. The backward pass starts from x[count - 1] and leaves
// x[0] and the last value alone; the forward pass carries its state on and
// covers every value. Allocates nothing.
//
// The recursion is serial by nature: each step waits for the previous one's
// multiply and add. Independent rows are therefore stepped together, so that
// their chains overlap; each row sees exactly the arithmetic it would alone.
template<std::size_t K>
inline void smoothBandsRows(float *const (&x)[K], std::size_t count, float width) {
	if (!(width > 1e-18f) || count == 0) return;
	const float a = 1 / (width + 1), b = 1 - a;
	float s[K];
	for (std::size_t k = 0; k < K; ++k) s[k] = x[k][count - 1];
	for (std::size_t i = count - 1; i-- > 1;) {
		for (std::size_t k = 0; k < K; ++k) {
			s[k] = x[k][i] * a + s[k] * b;
			x[k][i] = s[k];
		}
	}
	for (std::size_t i = 0; i < count; ++i) {
		for (std::size_t k = 0; k < K; ++k) {
			s[k] = x[k][i] * a + s[k] * b;
			x[k][i] = s[k];
		}
	}
}

// [audio-thread] smoothBandsRows over `rowCount` rows of any number, eight at a
// time (enough chains to keep the multipliers and adders busy).
inline void smoothBandsMany(float *const *rows, std::size_t rowCount, std::size_t count, float width) {
	for (; rowCount >= 8; rows += 8, rowCount -= 8) {
		float *const group[8] = {rows[0], rows[1], rows[2], rows[3], rows[4], rows[5], rows[6], rows[7]};
		smoothBandsRows(group, count, width);
	}
	if (rowCount >= 4) {
		float *const group[4] = {rows[0], rows[1], rows[2], rows[3]};
		smoothBandsRows(group, count, width);
		rows += 4;
		rowCount -= 4;
	}
	if (rowCount >= 2) {
		float *const group[2] = {rows[0], rows[1]};
		smoothBandsRows(group, count, width);
		rows += 2;
		rowCount -= 2;
	}
	if (rowCount == 1) {
		float *const group[1] = {rows[0]};
		smoothBandsRows(group, count, width);
	}
}

inline void smoothBands(float *x, std::size_t count, float width) {
	float *const rows[1] = {x};
	smoothBandsRows(rows, count, width);
}

} // namespace varkesh::lumbrel
