#include "blocks/peaks.h"

#include "blocks/smooth_bands.h"

namespace varkesh::lumbrel {

void Peaks<float>::init(LumbrelEffect<float> &effect) {
	energyBuffer.assign(effect.bands, 0.0f);
	hzBuffer.assign(effect.bands, 0.0f);
	weightSum.assign(effect.bands, 0.0f);
	energy = energyBuffer.data();
	hz = hzBuffer.data();
	// Sized rather than reserved, so that the capacity is exact; update() clears
	// the list and appends within it.
	peaks.resize(effect.bands / 2 + 1);
}

void Peaks<float>::update(LumbrelEffect<float> &effect, bool smoothHz) {
	const std::size_t n = effect.bands, channels = effect.channelsIn;
	float *__restrict e = energyBuffer.data();
	float *__restrict h = hzBuffer.data();

	{
		const float *__restrict re = effect.inputReal(0);
		const float *__restrict im = effect.inputImag(0);
		// The floor is added once, not per channel.
		for (std::size_t b = 0; b < n; ++b) e[b] = re[b] * re[b] + im[b] * im[b] + 1e-30f;
	}
	for (std::size_t c = 1; c < channels; ++c) {
		const float *__restrict re = effect.inputReal(c);
		const float *__restrict im = effect.inputImag(c);
		for (std::size_t b = 0; b < n; ++b) e[b] += re[b] * re[b] + im[b] * im[b];
	}
	energy = e;

	const float width = smoothing * 0.01f * effect.resolution;
	const bool weighted = smoothHz && width >= 1e-18f;

	const float *hz0 = effect.inputHz(0);
	if (weighted) {
		for (std::size_t b = 0; b < n; ++b) h[b] = hz0[b];
		hz = h;
	} else {
		hz = hz0;
	}
	for (std::size_t c = 1; c < channels; ++c) {
		const float *__restrict hzc = effect.inputHz(c);
		if (hz != h) {
			// Channels sharing channel 0's row add nothing to the mean.
			if (hzc == hz) continue;
			for (std::size_t b = 0; b < n; ++b) h[b] = hz0[b];
			hz = h;
		}
		// Mean across channels weighted by each channel's energy in the band:
		// a band that is silent in one channel measures there only the leakage
		// of its neighbours, whose frequency must not pull the band's.
		const float *__restrict re = effect.inputReal(c);
		const float *__restrict im = effect.inputImag(c);
		const float *__restrict re0 = effect.inputReal(0);
		const float *__restrict im0 = effect.inputImag(0);
		if (c == 1) {
			for (std::size_t b = 0; b < n; ++b) weightSum[b] = re0[b] * re0[b] + im0[b] * im0[b] + 1e-30f;
		}
		for (std::size_t b = 0; b < n; ++b) {
			const float w = re[b] * re[b] + im[b] * im[b];
			weightSum[b] += w;
			h[b] += (hzc[b] - h[b]) * (w / weightSum[b]);
		}
	}

	if (weighted) {
		for (std::size_t b = 0; b < n; ++b) h[b] = h[b] * e[b];
	}
	if (width > 1e-18f) {
		smoothBands(e, n, width);
		if (weighted) smoothBands(h, n, width);
	}
	if (weighted) {
		for (std::size_t b = 0; b < n; ++b) h[b] = h[b] / (e[b] + 1e-30f);
	}

	walk(n);
}

void Peaks<float>::walk(std::size_t n) {
	const float *e = energy;
	const float *f = hz;
	peaks.clear();
	std::size_t start = 0;
	while (start < n) {
		std::size_t i = start;
		while (i + 1 < n && e[i + 1] >= e[i]) ++i;
		const std::size_t top = i;

		std::size_t end = n;
		for (; i + 1 < n; ++i) {
			if (e[i + 1] > e[i]) {
				// i is the valley; it joins the next peak if that side is higher.
				end = (i + 1 >= 3 && e[i + 1] > e[i - 1]) ? i : i + 1;
				break;
			}
		}

		float sum = 0, weightedHz = 0;
		for (std::size_t b = start; b < end; ++b) {
			sum += e[b];
			weightedHz += e[b] * f[b];
		}
		peaks.push_back(Peak<float>{start, end, top, sum, weightedHz / (sum + 1e-30f)});
		start = end;
	}
}

} // namespace varkesh::lumbrel
