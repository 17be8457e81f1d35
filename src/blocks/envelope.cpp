#include "blocks/envelope.h"

#include "blocks/smooth_bands.h"
#include "linear/platform_vector.h"

namespace varkesh::lumbrel {

namespace platform = varkesh::linear::platform;

void Envelope<float, false>::init(LumbrelEffect<float> &effect) {
	const std::size_t n = effect.bands;
	envelope.resize(effect.channelsIn);
	stage.resize(effect.channelsIn);
	for (auto &row : envelope) row.resize(n);
	for (auto &row : stage) row.resize(n);
	energy.resize(n);
	rate.resize(n);
}

void Envelope<float, false>::update(LumbrelEffect<float> &effect) {
	const std::size_t n = effect.bands;
	// The period in frames.
	const float period = periodMs * 0.001f * effect.subRate;
	const float width = smoothing * effect.resolution;
	const float lowest = floor;

	for (std::size_t c = 0; c < effect.channelsIn; ++c) {
		const float *__restrict re = effect.inputReal(c);
		const float *__restrict im = effect.inputImag(c);
		float *__restrict e = energy.data();
		float *__restrict r = rate.data();
		float *__restrict s = stage[c].data();
		float *__restrict env = envelope[c].data();

		for (std::size_t b = 0; b < n; ++b) e[b] = re[b] * re[b] + im[b] * im[b];
		if (smoothing > 0) smoothBands(e, n, width);

		// The rate adapts to how far the new energy stands above the envelope:
		// at a ratio of 0 it is the plain one-pole rate of the period, and a few
		// units up it is all but 1.
		for (std::size_t b = 0; b < n; ++b) r[b] = -(e[b] / (env[b] + 1e-15f));
		platform::exp(r, r, n);
		for (std::size_t b = 0; b < n; ++b) r[b] = 1 / (period * r[b] + 1);

		for (std::size_t b = 0; b < n; ++b) {
			s[b] += r[b] * (e[b] - s[b]);
			env[b] += r[b] * (s[b] - env[b]);
		}

		// A NaN on either side yields the other side.
		if (lowest == lowest) {
			for (std::size_t b = 0; b < n; ++b) env[b] = env[b] >= lowest ? env[b] : lowest;
		}
	}
}

} // namespace varkesh::lumbrel
