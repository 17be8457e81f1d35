#pragma once
#include <cstddef>
#include <cstring>

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

#if defined(__GNUC__)
// Four floats in the compiler's generic vectors (GCC and clang): SSE2 on
// x86-64, NEON on arm64, the same forms on both (the same bits where the file
// forbids contraction into fused multiply-adds, as the gain sets' does).
typedef float BandLanes __attribute__((vector_size(16)));

// Transposes four vectors of four in place: v[j][k] takes what v[k][j] held.
inline void transposeBandLanes(BandLanes (&v)[4]) {
	const BandLanes t0 = __builtin_shufflevector(v[0], v[1], 0, 4, 1, 5);
	const BandLanes t1 = __builtin_shufflevector(v[0], v[1], 2, 6, 3, 7);
	const BandLanes t2 = __builtin_shufflevector(v[2], v[3], 0, 4, 1, 5);
	const BandLanes t3 = __builtin_shufflevector(v[2], v[3], 2, 6, 3, 7);
	v[0] = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
	v[1] = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
	v[2] = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
	v[3] = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
}

// smoothBandsRows for 4 G rows held in vector lanes, four rows to a vector and
// G vectors stepped together: a row's chain costs a lane, not a multiplier and
// an adder of its own. Four bands of four rows are loaded and transposed at a
// time, so that a vector holds one band of four rows. With G > 1 each lane
// sees exactly the scalar arithmetic (a product, a product, their sum).
//
// One vector of rows (G = 1) is one chain, which would wait a multiply and an
// add per band while the core idles; there each block of four bands is run
// from a zero state first, w_j = a x_j + b w_{j-1}, off the chain, and the
// incoming state s is added after: y_j = w_j + b^(j+1) s. By linearity this is
// the serial recursion regrouped, so it differs in rounding only: every term
// is the same product of a power of b (below 1) and an input, summed in
// another order, and the carried state is rounded about as often as before,
// so the error stays at a few units in the last place and does not grow along
// the bands. The chain is then one multiply and one add per four bands. With
// more vectors the chains already overlap, the transpositions bound the time,
// and the blocks' extra work would cost more than it saves.
template<std::size_t G>
inline void smoothBandsLanes(float *const *x, std::size_t count, float width) {
	if (!(width > 1e-18f) || count == 0) return;
	const float a = 1 / (width + 1), b = 1 - a;
	const BandLanes va = {a, a, a, a}, vb = {b, b, b, b};
	// b, b^2, b^3, b^4: the incoming state's weight at each band of a block.
	BandLanes power[4];
	power[0] = vb;
	for (std::size_t j = 1; j < 4; ++j) power[j] = power[j - 1] * vb;
	BandLanes s[G];
	// One band i of every row, outside the blocks of four.
	const auto single = [&](std::size_t i) {
		for (std::size_t g = 0; g < G; ++g) {
			float *const *r = x + 4 * g;
			const BandLanes v = {r[0][i], r[1][i], r[2][i], r[3][i]};
			s[g] = v * va + s[g] * vb;
			for (std::size_t k = 0; k < 4; ++k) r[k][i] = s[g][k];
		}
	};
	// Bands base .. base + 3 of every row, in rising or falling order, one
	// vector of rows after the other (their chains overlap all the same).
	const auto block = [&](std::size_t base, bool rising) {
		for (std::size_t g = 0; g < G; ++g) {
			float *const *r = x + 4 * g;
			BandLanes v[4];
			for (std::size_t k = 0; k < 4; ++k) std::memcpy(&v[k], r[k] + base, sizeof(BandLanes));
			transposeBandLanes(v);
			if constexpr (G == 1) {
				BandLanes w = v[rising ? 0 : 3] * va;
				v[rising ? 0 : 3] = w + s[g] * power[0];
				for (std::size_t j = 1; j < 4; ++j) {
					const std::size_t at = rising ? j : 3 - j;
					w = v[at] * va + w * vb;
					v[at] = w + s[g] * power[j];
				}
				s[g] = v[rising ? 3 : 0];
			} else {
				BandLanes state = s[g];
				for (std::size_t j = 0; j < 4; ++j) {
					const std::size_t at = rising ? j : 3 - j;
					state = v[at] * va + state * vb;
					v[at] = state;
				}
				s[g] = state;
			}
			transposeBandLanes(v);
			for (std::size_t k = 0; k < 4; ++k) std::memcpy(r[k] + base, &v[k], sizeof(BandLanes));
		}
	};
	for (std::size_t g = 0; g < G; ++g) {
		float *const *r = x + 4 * g;
		s[g] = BandLanes{r[0][count - 1], r[1][count - 1], r[2][count - 1], r[3][count - 1]};
	}
	// Backward over count - 2 down to 1.
	std::size_t i = count - 1;
	for (; i >= 5; i -= 4) block(i - 4, false);
	while (i-- > 1) single(i);
	// Forward over every band.
	std::size_t f = 0;
	for (; f + 4 <= count; f += 4) block(f, true);
	for (; f < count; ++f) single(f);
}
#endif

// [audio-thread] smoothBandsRows over `rowCount` rows of any number. With GCC
// or clang in vector lanes, up to sixteen rows at a time, one to four rows in
// the blocked form of smoothBandsLanes<1> (equal to smoothBandsRows but for
// rounding); otherwise in scalar chains, eight at a time (enough to keep the
// multipliers and adders busy). A last vector that the rows do not fill
// repeats its last row in the free lanes: those lanes compute the same values
// from the same inputs and store them again, which costs nothing next to
// another pass of a chain of its own.
inline void smoothBandsMany(float *const *rows, std::size_t rowCount, std::size_t count, float width) {
#if defined(__GNUC__)
	for (; rowCount >= 16; rows += 16, rowCount -= 16) smoothBandsLanes<4>(rows, count, width);
	if (rowCount == 0) return;
	float *lanes[16];
	const std::size_t used = (rowCount + 3) / 4 * 4;
	for (std::size_t k = 0; k < used; ++k) lanes[k] = rows[k < rowCount ? k : rowCount - 1];
	switch (used / 4) {
	case 4: smoothBandsLanes<4>(lanes, count, width); break;
	case 3: smoothBandsLanes<3>(lanes, count, width); break;
	case 2: smoothBandsLanes<2>(lanes, count, width); break;
	default: smoothBandsLanes<1>(lanes, count, width); break;
	}
#else
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
#endif
}

// [audio-thread] smoothBandsRows on one row, in the blocked form where there is
// one (equal but for rounding; a single chain is where it pays most).
inline void smoothBands(float *x, std::size_t count, float width) {
	float *const rows[1] = {x};
	smoothBandsMany(rows, 1, count, width);
}

} // namespace varkesh::lumbrel
