#pragma once
// The stages of the Linux power-of-two transform, written once over a vector
// type V (VecSse2 or VecAvx2) and built once per instruction set. Stockham
// autosort, decimation in frequency: stage with stride s and butterfly count m
// reads x[q + s (p + k m)] and writes y[q + s (r p + k)] for radix r, so the
// result comes out in natural order without a bit-reversal pass.
//
// Internal linkage throughout: each build of this header is private to its
// translation unit.
#include "linear/platform_fft_plan.h"

#include <cstddef>

namespace varkesh::linear::platform::detail {
namespace {

template <class V>
struct FFTStages {
	static constexpr std::size_t W = V::width;

	// (r, i) *= (wr, wi)
	static inline void rotate(V &r, V &i, V wr, V wi) {
		V t = V::mulSub(r, wr, i * wi);
		i = V::mulAdd(r, wi, i * wr);
		r = t;
	}

	// Radix-4 DFT, forward: y0 = a+b+c+d, y1 = (a-c) - i(b-d), y2 = a-b+c-d,
	// y3 = (a-c) + i(b-d).
	static inline void butterfly4(V *r, V *i) {
		V apcR = r[0] + r[2], apcI = i[0] + i[2];
		V amcR = r[0] - r[2], amcI = i[0] - i[2];
		V bpdR = r[1] + r[3], bpdI = i[1] + i[3];
		V bmdR = r[1] - r[3], bmdI = i[1] - i[3];
		r[0] = apcR + bpdR;
		i[0] = apcI + bpdI;
		r[2] = apcR - bpdR;
		i[2] = apcI - bpdI;
		r[1] = amcR + bmdI;
		i[1] = amcI - bmdR;
		r[3] = amcR - bmdI;
		i[3] = amcI + bmdR;
	}

	// Radix-8 DFT, forward, as two radix-4 DFTs of the even and odd inputs
	// joined by the eighth roots of unity.
	static inline void butterfly8(V *r, V *i) {
		V er[4] = {r[0], r[2], r[4], r[6]}, ei[4] = {i[0], i[2], i[4], i[6]};
		V orr[4] = {r[1], r[3], r[5], r[7]}, oi[4] = {i[1], i[3], i[5], i[7]};
		butterfly4(er, ei);
		butterfly4(orr, oi);
		const V h = V::set1(0.70710678118654752f);
		// o1 *= (1 - i) / sqrt 2; o2 *= -i; o3 *= (-1 - i) / sqrt 2
		V o1r = (orr[1] + oi[1]) * h, o1i = (oi[1] - orr[1]) * h;
		V o2r = oi[2], o2i = V::set1(0.0f) - orr[2];
		V o3r = (oi[3] - orr[3]) * h, o3i = (V::set1(0.0f) - orr[3] - oi[3]) * h;
		r[0] = er[0] + orr[0];
		i[0] = ei[0] + oi[0];
		r[4] = er[0] - orr[0];
		i[4] = ei[0] - oi[0];
		r[1] = er[1] + o1r;
		i[1] = ei[1] + o1i;
		r[5] = er[1] - o1r;
		i[5] = ei[1] - o1i;
		r[2] = er[2] + o2r;
		i[2] = ei[2] + o2i;
		r[6] = er[2] - o2r;
		i[6] = ei[2] - o2i;
		r[3] = er[3] + o3r;
		i[3] = ei[3] + o3i;
		r[7] = er[3] - o3r;
		i[7] = ei[3] - o3i;
	}

	// Stride 1: W butterflies side by side; the four outputs of each must land
	// next to each other, hence the transposition before the stores. Twiddles:
	// per block of W butterflies, rows w1r w1i w2r w2i w3r w3i of W floats.
	static void firstRadix4(const FFTStage &stage, const float *__restrict xr, const float *__restrict xi,
		float *__restrict yr, float *__restrict yi) {
		const std::size_t m = stage.count;
		const float *tw = stage.twiddles;
		for (std::size_t p = 0; p < m; p += W, tw += 6 * W) {
			V r[4], i[4];
			for (int k = 0; k < 4; ++k) {
				r[k] = V::load(xr + p + k * m);
				i[k] = V::load(xi + p + k * m);
			}
			butterfly4(r, i);
			for (int k = 1; k < 4; ++k) rotate(r[k], i[k], V::load(tw + (2 * k - 2) * W), V::load(tw + (2 * k - 1) * W));
			V::interleave4(r[0], r[1], r[2], r[3]);
			V::interleave4(i[0], i[1], i[2], i[3]);
			for (int k = 0; k < 4; ++k) {
				r[k].store(yr + 4 * p + k * W);
				i[k].store(yi + 4 * p + k * W);
			}
		}
	}

	// Stride 4 with 8 lanes: one vector holds the four strided elements of two
	// neighbouring butterflies. Twiddles: per pair, six vectors whose low half
	// belongs to the first butterfly and high half to the second.
	static void pairRadix4(const FFTStage &stage, const float *__restrict xr, const float *__restrict xi,
		float *__restrict yr, float *__restrict yi) {
		if constexpr (W == 8) {
			const std::size_t m = stage.count;
			const float *tw = stage.twiddles;
			for (std::size_t p = 0; p < m; p += 2, tw += 6 * W) {
				V r[4], i[4];
				for (int k = 0; k < 4; ++k) {
					r[k] = V::load(xr + 4 * (p + k * m));
					i[k] = V::load(xi + 4 * (p + k * m));
				}
				butterfly4(r, i);
				for (int k = 1; k < 4; ++k)
					rotate(r[k], i[k], V::load(tw + (2 * k - 2) * W), V::load(tw + (2 * k - 1) * W));
				V::interleaveHalves(r[0], r[1], r[2], r[3]);
				V::interleaveHalves(i[0], i[1], i[2], i[3]);
				for (int k = 0; k < 4; ++k) {
					r[k].store(yr + 16 * p + k * W);
					i[k].store(yi + 16 * p + k * W);
				}
			}
		}
	}

	// Stride s >= W: vectors along the stride, one set of twiddles per butterfly
	// group (six floats: w1r w1i w2r w2i w3r w3i).
	static void radix4(const FFTStage &stage, const float *__restrict xr, const float *__restrict xi,
		float *__restrict yr, float *__restrict yi) {
		const std::size_t m = stage.count, s = stage.stride, sm = s * m;
		const float *tw = stage.twiddles;
		for (std::size_t p = 0; p < m; ++p, tw += 6) {
			V w1r = V::broadcast(tw), w1i = V::broadcast(tw + 1);
			V w2r = V::broadcast(tw + 2), w2i = V::broadcast(tw + 3);
			V w3r = V::broadcast(tw + 4), w3i = V::broadcast(tw + 5);
			const float *inR = xr + s * p, *inI = xi + s * p;
			float *outR = yr + 4 * s * p, *outI = yi + 4 * s * p;
			for (std::size_t q = 0; q < s; q += W) {
				V r[4], i[4];
				for (int k = 0; k < 4; ++k) {
					r[k] = V::load(inR + q + k * sm);
					i[k] = V::load(inI + q + k * sm);
				}
				butterfly4(r, i);
				rotate(r[1], i[1], w1r, w1i);
				rotate(r[2], i[2], w2r, w2i);
				rotate(r[3], i[3], w3r, w3i);
				for (int k = 0; k < 4; ++k) {
					r[k].store(outR + q + k * s);
					i[k].store(outI + q + k * s);
				}
			}
		}
	}

	// Last stage: a single butterfly group, whose twiddles are all 1.
	template <int radix>
	static void lastStage(const FFTStage &stage, const float *__restrict xr, const float *__restrict xi,
		float *__restrict yr, float *__restrict yi) {
		const std::size_t s = stage.stride;
		for (std::size_t q = 0; q < s; q += W) {
			V r[radix], i[radix];
			for (int k = 0; k < radix; ++k) {
				r[k] = V::load(xr + q + k * s);
				i[k] = V::load(xi + q + k * s);
			}
			if constexpr (radix == 4) {
				butterfly4(r, i);
			} else {
				butterfly8(r, i);
			}
			for (int k = 0; k < radix; ++k) {
				r[k].store(yr + q + k * s);
				i[k].store(yi + q + k * s);
			}
		}
	}

	// Scalar radix 2 for the smallest sizes; twiddles: m real parts, m imaginary.
	static void scalarRadix2(const FFTStage &stage, const float *__restrict xr, const float *__restrict xi,
		float *__restrict yr, float *__restrict yi) {
		const std::size_t m = stage.count, s = stage.stride;
		const float *twr = stage.twiddles, *twi = stage.twiddles + m;
		for (std::size_t p = 0; p < m; ++p) {
			float wr = twr[p], wi = twi[p];
			for (std::size_t q = 0; q < s; ++q) {
				float ar = xr[q + s * p], ai = xi[q + s * p];
				float br = xr[q + s * (p + m)], bi = xi[q + s * (p + m)];
				yr[q + s * 2 * p] = ar + br;
				yi[q + s * 2 * p] = ai + bi;
				float dr = ar - br, di = ai - bi;
				yr[q + s * (2 * p + 1)] = dr * wr - di * wi;
				yi[q + s * (2 * p + 1)] = dr * wi + di * wr;
			}
		}
	}

	// Runs all stages, ping-ponging between the output and the plan's scratch
	// so that the last stage writes the output and the input is only read.
	static void run(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag) {
		const unsigned count = plan.stageCount;
		if (count == 0) {
			for (std::size_t k = 0; k < plan.size; ++k) {
				outReal[k] = inReal[k];
				outImag[k] = inImag[k];
			}
			return;
		}
		const float *xr = inReal, *xi = inImag;
		for (unsigned t = 0; t < count; ++t) {
			bool toOutput = ((count - 1 - t) & 1) == 0;
			float *yr = toOutput ? outReal : plan.scratchReal;
			float *yi = toOutput ? outImag : plan.scratchImag;
			const FFTStage &stage = plan.stages[t];
			switch (stage.kind) {
			case StageKind::firstRadix4: firstRadix4(stage, xr, xi, yr, yi); break;
			case StageKind::pairRadix4: pairRadix4(stage, xr, xi, yr, yi); break;
			case StageKind::radix4: radix4(stage, xr, xi, yr, yi); break;
			case StageKind::lastRadix4: lastStage<4>(stage, xr, xi, yr, yi); break;
			case StageKind::lastRadix8: lastStage<8>(stage, xr, xi, yr, yi); break;
			case StageKind::scalarRadix2: scalarRadix2(stage, xr, xi, yr, yi); break;
			}
			xr = yr;
			xi = yi;
		}
	}
};

} // namespace
} // namespace varkesh::linear::platform::detail
