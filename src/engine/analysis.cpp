// lumbrelAnalysis: turns the padded STFT rows of one step into band values.
//
// Each low band is an oscillator turning at its own frequency. Its prediction
// is last step's value rotated by one interval and shrunk by `keep`. What the
// STFT shows beyond all predictions (the residual, found in the bin domain by
// placing the bands on bins and convolving with the window's kernel) is shared
// among the low bands in proportion to their recent energy: a closed-form first
// gain, then a few rounds of gradient descent on the squared residual. Each
// band's frequency is then read from the phase of its value against its
// prediction. Above the knee, with directCopy, bands are read from the STFT.
#include "engine/engine_impl.h"
#include "linear/vector_hints.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(LUMBREL_MULTIVERSION)
#include <immintrin.h>
#endif

namespace varkesh::lumbrel {

namespace {

// The element-wise passes over the tracked bands, with unaliased rows so that
// they vectorise.
LUMBREL_VECTOR_CLONES void predictRows(float *__restrict xr, float *__restrict xi, float *__restrict pr, float *__restrict pi,
	float *__restrict e, const float *__restrict tr, const float *__restrict ti, const float *__restrict rotR,
	const float *__restrict rotI, const float *__restrict k, const float *__restrict m, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		float predR = rotR[b] * xr[b] - rotI[b] * xi[b];
		float predI = rotR[b] * xi[b] + rotI[b] * xr[b];
		pr[b] = predR;
		pi[b] = predI;
		xr[b] = k[b] * predR;
		xi[b] = k[b] * predI;
		e[b] = e[b] * (k[b] * k[b]);
		e[b] = e[b] + (tr[b] * tr[b] + ti[b] * ti[b]) * m[b];
	}
}

LUMBREL_VECTOR_CLONES void measureRows(float *__restrict ar, float *__restrict ai, float *__restrict q, float *__restrict hz,
	float *__restrict zr, float *__restrict zi, float *__restrict inc, const float *__restrict xr,
	const float *__restrict xi, const float *__restrict pr, const float *__restrict pi, const float *__restrict d,
	const float *__restrict nominal, float rate, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		ar[b] = d[b] * ar[b];
		ai[b] = d[b] * ai[b];
		q[b] = d[b] * q[b];
		ar[b] += 2 * (pr[b] * xr[b] + pi[b] * xi[b]);
		ai[b] += 2 * (pr[b] * xi[b] - pi[b] * xr[b]);
		q[b] = q[b] + ((xr[b] * xr[b] + xi[b] * xi[b]) + (pr[b] * pr[b] + pi[b] * pi[b]));
		hz[b] = nominal[b] + (rate * ai[b]) / (6.2831855f * q[b] + 1e-30f);
		float inv = 1 / (q[b] + 1e-30f);
		zr[b] = ar[b] * inv;
		zi[b] = ai[b] * inv;
		inc[b] = -((zr[b] * zr[b] + zi[b] * zi[b]) + -1.0f);
	}
}

// G += step E conj(F) v / (|F|^2 + 1e-30), v the residual per unit of energy.
LUMBREL_VECTOR_CLONES void stepGains(float *__restrict gr, float *__restrict gi, const float *__restrict vr, const float *__restrict vi,
	const float *__restrict fr, const float *__restrict fi, const float *__restrict e, const float *__restrict norm,
	float stepSize, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		float a = stepSize * e[b];
		float cr = a * fr[b], ci = -(a * fi[b]);
		float ur = cr * vr[b] - ci * vi[b], ui = cr * vi[b] + ci * vr[b];
		gr[b] += ur / norm[b];
		gi[b] += ui / norm[b];
	}
}

// The kernel over output indices up to `end`, with the low fold.
template <bool imaginary>
LUMBREL_VECTOR_CLONES void convolveLow(float *in, float *out, const WindowKernel &kernel, std::size_t end) {
	stftWindowConvolveLow<imaginary>(in, out, kernel, end);
}

template <bool imaginary>
LUMBREL_VECTOR_CLONES void convolveFolded(float *in, float *out, const WindowKernel &kernel, std::size_t fftBins) {
	stftWindowConvolve<imaginary>(in, out, kernel, fftBins, true);
}

#if defined(__SSE2__)
// Four bands' bin pairs, one 64-bit load per band: the lower bins [real[i0],
// real[i1], real[i2], real[i3]] into lo, the upper ones into hi.
inline void loadBinPairs(const float *row, std::uint32_t i0, std::uint32_t i1, std::uint32_t i2, std::uint32_t i3,
	__m128 &lo, __m128 &hi) {
	__m128 p01 = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64 *>(row + i0)),
		reinterpret_cast<const __m64 *>(row + i1));
	__m128 p23 = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64 *>(row + i2)),
		reinterpret_cast<const __m64 *>(row + i3));
	lo = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(2, 0, 2, 0));
	hi = _mm_shuffle_ps(p01, p23, _MM_SHUFFLE(3, 1, 3, 1));
}
#endif

// Band b reads below[b] of bin index[b] and above[b] of the bin after it. The
// compiler makes element-wise gathers of this out of 16 scalar loads and inserts
// per four bands; the bins come in pairs, so with SSE2 it is 8 loads and two
// shuffles. The same products and sums either way.
LUMBREL_VECTOR_CLONES void gatherBands(const std::uint32_t *__restrict index, const float *__restrict below,
	const float *__restrict above, const float *__restrict real, const float *__restrict imag,
	float *__restrict outReal, float *__restrict outImag, std::size_t from, std::size_t to) {
	std::size_t b = from;
#if defined(__SSE2__)
	for (; b + 4 <= to; b += 4) {
		std::uint32_t i0 = index[b], i1 = index[b + 1], i2 = index[b + 2], i3 = index[b + 3];
		__m128 wLo = _mm_loadu_ps(below + b), wHi = _mm_loadu_ps(above + b);
		__m128 lo, hi;
		loadBinPairs(real, i0, i1, i2, i3, lo, hi);
		_mm_storeu_ps(outReal + b, _mm_add_ps(_mm_mul_ps(wLo, lo), _mm_mul_ps(wHi, hi)));
		loadBinPairs(imag, i0, i1, i2, i3, lo, hi);
		_mm_storeu_ps(outImag + b, _mm_add_ps(_mm_mul_ps(wLo, lo), _mm_mul_ps(wHi, hi)));
	}
#endif
	for (; b < to; ++b) {
		std::uint32_t i = index[b];
		outReal[b] = below[b] * real[i] + above[b] * real[i + 1];
		outImag[b] = below[b] * imag[i] + above[b] * imag[i + 1];
	}
}

// A scatter of one real row, along the chains as in scatterRuns: with SSE2 one
// product of the weights (1 - f, 1 - f, f, f) and the value per band.
LUMBREL_VECTOR_CLONES void scatterValues(const ScatterPlan &plan, const float *weights, const float *below,
	const float *above, const float *values, float *row) {
	const std::uint32_t *runEnds = plan.runEnds.data();
	for (const BinChain &chain : plan.chains) {
		std::size_t bin = chain.bin, b = chain.firstBand;
#if defined(__SSE2__)
		(void)below, (void)above;
		__m128 lower = _mm_load_ss(row + bin);
		for (const std::uint32_t *e = runEnds + chain.firstRun, *last = runEnds + chain.endRun; e != last; ++e, ++bin) {
			__m128 upper = _mm_load_ss(row + bin + 1);
			for (; b < *e; ++b) {
				__m128 products = _mm_mul_ps(_mm_loadu_ps(weights + 4 * b), _mm_load1_ps(values + b));
				lower = _mm_add_ss(lower, products);
				upper = _mm_add_ss(upper, _mm_movehl_ps(products, products));
			}
			_mm_store_ss(row + bin, lower);
			lower = upper;
		}
		if (chain.upper) _mm_store_ss(row + bin, lower);
#else
		(void)weights;
		float lo = row[bin];
		for (const std::uint32_t *e = runEnds + chain.firstRun, *last = runEnds + chain.endRun; e != last; ++e, ++bin) {
			float hi = row[bin + 1];
			for (; b < *e; ++b) {
				lo += below[b] * values[b];
				hi += above[b] * values[b];
			}
			row[bin] = lo;
			lo = hi;
		}
		if (chain.upper) row[bin] = lo;
#endif
	}
}

#if defined(LUMBREL_MULTIVERSION)
// gatherBands over the first `groups` groups of eight bands whose bins lie
// within eight of the group's first (see gatherBase). With AVX2 both bins of
// every band come out of one load per row by permutes; the same products and
// sums.
__attribute__((target("default"))) void gatherGroups(const std::uint32_t *index, const std::uint32_t *,
	const std::int32_t *, std::size_t groups, const float *below, const float *above, const float *real,
	const float *imag, float *outReal, float *outImag) {
	gatherBands(index, below, above, real, imag, outReal, outImag, 0, 8 * groups);
}

__attribute__((target("arch=x86-64-v3"))) void gatherGroups(const std::uint32_t *, const std::uint32_t *base,
	const std::int32_t *offsets, std::size_t groups, const float *below, const float *above, const float *real,
	const float *imag, float *outReal, float *outImag) {
	const __m256i one = _mm256_set1_epi32(1);
	for (std::size_t g = 0; g < groups; ++g) {
		__m256i lower = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(offsets + 8 * g));
		__m256i upper = _mm256_add_epi32(lower, one);
		__m256 wLo = _mm256_loadu_ps(below + 8 * g), wHi = _mm256_loadu_ps(above + 8 * g);
		__m256 re = _mm256_loadu_ps(real + base[g]), im = _mm256_loadu_ps(imag + base[g]);
		_mm256_storeu_ps(outReal + 8 * g, _mm256_add_ps(_mm256_mul_ps(wLo, _mm256_permutevar8x32_ps(re, lower)),
			_mm256_mul_ps(wHi, _mm256_permutevar8x32_ps(re, upper))));
		_mm256_storeu_ps(outImag + 8 * g, _mm256_add_ps(_mm256_mul_ps(wLo, _mm256_permutevar8x32_ps(im, lower)),
			_mm256_mul_ps(wHi, _mm256_permutevar8x32_ps(im, upper))));
	}
}
#endif

// scatterRuns built for AVX as well: its three-operand forms and loads folded
// into arithmetic make the loop per band shorter.
LUMBREL_VECTOR_CLONES void scatterPairs(const ScatterPlan &plan, const float *weights, const float *below,
	const float *above, const float *pairs, float *real, float *imag) {
	scatterRuns(plan, weights, below, above, pairs, real, imag);
}

LUMBREL_VECTOR_CLONES void pairUp(float *__restrict pairs, const float *__restrict real,
	const float *__restrict imag, std::size_t count) {
	for (std::size_t b = 0; b < count; ++b) {
		pairs[2 * b] = real[b];
		pairs[2 * b + 1] = imag[b];
	}
}

// D = G F as (re, im) pairs, for the scatter.
LUMBREL_VECTOR_CLONES void multiplyBandsPairs(float *__restrict d, const float *__restrict gr,
	const float *__restrict gi, const float *__restrict fr, const float *__restrict fi, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		d[2 * b] = gr[b] * fr[b] - gi[b] * fi[b];
		d[2 * b + 1] = gr[b] * fi[b] + gi[b] * fr[b];
	}
}

// D = G F
LUMBREL_VECTOR_CLONES void multiplyBands(float *__restrict dr, float *__restrict di, const float *__restrict gr,
	const float *__restrict gi, const float *__restrict fr, const float *__restrict fi, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		dr[b] = gr[b] * fr[b] - gi[b] * fi[b];
		di[b] = gr[b] * fi[b] + gi[b] * fr[b];
	}
}

// X += D
LUMBREL_VECTOR_CLONES void addRows(float *__restrict xr, float *__restrict xi, const float *__restrict dr,
	const float *__restrict di, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		xr[b] += dr[b];
		xi[b] += di[b];
	}
}

// Each band's first gain, E / (the energy spectrum at the band), and what of
// its energy that leaves. The energy is read between the band's two bins, four
// bands at a time with SSE2 (as in gatherBands); the same arithmetic either way,
// the maximum taken so that a NaN stays.
inline void firstGain(float energyLo, float energyHi, float f, float &e, float &gr, float &gi) {
	float binEnergy = energyLo + (energyHi - energyLo) * f;
	float g = e / (binEnergy + 1e-15f);
	gr = g;
	gi = 0;
	e = std::max(e - g * g * binEnergy, 1e-30f);
}

LUMBREL_VECTOR_CLONES void firstGainRows(float *__restrict gr, float *__restrict gi, float *__restrict e,
	const std::uint32_t *__restrict index, const float *__restrict fraction, const float *__restrict energy,
	std::size_t low) {
	std::size_t b = 0;
#if defined(__SSE2__)
	const __m128 offset = _mm_set1_ps(1e-15f), least = _mm_set1_ps(1e-30f);
	for (; b + 4 <= low; b += 4) {
		__m128 lo, hi;
		loadBinPairs(energy, index[b], index[b + 1], index[b + 2], index[b + 3], lo, hi);
		__m128 binEnergy = _mm_add_ps(lo, _mm_mul_ps(_mm_sub_ps(hi, lo), _mm_loadu_ps(fraction + b)));
		__m128 eb = _mm_loadu_ps(e + b);
		__m128 g = _mm_div_ps(eb, _mm_add_ps(binEnergy, offset));
		_mm_storeu_ps(gr + b, g);
		_mm_storeu_ps(gi + b, _mm_setzero_ps());
		// max(least, x) gives x where x is NaN, as std::max(x, least) does.
		_mm_storeu_ps(e + b, _mm_max_ps(least, _mm_sub_ps(eb, _mm_mul_ps(_mm_mul_ps(g, g), binEnergy))));
	}
#endif
	for (; b < low; ++b) firstGain(energy[index[b]], energy[index[b] + 1], fraction[b], e[b], gr[b], gi[b]);
}

// T = mix F + keep (r T)
LUMBREL_VECTOR_CLONES void trackRows(float *__restrict tr, float *__restrict ti, const float *__restrict fr,
	const float *__restrict fi, const float *__restrict rotR, const float *__restrict rotI, const float *__restrict k,
	const float *__restrict m, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		float rotatedR = rotR[b] * tr[b] - rotI[b] * ti[b];
		float rotatedI = rotR[b] * ti[b] + rotI[b] * tr[b];
		tr[b] = m[b] * fr[b] + k[b] * rotatedR;
		ti[b] = m[b] * fi[b] + k[b] * rotatedI;
	}
}

// Squared sum of a complex row over [from, end), in eight interleaved partial
// sums that the compiler keeps in vector lanes (one sum in bin order would wait
// for each addition). The same order in every build, so the same bits.
LUMBREL_VECTOR_CLONES float squaredSum(const float *__restrict re, const float *__restrict im, std::size_t from,
	std::size_t end) {
	typedef float Lanes __attribute__((vector_size(32)));
	Lanes sum = {0, 0, 0, 0, 0, 0, 0, 0};
	std::size_t i = from;
	for (; i + 8 <= end; i += 8) {
		Lanes r, m;
		std::memcpy(&r, re + i, sizeof r);
		std::memcpy(&m, im + i, sizeof m);
		sum += r * r + m * m;
	}
	float part[8];
	std::memcpy(part, &sum, sizeof part);
	for (std::size_t j = 0; i < end; ++i, ++j) part[j] += re[i] * re[i] + im[i] * im[i];
	return ((part[0] + part[4]) + (part[1] + part[5])) + ((part[2] + part[6]) + (part[3] + part[7]));
}

// R = R0 - R over [from, end), and its squared sum.
LUMBREL_VECTOR_CLONES float subtractResidual(float *__restrict rr, float *__restrict ri, const float *__restrict r0r,
	const float *__restrict r0i, std::size_t from, std::size_t end) {
	for (std::size_t i = from; i < end; ++i) {
		rr[i] = r0r[i] - rr[i];
		ri[i] = r0i[i] - ri[i];
	}
	return squaredSum(rr, ri, from, end);
}

LUMBREL_VECTOR_CLONES void divideRows(float *__restrict rr, float *__restrict ri, const float *__restrict by,
	std::size_t from, std::size_t end) {
	for (std::size_t i = from; i < end; ++i) {
		rr[i] = rr[i] / by[i];
		ri[i] = ri[i] / by[i];
	}
}

} // namespace

template <bool imaginary>
void EngineImpl<float>::convolve(float *in, float *out) const {
	convolveFolded<imaginary>(in, out, kernel, fftBins);
}
template void EngineImpl<float>::convolve<false>(float *, float *) const;
template void EngineImpl<float>::convolve<true>(float *, float *) const;

// Gather: (1 - f) of the lower bin plus f of the one above, for the bands
// from `from` to `to`.
void EngineImpl<float>::gatherPair(std::size_t from, std::size_t to, const float *real, const float *imag,
	float *outReal, float *outImag) const {
	const float *lowerWeight = bandFractionBelow.data(), *upperWeight = bandFraction.data();
#if defined(LUMBREL_MULTIVERSION)
	if (from == 0) {
		std::size_t groups = std::min(gatherBase.size(), to / 8);
		gatherGroups(bandIndex.data(), gatherBase.data(), gatherOffsets.data(), groups, lowerWeight, upperWeight, real,
			imag, outReal, outImag);
		from = 8 * groups;
	}
#endif
	gatherBands(bandIndex.data(), lowerWeight, upperWeight, real, imag, outReal, outImag, from, to);
}

void EngineImpl<float>::scatterPair(const ScatterPlan &plan, const float *pairs, float *real, float *imag) const {
	scatterPairs(plan, bandWeights.data(), bandFractionBelow.data(), bandFraction.data(), pairs, real, imag);
}

void EngineImpl<float>::scatterPair(const ScatterPlan &plan, const float *values, const float *valuesImag,
	float *real, float *imag) {
	pairUp(bandPairs.data(), values, valuesImag, bandCount);
	scatterPair(plan, bandPairs.data(), real, imag);
}

void EngineImpl<float>::scatterRow(const ScatterPlan &plan, const float *values, float *row) const {
	scatterValues(plan, bandWeights.data(), bandFractionBelow.data(), bandFraction.data(), values, row);
}

void EngineImpl<float>::lumbrelAnalysis() {
	if (channelsIn == 0) return;
	std::size_t low = grid.lowBands;
	// Every channel finishes a phase before the next phase begins.
	if (low) {
		for (std::size_t c = 0; c < channelsIn; ++c) trackBands(c);
		for (std::size_t c = 0; c < channelsIn; ++c) predictBands(c);
	}
	for (std::size_t c = 0; c < channelsIn; ++c) resolveBands(c);
	if (low) {
		for (std::size_t c = 0; c < channelsIn; ++c) measureFrequencies(c);
	}
	for (std::size_t c = 0; c < channelsIn; ++c) {
		row(inputImagStorage, c)[0] = 0;
		inputRealTable[c] = row(inputRealStorage, c);
		inputImagTable[c] = row(inputImagStorage, c);
		inputHzTable[c] = row(inputHzStorage, c);
	}
}

// T = mix F + keep (r T): the STFT at the band, smoothed along the band's rotation.
void EngineImpl<float>::trackBands(std::size_t c) {
	float *fr = localReal.data(), *fi = localImag.data();
	gatherPair(0, grid.lowBands, padded(spectrumReal, c), padded(spectrumImag, c), fr, fi);
	trackRows(row(trackedReal, c), row(trackedImag, c), fr, fi, rotateReal.data(), rotateImag.data(), keep.data(),
		mix.data(), grid.lowBands);
}

// P = r X, X = keep P, E = E keep^2 + |T|^2 mix.
void EngineImpl<float>::predictBands(std::size_t c) {
	predictRows(row(inputRealStorage, c), row(inputImagStorage, c), row(predictedReal, c), row(predictedImag, c),
		row(energy, c), row(trackedReal, c), row(trackedImag, c), rotateReal.data(), rotateImag.data(), keep.data(),
		mix.data(), grid.lowBands);
}

// Phase 3 for one channel: the high bands from the STFT, then the low bands'
// share of the residual.
void EngineImpl<float>::resolveBands(std::size_t c) {
	std::size_t low = grid.lowBands;
	const float *sr = padded(spectrumReal, c), *si = padded(spectrumImag, c);
	float *xr = row(inputRealStorage, c), *xi = row(inputImagStorage, c);
	float *e = row(energy, c);

	if (grid.highBands) gatherPair(low, bandCount, sr, si, xr, xi);
	residualBeyondPredictions(c);
	firstGains(e);
	refineGains(e);

	// X += G F
	const float *fr = localReal.data(), *fi = localImag.data();
	const float *gr = gainReal.data(), *gi = gainImag.data();
	multiplyBands(updateReal.data(), updateImag.data(), gr, gi, fr, fi, low);
	addRows(xr, xi, updateReal.data(), updateImag.data(), low);
}

// R0 = S - convolve(scatter(X)): what the STFT holds beyond the low bands'
// predictions and the high bands; F = gather(R0) at the low bands.
void EngineImpl<float>::residualBeyondPredictions(std::size_t c) {
	const float *sr = padded(spectrumReal, c), *si = padded(spectrumImag, c);
	const float *xr = row(inputRealStorage, c), *xi = row(inputImagStorage, c);
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	std::fill(scatterImag.begin(), scatterImag.end(), 0.0f);
	scatterPair(allRuns, xr, xi, scatterReal.data(), scatterImag.data());
	convolve<false>(scatterReal.data(), convolvedReal.data());
	convolve<true>(scatterImag.data(), convolvedImag.data());

	float *r0r = residualReal.data(), *r0i = residualImag.data();
	const float *cr = convolvedReal.data(), *ci = convolvedImag.data();
	for (std::size_t i = 0; i < paddedBins; ++i) {
		r0r[i] = sr[i] - cr[i];
		r0i[i] = si[i] - ci[i];
	}
	gatherPair(0, grid.lowBands, r0r, r0i, localReal.data(), localImag.data());
	// Above the low region every evaluation's residual is this one.
	tailError = squaredSum(r0r, r0i, lowConvolveEnd, padded::before + fftBins);
}

// The closed-form start: each band's share of its bin's energy (the bands'
// energies as the STFT would show them), taken from the band's energy.
void EngineImpl<float>::firstGains(float *e) {
	std::size_t low = grid.lowBands;
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	scatterRow(lowRuns, e, scatterReal.data());
	// Read at the low bands' bins only.
	if (lowRegionOnly) {
		convolveLow<false>(scatterReal.data(), energySpectrum.data(), kernel, lowScatterEnd);
	} else {
		convolve<false>(scatterReal.data(), energySpectrum.data());
	}

	firstGainRows(gainReal.data(), gainImag.data(), e, bandIndex.data(), bandFraction.data(), energySpectrum.data(), low);
}

// Gradient descent on the squared residual, with a step that grows by half on
// success (up to 1) and halves on failure, when the previous gains come back.
void EngineImpl<float>::refineGains(const float *e) {
	std::size_t low = grid.lowBands;
	const float *fr = localReal.data(), *fi = localImag.data();
	float *gr = gainReal.data(), *gi = gainImag.data();
	// What stays the same through the rounds: the scatter rows are zero above the
	// low region, the energy per bin, |F|^2.
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	std::fill(scatterImag.begin(), scatterImag.end(), 0.0f);
	std::fill(energyPerBin.begin(), energyPerBin.begin() + lowScatterEnd, 1e-30f);
	scatterRow(lowRuns, e, energyPerBin.data());
	float *norm = localNorm.data();
	for (std::size_t b = 0; b < low; ++b) norm[b] = fr[b] * fr[b] + fi[b] * fi[b] + 1e-30f;
	float err = evaluate(e);
	float stepSize = 1.0f;
	bool rejected = false;
	for (std::size_t round = 0; round < iterations; ++round) {
		std::copy(gr, gr + low, gainBackupReal.begin());
		std::copy(gi, gi + low, gainBackupImag.begin());
		float previous = err;
		// R per unit of energy at the bands, gathered run by run, then the step in
		// a loop that vectorises.
		const float *rr = convolvedReal.data(), *ri = convolvedImag.data();
		float *gatheredR = updateReal.data(), *gatheredI = updateImag.data();
		// After a rejected round the gathered values are those of the restored gains.
		if (!rejected) gatherPair(0, low, rr, ri, gatheredR, gatheredI);
		stepGains(gr, gi, gatheredR, gatheredI, fr, fi, e, norm, stepSize, low);
		err = evaluate(e);
		if (previous > err) {
			stepSize = std::min(stepSize * 1.5f, 1.0f);
			rejected = false;
		} else {
			std::copy(gainBackupReal.begin(), gainBackupReal.begin() + low, gr);
			std::copy(gainBackupImag.begin(), gainBackupImag.begin() + low, gi);
			stepSize *= 0.5f;
			// An evaluation of the restored gains would give `previous` again, and
			// residual rows whose gathered values are still in hand.
			err = previous;
			rejected = true;
		}
	}
}

// Residual R0 - convolve(G F) into the convolved pair, its squared sum over the
// bins, and then R per unit of band energy at each bin: gathered and times E it
// shares each bin's residual among the bands by energy. G F lives in the low
// region; with lowRegionOnly the work stops at its edge, and the sum above it
// is the step's tailError (so the squared sum is added in two parts).
float EngineImpl<float>::evaluate(const float *) {
	const float *fr = localReal.data(), *fi = localImag.data();
	const float *gr = gainReal.data(), *gi = gainImag.data();
	float *sr = scatterReal.data(), *si = scatterImag.data();
	// Without lowRegionOnly the folds write at the top too.
	std::size_t clearEnd = lowRegionOnly ? lowScatterEnd : paddedBins;
	std::fill(sr, sr + clearEnd, 0.0f);
	std::fill(si, si + clearEnd, 0.0f);
	float *d = bandPairs.data();
	multiplyBandsPairs(d, gr, gi, fr, fi, grid.lowBands);
	scatterPair(lowRuns, d, sr, si);
	float *rr = convolvedReal.data(), *ri = convolvedImag.data();
	std::size_t end = lowConvolveEnd;
	if (lowRegionOnly) {
		convolveLow<false>(sr, rr, kernel, end);
		convolveLow<true>(si, ri, kernel, end);
	} else {
		convolve<false>(sr, rr);
		convolve<true>(si, ri);
	}
	float err = subtractResidual(rr, ri, residualReal.data(), residualImag.data(), padded::before, end);
	if (lowRegionOnly) err += tailError;
	// Read back at the low bands' bins only.
	divideRows(rr, ri, energyPerBin.data(), padded::before, lowScatterEnd);
	return err;
}

// Phase against prediction, smoothed with a band-dependent memory: Im A / Q is
// the sine of the phase error per interval, read as the angle.
void EngineImpl<float>::measureFrequencies(std::size_t c) {
	measureRows(row(phaseSumReal, c), row(phaseSumImag, c), row(powerSum, c), row(inputHzStorage, c),
		row(coherenceReal, c), row(coherenceImag, c), row(incoherence, c), row(inputRealStorage, c),
		row(inputImagStorage, c), row(predictedReal, c), row(predictedImag, c), decay.data(), grid.bandHz.data(),
		stepRate, grid.lowBands);
}

} // namespace varkesh::lumbrel
