#include "blocks/timbre.h"

#include "blocks/smooth_bands.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <cmath>

namespace varkesh::lumbrel {

void Timbre<float>::init(LumbrelEffect<float> &effect) {
	envelope.resize(effect.bands);
	hold.resize(effect.bands);
}

void Timbre<float>::update(LumbrelEffect<float> &effect, const float *energy, bool asEnergy) {
	const std::size_t n = effect.bands;
	if (n == 0) return;
	const float width = effect.resolution * smoothing;
	// With a width of 0 the decay is exp(-inf) = 0 and the hold passes change nothing.
	const float decay = std::exp(-2 / width);

	float *h = hold.data();
	for (std::size_t i = 0; i < n; ++i) h[i] = energy[i] + 1e-30f;
	for (std::size_t i = 1; i < n; ++i) h[i] = std::max(h[i], h[i - 1] * decay);
	for (std::size_t i = n - 1; i-- > 0;) h[i] = std::max(h[i], h[i + 1] * decay);

	float *env = envelope.data();
	varkesh::linear::platform::sqrt(env, h, n);
	smoothBands(env, n, width * 0.71f);
	if (asEnergy) {
		for (std::size_t i = 0; i < n; ++i) env[i] = env[i] * env[i];
	}
}

} // namespace varkesh::lumbrel
