#include "blocks/smoothed_gains.h"

#include "blocks/smooth_bands.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <utility>

namespace varkesh::lumbrel {

namespace platform = varkesh::linear::platform;

void SmoothedGains<float>::init(LumbrelEffect<float> &effect) {
	const std::size_t n = effect.bands;
	hz.resize(n);
	nominalHz.resize(n);
	for (std::size_t b = 0; b < n; ++b) hz[b] = nominalHz[b] = effect.nominalHz(b);
	for (auto *row : {&gainsReal, &gainsImag, &outReal, &outImag, &magnitudes, &previousEnergy, &weightedReal,
			 &weightedImag, &weightedAbs, &smoothedAbs}) {
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

// The weighting with a known magnitude. Its own function with unaliased
// parameters: inline, GCC could not tell the rows apart and kept it scalar.
void weighKnown(float *__restrict wr, float *__restrict wi, const float *__restrict r, const float *__restrict m,
	const float *__restrict e, const float *__restrict transient, const float *__restrict magnitude, float reset,
	std::size_t n) {
	for (std::size_t i = 0; i < n; ++i) {
		float pull = transient[i] * reset * magnitude[i];
		wr[i] = (r[i] + pull) * e[i];
		wi[i] = e[i] * m[i];
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
	magnitudeKnown = !unitGains;
	if (!unitGains) platform::complexAbs(magnitudes.data(), gainsReal.data(), gainsImag.data(), n);

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
	const std::size_t n = gainsReal.size();
	float *__restrict r = gainsReal.data();
	const float *__restrict m = gainsImag.data();
	float *__restrict magnitude = magnitudes.data();
	const float *__restrict e = energy;
	{
		// The faded energy, smoothed across bands when transientSmoothing > 0.
		float *__restrict faded = outImag.data();
		if (transientSmoothing > 0) {
			for (std::size_t i = 0; i < n; ++i) faded[i] = std::max(faded[i], 0.0f);
		}

		// Transient measure: near 1 at a sudden onset, 0 for steady or falling energy.
		float *__restrict transient = outReal.data();
		const float *__restrict previous = previousEnergy.data();
		for (std::size_t i = 0; i < n; ++i) {
			float rise = std::max(0.0f, faded[i] - previous[i]) / (faded[i] + 1e-30f);
			transient[i] = rise * rise;
		}
	}
	std::swap(outImag, previousEnergy);
	const float *__restrict transient = outReal.data();

	const float boost = detailBoost;
	if (boost != 0) {
		const float kappa = transientReset * boost / (transientReset + 1);
		if (unitGains) {
			for (std::size_t i = 0; i < n; ++i) magnitude[i] = 1 + transient[i] * (1 - r[i]) * kappa;
			magnitudeKnown = true;
		} else {
			for (std::size_t i = 0; i < n; ++i) {
				magnitude[i] = magnitude[i] + transient[i] * (magnitude[i] - r[i]) * kappa;
			}
		}
	}
	if (transientBoost != 0) {
		const float extra = transientBoost;
		if (magnitudeKnown) {
			for (std::size_t i = 0; i < n; ++i) magnitude[i] = magnitude[i] * (1 + transient[i] * extra);
		} else {
			for (std::size_t i = 0; i < n; ++i) magnitude[i] = 1 + transient[i] * extra;
			magnitudeKnown = true;
		}
	}

	// The phase pull is a real number added to the gain, in proportion to the
	// transient; then everything is weighted by energy.
	float *__restrict wr = weightedReal.data();
	float *__restrict wi = weightedImag.data();
	const float reset = transientReset;
	if (magnitudeKnown) {
		weighKnown(wr, wi, r, m, e, transient, magnitude, reset, n);
	} else {
		for (std::size_t i = 0; i < n; ++i) {
			float pull = transient[i] * reset;
			wr[i] = (r[i] + pull) * e[i];
			wi[i] = e[i] * m[i];
		}
	}

	float *__restrict before = weightedAbs.data();
	if (boost != 0) platform::complexAbs(before, wr, wi, n);
}

void SmoothedGains<float>::restore() {
	const std::size_t n = gainsReal.size();
	float *__restrict r = gainsReal.data();
	float *__restrict m = gainsImag.data();
	const float *__restrict magnitude = magnitudes.data();
	const float *__restrict wr = weightedReal.data();
	const float *__restrict wi = weightedImag.data();
	const float *__restrict before = weightedAbs.data();
	const float boost = detailBoost;

	float *__restrict after = smoothedAbs.data();
	platform::complexAbs(after, wr, wi, n);

	// Each gain keeps its smoothed direction and gets the target magnitude.
	float *__restrict scale = outReal.data();
	if (magnitudeKnown) {
		for (std::size_t i = 0; i < n; ++i) scale[i] = magnitude[i] / (after[i] + 1e-15f);
	} else {
		for (std::size_t i = 0; i < n; ++i) scale[i] = 1 / (after[i] + 1e-15f);
	}
	for (std::size_t i = 0; i < n; ++i) {
		r[i] = scale[i] * wr[i];
		m[i] = scale[i] * wi[i];
	}

	if (boost != 0) {
		// Where phases agreed before smoothing, after == before and nothing
		// changes; where they disagreed, the level rises up to 1 / (1 - d).
		const float d = boost < 0 ? boost / (boost + 1) : boost;
		const float rest = 1 - d;
		for (std::size_t i = 0; i < n; ++i) {
			float v = before[i] / (after[i] * d + before[i] * rest + 1e-30f);
			r[i] = v * r[i];
			m[i] = v * m[i];
		}
	}
}

void SmoothedGains<float>::addOutput(LumbrelEffect<float> &effect, std::size_t channel, const float *inReal,
	const float *inImag, float gain) {
	// At zero gain every value would be a zero, and adding zeros changes no
	// output (the octaver's outer octaves are off by default).
	if (gain == 0) return;
	const std::size_t n = std::min(outReal.size(), outImag.size());
	float *__restrict outR = outReal.data();
	float *__restrict outI = outImag.data();
	const float *__restrict inR = inReal;
	const float *__restrict inI = inImag;
	const float *__restrict gR = gainsReal.data();
	const float *__restrict gI = gainsImag.data();
	for (std::size_t i = 0; i < n; ++i) {
		outR[i] = inR[i] * gR[i] - inI[i] * gI[i];
		outI[i] = inR[i] * gI[i] + inI[i] * gR[i];
	}
	if (gain != 1) {
		for (std::size_t i = 0; i < n; ++i) {
			outR[i] *= gain;
			outI[i] *= gain;
		}
	}
	varkesh_lumbrel_engine_float_addOutputSplitMoved(effect.engine, channel, outR, outI, hz.data(), effect.bands);
}

} // namespace varkesh::lumbrel
