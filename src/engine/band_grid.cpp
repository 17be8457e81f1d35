#include "engine/band_grid.h"

#include "engine/frequency_scale.h"

#include <cstdint>
#include <vector>

namespace varkesh::lumbrel {

BandGrid scanBands(float sampleRate, double resolution, float binHz, bool directCopy) {
	BandGrid grid;
	// The scan grows its rows, so it works on the ordinary heap; the grid's rows
	// are then allocated once at their final size (a bump arena would otherwise
	// keep every outgrown block).
	std::vector<float> bandHz, bandWidthHz;
	float xMax = frequencyScale::atNyquist(sampleRate);
	bool kneeFound = false;
	if (xMax > frequencyScale::zeroHz) {
		auto expected = std::uint64_t((xMax - frequencyScale::zeroHz) * resolution);
		bandHz.reserve(expected);
		bandWidthHz.reserve(expected);

		float x = frequencyScale::zeroHz;
		float step = float(1.0 / resolution);
		while (true) {
			float hz = frequencyScale::hzAt(x);
			float width = frequencyScale::widthAt(x, step);
			if (width >= binHz) {
				kneeFound = true;
				break;
			}
			bandHz.push_back(hz);
			bandWidthHz.push_back(width);
			x += step;
			if (x >= xMax) break;
		}
	}
	if (kneeFound) {
		// Above the knee the window's own resolution is the finer grid.
		std::size_t n = bandHz.size();
		grid.map.kneeBand = float(n - 1);
		grid.map.kneeHz = bandHz.back();
		grid.map.bandsPerHz = 1 / binHz;
		grid.lowBands = directCopy ? n - 1 : 0;
		for (float hz = grid.map.kneeHz + binHz; hz < sampleRate * 0.5f; hz += binHz) {
			bandHz.push_back(hz);
			bandWidthHz.push_back(binHz);
		}
	}
	grid.bandHz.assign(bandHz.begin(), bandHz.end());
	grid.bandWidthHz.assign(bandWidthHz.begin(), bandWidthHz.end());
	std::size_t total = grid.bandHz.size();
	grid.highBands = total - grid.lowBands;
	if (grid.lowBands == 0 || grid.highBands < 6) {
		grid.lowBands = total;
		grid.highBands = 0;
	}
	if (total == 0) return grid;
	grid.bandHz[0] = 0;

	// Through (0, 0), (bandHz[mid], mid) and (bandHz[last], last).
	std::size_t mid = grid.lowBands / 2, last = grid.lowBands - 1;
	float midHz = grid.bandHz[mid], lastHz = grid.bandHz[last];
	float q = float(mid) / (float(last) - float(mid));
	float s = midHz / (lastHz - midHz);
	grid.map.numerator0 = 0;
	grid.map.numerator1 = q * float(last);
	grid.map.denominator0 = s * lastHz;
	grid.map.denominator1 = q - s;
	return grid;
}

} // namespace varkesh::lumbrel
