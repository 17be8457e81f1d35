#pragma once
// The engine's bands: nominal centres and spacings, the knee between tracked and
// direct-copied bands, and the map from a frequency back to a band position.
#include "engine/bump_allocator.h"

#include <cstddef>

namespace varkesh::lumbrel {

// Frequency to fractional band position: a rational map through (0 Hz, 0), the
// middle and the last low band below the knee; linear at one band per bin above.
struct FrequencyMap {
	float numerator0 = 0, numerator1 = 1;
	float denominator0 = 1, denominator1 = 0;
	float kneeHz = 1e10f, kneeBand = 0, bandsPerHz = 0;

	// Raised to 0 below and limited to bands - 1.001 above.
	float nominalBand(float hz, std::size_t bands) const {
		float band;
		if (hz >= kneeHz) {
			band = (hz - kneeHz) * bandsPerHz + kneeBand;
		} else {
			double h = hz;
			band = float((double(numerator1) * h + double(numerator0)) / (double(denominator1) * h + double(denominator0)));
			if (band < 0) band = 0;
		}
		float top = float(bands) - 1.001f;
		return band < top ? band : top;
	}
};

struct BandGrid {
	BumpVector<float> bandHz;      // nominal centres; band 0 is exactly 0 Hz
	BumpVector<float> bandWidthHz; // nominal spacing of each band
	std::size_t lowBands = 0;      // tracked bands, from 0
	std::size_t highBands = 0;     // direct-copied bands, after the low ones
	FrequencyMap map;

	std::size_t bands() const { return bandHz.size(); }
};

// Lays bands `resolution` per scale unit from 0 Hz until their spacing reaches
// binHz (the knee), then one per binHz up to Nyquist. Without directCopy, or with
// fewer than six bands above the knee, every band is tracked.
BandGrid scanBands(float sampleRate, double resolution, float binHz, bool directCopy);

} // namespace varkesh::lumbrel
