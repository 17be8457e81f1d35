#include "blocks/smoothed_gains.h"

#include "blocks/smooth_bands.h"
#include "linear/vector_hints.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace varkesh::lumbrel {


void SmoothedGains<float>::init(LumbrelEffect<float> &effect) {
	const std::size_t n = effect.bands;
	hz.resize(n);
	nominalHz.resize(n);
	for (std::size_t b = 0; b < n; ++b) hz[b] = nominalHz[b] = effect.nominalHz(b);
	for (auto *row : {&gainsReal, &gainsImag, &outReal, &outImag, &magnitudes, &previousEnergy, &weightedReal,
			 &weightedImag, &weightedAbs}) {
		row->resize(n);
	}
	lowCutBands = effect.nominalBand(lowCutHz);
}

namespace {

// Smooths rows[i] with widths[i], running rows of equal width (adjacent in the
// list) side by side.
void smoothRuns(float *const *rows, const float *widths, std::size_t count, std::size_t bands) {
	for (std::size_t start = 0; start < count;) {
		std::size_t end = start + 1;
		while (end < count && widths[end] == widths[start]) ++end;
		smoothBandsMany(rows + start, end - start, bands, widths[start]);
		start = end;
	}
}

// The rows weigh() reads and writes; see weighRows.
struct WeighRows {
	float *faded;          // faded energy, clamped at 0 in place when `clamp`
	const float *previous; // last frame's faded energy
	const float *r, *m;    // the raw gain
	const float *e;        // energy
	float *magnitude;      // target magnitude, written when known
	float *wr, *wi;        // the weighted gain
	float *before;         // |weighted gain|, written when detail boost is on
};

// Transient measure, magnitude, phase pull and weighting, one band at a time
// in one pass (the arithmetic of each step as it stands in weigh's comments).
// The settings are template arguments so that each loop is straight-line.
template<bool Unit, bool Boost, bool TransientBoost>
inline void weighLoop(float *__restrict faded, const float *__restrict previous, const float *__restrict r,
	const float *__restrict m, const float *__restrict e, float *__restrict magnitude, float *__restrict wr,
	float *__restrict wi, float *__restrict before, bool clamp, float kappa, float extra, float reset,
	std::size_t n) {
	constexpr bool known = !Unit || Boost || TransientBoost;
	// The clamp as a maximum with -inf when off (the same value, NaN too), so
	// that the loop has no branch and vectorises.
	const float floor = clamp ? 0.0f : -std::numeric_limits<float>::infinity();
	for (std::size_t i = 0; i < n; ++i) {
		const float f = std::max(faded[i], floor);
		faded[i] = f;
		// Transient measure: near 1 at a sudden onset, 0 for steady or falling energy.
		float rise = std::max(0.0f, f - previous[i]) / (f + 1e-30f);
		float transient = rise * rise;
		// The raw gain's magnitude, unless it is promised to be 1.
		float level = Unit ? 1 : std::sqrt(r[i] * r[i] + m[i] * m[i]);
		if constexpr (Boost) {
			if constexpr (Unit) level = 1 + transient * (1 - r[i]) * kappa;
			else level = level + transient * (level - r[i]) * kappa;
		}
		if constexpr (TransientBoost) {
			if constexpr (Unit && !Boost) level = 1 + transient * extra;
			else level = level * (1 + transient * extra);
		}
		if constexpr (known) magnitude[i] = level;
		// The phase pull is a real number added to the gain, in proportion to
		// the transient; then everything is weighted by energy.
		float pull = known ? transient * reset * level : transient * reset;
		float re = (r[i] + pull) * e[i];
		float im = e[i] * m[i];
		wr[i] = re;
		wi[i] = im;
		if constexpr (Boost) before[i] = std::sqrt(re * re + im * im);
	}
}

// One function for every setting, built for the baseline and for AVX2.
LUMBREL_VECTOR_CLONES void weighRows(const WeighRows &w, bool unit, bool boost, bool transientBoost, bool clamp,
	float kappa, float extra, float reset, std::size_t n) {
	const auto run = [&](auto loop) {
		loop(w.faded, w.previous, w.r, w.m, w.e, w.magnitude, w.wr, w.wi, w.before, clamp, kappa, extra, reset, n);
	};
	switch (int(unit) * 4 + int(boost) * 2 + int(transientBoost)) {
	case 0: run(weighLoop<false, false, false>); break;
	case 1: run(weighLoop<false, false, true>); break;
	case 2: run(weighLoop<false, true, false>); break;
	case 3: run(weighLoop<false, true, true>); break;
	case 4: run(weighLoop<true, false, false>); break;
	case 5: run(weighLoop<true, false, true>); break;
	case 6: run(weighLoop<true, true, false>); break;
	default: run(weighLoop<true, true, true>); break;
	}
}

// restore() in one pass: the smoothed gain's magnitude, the target magnitude
// (1 when not known), and the detail boost when `boost`.
LUMBREL_VECTOR_CLONES void restoreRows(float *__restrict r, float *__restrict m, const float *__restrict magnitude,
	const float *__restrict wr, const float *__restrict wi, const float *__restrict before, bool known, bool boost,
	float d, float rest, std::size_t n) {
	for (std::size_t i = 0; i < n; ++i) {
		float after = std::sqrt(wr[i] * wr[i] + wi[i] * wi[i]);
		// Each gain keeps its smoothed direction and gets the target magnitude.
		float scale = known ? magnitude[i] / (after + 1e-15f) : 1 / (after + 1e-15f);
		float re = scale * wr[i], im = scale * wi[i];
		if (boost) {
			// Where phases agreed before smoothing, after == before and nothing
			// changes; where they disagreed, the level rises up to 1 / (1 - d).
			float v = before[i] / (after * d + before[i] * rest + 1e-30f);
			re = v * re;
			im = v * im;
		}
		r[i] = re;
		m[i] = im;
	}
}

// out = in x gain, then x `gain` unless it is exactly 1.
LUMBREL_VECTOR_CLONES void applyGains(float *__restrict outR, float *__restrict outI, const float *__restrict inR,
	const float *__restrict inI, const float *__restrict gR, const float *__restrict gI, float gain, std::size_t n) {
	if (gain == 1) {
		for (std::size_t i = 0; i < n; ++i) {
			outR[i] = inR[i] * gR[i] - inI[i] * gI[i];
			outI[i] = inR[i] * gI[i] + inI[i] * gR[i];
		}
	} else {
		for (std::size_t i = 0; i < n; ++i) {
			outR[i] = (inR[i] * gR[i] - inI[i] * gI[i]) * gain;
			outI[i] = (inR[i] * gI[i] + inI[i] * gR[i]) * gain;
		}
	}
}

} // namespace

void SmoothedGains<float>::smooth(LumbrelEffect<float> &effect, const float *energy, bool unitGains) {
	SmoothedGains *const one[] = {this};
	smoothAll(effect, energy, unitGains, one, 1);
}

void SmoothedGains<float>::smoothAll(LumbrelEffect<float> &effect, const float *energy, bool unitGains,
	SmoothedGains *const *sets, std::size_t count) {
	constexpr std::size_t batch = 8;
	for (; count > batch; sets += batch, count -= batch) smoothAll(effect, energy, unitGains, sets, batch);
	const std::size_t n = effect.bands;
	const float resolution = effect.resolution;
	float *rows[3 * batch] = {};
	float widths[3 * batch] = {};
	std::size_t used = 0;

	for (std::size_t k = 0; k < count; ++k) {
		SmoothedGains &g = *sets[k];
		g.fadeEnergy(energy, unitGains);
		if (g.transientSmoothing > 0) {
			rows[used] = g.outImag.data();
			widths[used++] = resolution * g.transientSmoothing;
		}
	}
	smoothRuns(rows, widths, used, n);

	used = 0;
	for (std::size_t k = 0; k < count; ++k) {
		SmoothedGains &g = *sets[k];
		g.weigh(energy, unitGains);
		const float width = g.phaseSmoothing * 0.01f * resolution;
		rows[used] = g.weightedReal.data();
		widths[used++] = width;
		rows[used] = g.weightedImag.data();
		widths[used++] = width;
		if (g.detailBoost != 0) {
			rows[used] = g.weightedAbs.data();
			widths[used++] = width;
		}
	}
	smoothRuns(rows, widths, used, n);

	for (std::size_t k = 0; k < count; ++k) sets[k]->restore();
}

void SmoothedGains<float>::fadeEnergy(const float *energy, bool unitGains) {
	const std::size_t n = gainsReal.size();
	magnitudeKnown = !unitGains; // the raw magnitude is measured by weigh()

	// Faded energy of this frame, in outImag until it becomes the history.
	float *__restrict faded = outImag.data();
	std::copy(energy, energy + n, faded);
	// Below the low cut, the lower half is ignored and the upper half fades
	// in, so that rumble and beating don't count as transients.
	const float lowCut = lowCutBands;
	if (lowCut > 0) {
		for (std::size_t i = 0; float(i) < lowCut && i < n; ++i) {
			float fade = std::max(2 * float(i) / lowCut - 1, 0.0f);
			faded[i] *= fade * fade;
		}
	}
}

void SmoothedGains<float>::weigh(const float *energy, bool unitGains) {
	const float boost = detailBoost;
	const WeighRows rows{outImag.data(), previousEnergy.data(), gainsReal.data(), gainsImag.data(), energy,
		magnitudes.data(), weightedReal.data(), weightedImag.data(), weightedAbs.data()};
	// The faded energy was smoothed across bands when transientSmoothing > 0.
	weighRows(rows, unitGains, boost != 0, transientBoost != 0, transientSmoothing > 0,
		transientReset * boost / (transientReset + 1), transientBoost, transientReset, gainsReal.size());
	if (boost != 0 || transientBoost != 0) magnitudeKnown = true;
	// This frame's faded energy becomes the history.
	std::swap(outImag, previousEnergy);
}

void SmoothedGains<float>::restore() {
	const float boost = detailBoost;
	const float d = boost < 0 ? boost / (boost + 1) : boost;
	restoreRows(gainsReal.data(), gainsImag.data(), magnitudes.data(), weightedReal.data(), weightedImag.data(),
		weightedAbs.data(), magnitudeKnown, boost != 0, d, 1 - d, gainsReal.size());
}

void SmoothedGains<float>::addOutput(LumbrelEffect<float> &effect, std::size_t channel, const float *inReal,
	const float *inImag, float gain) {
	// At zero gain every value would be a zero, and adding zeros changes no
	// output (the octaver's outer octaves are off by default).
	if (gain == 0) return;
	const std::size_t n = std::min(outReal.size(), outImag.size());
	float *outR = outReal.data(), *outI = outImag.data();
	applyGains(outR, outI, inReal, inImag, gainsReal.data(), gainsImag.data(), gain, n);
	varkesh_lumbrel_engine_float_addOutputSplitMoved(effect.engine, channel, outR, outI, hz.data(), effect.bands);
}

} // namespace varkesh::lumbrel
