#include "blocks/noise_removal.h"

#include "blocks/smooth_bands.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace varkesh::lumbrel {

namespace platform = varkesh::linear::platform;

namespace {

using Rows = BumpVector<BumpVector<float>>;

// One frame of weight w into the profile `profile` of weight `weight`. Each
// band's profile is a weighted mean of reciprocals, pulled towards the
// envelope scaled up by 2 (1000 + h) / (100 + h): 20 at 0 Hz, falling towards
// 2 at high frequencies.
void gather(LumbrelEffect<float> &effect, const Rows &envelopes, Rows &profile, float &weight, float w) {
	weight += w;
	if (effect.channelsIn == 0) return;
	const float f = w / weight;
	const std::size_t n = effect.bands;
	for (std::size_t c = 0; c < effect.channelsIn; ++c) {
		const float *__restrict e = envelopes[c].data();
		const float *__restrict h = effect.inputHz(c);
		float *__restrict p = profile[c].data();
		// Clamps in passes of their own, which GCC vectorises.
		for (std::size_t b = 0; b < n; ++b) p[b] = std::max(p[b], 1e-30f);
		for (std::size_t b = 0; b < n; ++b) {
			const float inverse = 1 / p[b];
			const float target = (0.5f / e[b]) * (100 + h[b]) / (1000 + h[b]);
			p[b] = inverse + f * (target - inverse);
		}
		for (std::size_t b = 0; b < n; ++b) p[b] = std::max(p[b], 1e-30f);
		for (std::size_t b = 0; b < n; ++b) p[b] = 1 / p[b];
	}
}

} // namespace

void SimpleNoiseRemoval<float>::init(LumbrelEffect<float> &effect) {
	envelope.init(effect);
	const std::size_t n = effect.bands;
	for (Rows *rows : {&noise, &noiseNext, &outReal, &outImag}) {
		rows->resize(effect.channelsIn);
		for (auto &row : *rows) row.resize(n);
	}
	scratchSmooth.resize(n);
	scratchDiff.resize(n);
	scratchGain.resize(n);
	epochAge = noiseWeight = noiseNextWeight = 0;
	warmup = 0;
	for (auto &row : noise) std::fill(row.begin(), row.end(), 1e-30f);
	for (auto &row : noiseNext) std::fill(row.begin(), row.end(), 1e-30f);
}

void SimpleNoiseRemoval<float>::updateNoiseAuto(LumbrelEffect<float> &effect, float seconds) {
	const float dt = 1 / effect.subRate;
	warmup += dt;
	// The envelope needs a few periods to settle from its reset.
	if (double(envelope.periodMs) * 0.004 > double(warmup)) return;

	const std::size_t n = effect.bands;
	double sum = 0;
	for (std::size_t c = 0; c < effect.channelsIn; ++c) {
		const float *e = envelope.envelope[c].data();
		for (std::size_t b = 0; b < n; ++b) sum += e[b];
	}
	// A loud frame counts for less than a quiet one.
	const float w = dt / std::sqrt(float(sum));

	noiseWeight = noiseWeight * seconds / (dt + seconds);
	gather(effect, envelope.envelope, noise, noiseWeight, w);
	gather(effect, envelope.envelope, noiseNext, noiseNextWeight, w);

	epochAge += dt;
	const float age = epochAge / seconds;
	if (age > 1) {
		noiseWeight = noiseNextWeight;
		noiseNextWeight = 0;
		epochAge = 0;
		for (auto &row : noiseNext) std::fill(row.begin(), row.end(), 0.0f);
	} else if (age > 0.5f && effect.channelsIn != 0) {
		// In the epoch's second half the profile in use slides towards the new
		// one, at a rate that reaches 1 at its end.
		const float k = (2 * age - 1) / (1 + (2 - 2 * age) * seconds * effect.subRate);
		for (std::size_t c = 0; c < effect.channelsIn; ++c) {
			float *__restrict p = noise[c].data();
			const float *__restrict next = noiseNext[c].data();
			for (std::size_t b = 0; b < n; ++b) p[b] += k * (next[b] - p[b]);
		}
	}
}

void SimpleNoiseRemoval<float>::subtract(LumbrelEffect<float> &effect, float strength, float mix) {
	if (effect.channelsIn == 0) return;
	const std::size_t n = effect.bands;
	const float resolution = effect.resolution;
	const float wet = (2 - mix) * mix;
	const float threshold = strength * strength;
	const float widthScale = std::sqrt(resolution);

	for (std::size_t c = 0; c < effect.channelsIn; ++c) {
		const float *__restrict e = envelope.envelope[c].data();
		const float *__restrict noiseRow = noise[c].data();
		float *__restrict gain = scratchGain.data();
		float *__restrict smooth = scratchSmooth.data();
		float *__restrict diff = scratchDiff.data();

		// Soft gate on the envelope-over-noise ratio, raised where the
		// neighbouring bands stand above the noise too. GCC vectorises a
		// clamp only where its result is stored straight away, hence the
		// separate passes.
		for (std::size_t b = 0; b < n; ++b) gain[b] = e[b] / noiseRow[b] - 1;
		platform::copy(smooth, gain, n);
		smoothBands(smooth, n, resolution);
		for (std::size_t b = 0; b < n; ++b) gain[b] = std::max(gain[b] + smooth[b] * widthScale - threshold, 0.0f);
		for (std::size_t b = 0; b < n; ++b) {
			const float x = gain[b] * gain[b];
			gain[b] = x;
			smooth[b] = x / (1 + x);
		}
		// Far above an untrained print (1e-30) the square overflows, and
		// inf / inf would be NaN where the gate is plainly open.
		constexpr float infinity = std::numeric_limits<float>::infinity();
		for (std::size_t b = 0; b < n; ++b) {
			const float x = gain[b], gate = smooth[b];
			gain[b] = x < infinity ? gate : 1.0f;
		}

		// Power subtraction.
		for (std::size_t b = 0; b < n; ++b) diff[b] = (e[b] - noiseRow[b]) / e[b];
		for (std::size_t b = 0; b < n; ++b) diff[b] = std::max(diff[b], 0.0f);
		platform::sqrt(diff, diff, n);
		for (std::size_t b = 0; b < n; ++b) gain[b] *= diff[b];

		// A NaN mix counts as partly dry.
		if (!(mix >= 1)) {
			for (std::size_t b = 0; b < n; ++b) gain[b] = gain[b] * wet + (1 - wet);
		}

		const float *__restrict inReal = effect.inputReal(c);
		const float *__restrict inImag = effect.inputImag(c);
		float *__restrict outRe = outReal[c].data();
		float *__restrict outIm = outImag[c].data();
		for (std::size_t b = 0; b < n; ++b) {
			outRe[b] = gain[b] * inReal[b];
			outIm[b] = gain[b] * inImag[b];
		}
		varkesh_lumbrel_engine_float_setInputReal(effect.engine, c, outRe);
		varkesh_lumbrel_engine_float_setInputImag(effect.engine, c, outIm);
	}
}

} // namespace varkesh::lumbrel
