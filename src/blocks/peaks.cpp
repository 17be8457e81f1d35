#include "blocks/peaks.h"

#include "blocks/smooth_bands.h"

#include <algorithm>
#include <cmath>

namespace varkesh::lumbrel {

namespace {

// atan2 to within 2e-6 rad (0.0002 Hz of a band's frequency at 400 frames per
// second), branch-free so that the loop over bands vectorises; libm's atan2f
// cost more than the rest of the frame update.
inline float angleOf(float y, float x) {
	const float ax = std::fabs(x), ay = std::fabs(y);
	const float lo = ay < ax ? ay : ax, hi = ay < ax ? ax : ay;
	const float a = lo / (hi + 1e-37f);
	const float s = a * a;
	float r = a * (0.99997726f + s * (-0.33262347f + s * (0.19354346f + s * (-0.11643287f + s * (0.05265332f + s * -0.01172120f)))));
	// The octant corrections as products, not selections, which trapping
	// floating-point rules would keep from vectorising.
	r += float(ay > ax) * (1.57079637f - 2 * r);
	r += float(x < 0) * (3.14159274f - 2 * r);
	return std::copysign(r, y);
}

// The backward pass of a one-pole smoothing of complex band values across
// bands, each band with its own weight, as smoothBands (band 0 keeps its
// value); the caller runs the forward pass, fused with its own use of it.
void smoothNearBackward(const float *re, const float *im, float *outRe, float *outIm, const float *weight,
	std::size_t n) {
	float sr = re[n - 1], si = im[n - 1];
	outRe[n - 1] = sr;
	outIm[n - 1] = si;
	for (std::size_t i = n - 1; i-- > 1;) {
		const float a = weight[i];
		sr += (re[i] - sr) * a;
		si += (im[i] - si) * a;
		outRe[i] = sr;
		outIm[i] = si;
	}
	outRe[0] = re[0];
	outIm[0] = im[0];
}

} // namespace

void Peaks<float>::init(LumbrelEffect<float> &effect) {
	energyBuffer.assign(effect.bands, 0.0f);
	hzBuffer.assign(effect.bands, 0.0f);
	const std::size_t n = effect.bands;
	for (auto *row : {&nominalHz, &rotateReal, &rotateImag, &stepReal, &stepImag, &nearReal, &nearImag, &nearWeight}) {
		row->assign(n, 0.0f);
	}
	previousReal.assign(n * effect.channelsIn, 0.0f);
	previousImag.assign(n * effect.channelsIn, 0.0f);
	for (std::size_t b = 0; b < n; ++b) {
		nominalHz[b] = effect.nominalHz(b);
		const double step = 6.283185307179586 * double(nominalHz[b]) / double(effect.subRate);
		rotateReal[b] = float(std::cos(step));
		rotateImag[b] = float(std::sin(step));
	}
	// The smoothing before the phase step spans 0.35 of an analysis bin, in
	// bands: several low bands, a third of a band above the knee, where the
	// bands are one bin apart (the top spacing). Wider follows a glide more
	// closely and steadies a low note's pitch (a quarter bin left sweeps 2.4
	// cents behind and a 110 Hz sine an octave up 2.4 cents rms unsteady;
	// 0.35 gives 1.8 and 1.7), but blends partials a few hertz apart.
	const float binHz = n >= 2 ? nominalHz[n - 1] - nominalHz[n - 2] : 0.0f;
	constexpr float nearBins = 0.35f;
	for (std::size_t b = 0; b < n; ++b) {
		const float spacing = b + 1 < n ? nominalHz[b + 1] - nominalHz[b] : binHz;
		const float width = spacing > 0 ? nearBins * binHz / spacing : 0.0f;
		nearWeight[b] = 1 / (width + 1);
	}
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

	// Frequency of each band from the phase step of its values since the last
	// frame, summed over the channels (so weighted by their energy), against
	// the step of the band's own frequency. It follows a glide at once, where
	// the analysis' measured frequency trails it by its memory. A band with no
	// history yet (or silent) reads its own frequency.
	{
		const float *__restrict rotR = rotateReal.data();
		const float *__restrict rotI = rotateImag.data();
		const float *__restrict nominal = nominalHz.data();
		float *__restrict sr = stepReal.data();
		float *__restrict si = stepImag.data();
		std::fill(sr, sr + n, 0.0f);
		std::fill(si, si + n, 0.0f);
		for (std::size_t c = 0; c < channels; ++c) {
			const float *__restrict re = effect.inputReal(c);
			const float *__restrict im = effect.inputImag(c);
			float *__restrict pr = previousReal.data() + c * n;
			float *__restrict pi = previousImag.data() + c * n;
			float *__restrict nr = nearReal.data();
			float *__restrict ni = nearImag.data();
			const float *__restrict weight = nearWeight.data();
			if (n == 0) continue;
			smoothNearBackward(re, im, nr, ni, weight, n);
			// The forward pass, carrying on from band 1, and the step.
			float ar = nr[1 < n ? 1 : 0], ai = ni[1 < n ? 1 : 0];
			for (std::size_t b = 0; b < n; ++b) {
				ar += (nr[b] - ar) * weight[b];
				ai += (ni[b] - ai) * weight[b];
				sr[b] += ar * pr[b] + ai * pi[b];
				si[b] += ai * pr[b] - ar * pi[b];
				pr[b] = ar;
				pi[b] = ai;
			}
		}
		const float hzPerRadian = effect.subRate / 6.2831855f;
		for (std::size_t b = 0; b < n; ++b) {
			// The step beyond the band's own: rotate back by the nominal step.
			const float x = sr[b] * rotR[b] + si[b] * rotI[b];
			const float y = si[b] * rotR[b] - sr[b] * rotI[b];
			h[b] = nominal[b] + hzPerRadian * angleOf(y, x);
		}
		hz = h;
	}

	if (weighted) {
		for (std::size_t b = 0; b < n; ++b) h[b] = h[b] * e[b];
	}
	if (width > 1e-18f) {
		if (weighted) {
			float *const rows[] = {e, h};
			smoothBandsRows(rows, n, width);
		} else {
			smoothBands(e, n, width);
		}
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
