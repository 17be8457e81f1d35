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
// value), for K channels side by side so that their chains overlap; the
// caller runs the forward pass, fused with its own use of it. With E, the
// backward pass of smoothBands over `energy` (weights ea and eb) runs along;
// its state is returned.
template<std::size_t K, bool E>
float smoothNearBackward(const float *const (&re)[K], const float *const (&im)[K], float *const (&outRe)[K],
	float *const (&outIm)[K], const float *__restrict weight, std::size_t n, float *__restrict energy, float ea,
	float eb) {
	float se = E ? energy[n - 1] : 0.0f;
	float sr[K], si[K];
	for (std::size_t k = 0; k < K; ++k) {
		sr[k] = re[k][n - 1];
		si[k] = im[k][n - 1];
		outRe[k][n - 1] = sr[k];
		outIm[k][n - 1] = si[k];
	}
	for (std::size_t i = n - 1; i-- > 1;) {
		const float a = weight[i];
		for (std::size_t k = 0; k < K; ++k) {
			sr[k] += (re[k][i] - sr[k]) * a;
			si[k] += (im[k][i] - si[k]) * a;
			outRe[k][i] = sr[k];
			outIm[k][i] = si[k];
		}
		if (E) {
			se = energy[i] * ea + se * eb;
			energy[i] = se;
		}
	}
	for (std::size_t k = 0; k < K; ++k) {
		outRe[k][0] = re[k][0];
		outIm[k][0] = im[k][0];
	}
	return se;
}

// The forward pass over K channels c0 .. c0 + K - 1 side by side, carrying on
// from band 1, and each channel's phase step against last frame's values
// added to sr/si in channel order. With E, smoothBands(energy, n, width)
// runs along, ea = 1 / (width + 1) and eb = 1 - ea.
template<std::size_t K, bool E>
void stepChannels(LumbrelEffect<float> &effect, Peaks<float> &peaks, std::size_t c0, float *__restrict sr,
	float *__restrict si, float *__restrict energy = nullptr, float ea = 0, float eb = 0) {
	const std::size_t n = effect.bands;
	const float *__restrict weight = peaks.nearWeight.data();
	const float *re[K], *im[K];
	float *pr[K], *pi[K], *nr[K], *ni[K];
	for (std::size_t k = 0; k < K; ++k) {
		re[k] = effect.inputReal(c0 + k);
		im[k] = effect.inputImag(c0 + k);
		pr[k] = peaks.previousReal.data() + (c0 + k) * n;
		pi[k] = peaks.previousImag.data() + (c0 + k) * n;
		nr[k] = peaks.nearReal.data() + k * n;
		ni[k] = peaks.nearImag.data() + k * n;
	}
	float se = smoothNearBackward<K, E>(re, im, nr, ni, weight, n, energy, ea, eb);
	float ar[K], ai[K];
	for (std::size_t k = 0; k < K; ++k) {
		ar[k] = nr[k][1 < n ? 1 : 0];
		ai[k] = ni[k][1 < n ? 1 : 0];
	}
	for (std::size_t b = 0; b < n; ++b) {
		float stepR = sr[b], stepI = si[b];
		for (std::size_t k = 0; k < K; ++k) {
			ar[k] += (nr[k][b] - ar[k]) * weight[b];
			ai[k] += (ni[k][b] - ai[k]) * weight[b];
			stepR += ar[k] * pr[k][b] + ai[k] * pi[k][b];
			stepI += ai[k] * pr[k][b] - ar[k] * pi[k][b];
			pr[k][b] = ar[k];
			pi[k][b] = ai[k];
		}
		sr[b] = stepR;
		si[b] = stepI;
		if (E) {
			se = energy[b] * ea + se * eb;
			energy[b] = se;
		}
	}
}

// The frequency of each band for the walk: as it stands, or (SmoothedHz)
// computed on the way by the last pass of the weighted frequency's smoothing,
// its forward pass and the division by the smoothed energy, so that the walk
// overlaps that serial chain. `next` is called once per band, in band order;
// `again` reads a band's value once more.
struct GivenHz {
	const float *__restrict f;
	float next(std::size_t b) { return f[b]; }
	float again(std::size_t b) const { return f[b]; }
};

struct SmoothedHz {
	float *__restrict h;
	const float *__restrict e;
	float s, ea, eb;
	float next(std::size_t b) {
		s = h[b] * ea + s * eb;
		return h[b] = s / (e[b] + 1e-30f);
	}
	float again(std::size_t b) const { return h[b]; }
};

template<typename Hz>
void walkBands(BumpVector<Peak<float>> &peaks, const float *__restrict e, std::size_t n, Hz f) {
	peaks.clear();
	std::size_t start = 0;
	bool seen = false; // the first band was last peak's valley
	while (start < n) {
		// The sums run along the climb and the descent, in band order from the
		// peak's first band (a sum from 0 starts with that band's own value),
		// rather than in a third loop of their own: one exit fewer to mispredict
		// per peak, and their chains overlap the search.
		std::size_t i = start;
		float sum = e[i], weighted = e[i] * (seen ? f.again(i) : f.next(i));
		while (i + 1 < n && e[i + 1] >= e[i]) {
			++i;
			sum += e[i];
			weighted += e[i] * f.next(i);
		}
		const std::size_t top = i;
		float sumBefore = sum, weightedBefore = weighted;
		while (i + 1 < n && !(e[i + 1] > e[i])) {
			++i;
			sumBefore = sum;
			weightedBefore = weighted;
			sum += e[i];
			weighted += e[i] * f.next(i);
		}
		// i is the valley (or the last band); it joins the next peak if that side
		// is higher.
		std::size_t end = i + 1;
		seen = end < n && i >= 2 && e[i + 1] > e[i - 1];
		if (seen) {
			end = i;
			sum = sumBefore;
			weighted = weightedBefore;
		}
		peaks.push_back(Peak<float>{start, end, top, sum, weighted / (sum + 1e-30f)});
		start = end;
	}
}

} // namespace

void Peaks<float>::init(LumbrelEffect<float> &effect) {
	energyBuffer.assign(effect.bands, 0.0f);
	hzBuffer.assign(effect.bands, 0.0f);
	const std::size_t n = effect.bands;
	for (auto *row : {&nominalHz, &rotateReal, &rotateImag, &stepReal, &stepImag, &nearWeight}) row->assign(n, 0.0f);
	nearReal.assign(2 * n, 0.0f);
	nearImag.assign(2 * n, 0.0f);
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

	const float width = smoothing * 0.01f * effect.resolution;
	const bool smoothEnergy = width > 1e-18f && n > 0 && channels > 0;
	const bool weighted = smoothHz && smoothEnergy;

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
	// The frequencies are weighted by the energy before its smoothing, which
	// runs in the channels' loops below: keep a copy where they will go.
	if (weighted) std::copy(e, e + n, h);
	energy = e;

	// Frequency of each band from the phase step of its values since the last
	// frame, summed over the channels (so weighted by their energy), against
	// the step of the band's own frequency. It follows a glide at once, where
	// the analysis' measured frequency trails it by its memory. A band with no
	// history yet (or silent) reads its own frequency.
	const float *__restrict rotR = rotateReal.data();
	const float *__restrict rotI = rotateImag.data();
	const float *__restrict nominal = nominalHz.data();
	float *__restrict sr = stepReal.data();
	float *__restrict si = stepImag.data();
	std::fill(sr, sr + n, 0.0f);
	std::fill(si, si + n, 0.0f);
	const float ea = 1 / (width + 1), eb = 1 - ea;
	if (n > 0) {
		// Two channels at a time: the smoothing is a serial chain per channel.
		// The energy's smoothing is one more chain and runs with the first two.
		std::size_t c = 0;
		if (smoothEnergy) {
			if (channels >= 2) {
				stepChannels<2, true>(effect, *this, 0, sr, si, e, ea, eb);
			} else {
				stepChannels<1, true>(effect, *this, 0, sr, si, e, ea, eb);
			}
			c = std::min<std::size_t>(channels, 2);
		}
		for (; c + 2 <= channels; c += 2) stepChannels<2, false>(effect, *this, c, sr, si);
		if (c < channels) stepChannels<1, false>(effect, *this, c, sr, si);
	}
	const float hzPerRadian = effect.subRate / 6.2831855f;
	const auto bandHz = [&](std::size_t b) {
		// The step beyond the band's own: rotate back by the nominal step.
		const float x = sr[b] * rotR[b] + si[b] * rotI[b];
		const float y = si[b] * rotR[b] - sr[b] * rotI[b];
		return nominal[b] + hzPerRadian * angleOf(y, x);
	};
	hz = h;
	if (!weighted) {
		for (std::size_t b = 0; b < n; ++b) h[b] = bandHz(b);
		walk(n);
		return;
	}
	// The frequency times the energy, smoothed across bands as smoothBands does
	// (backward, then forward) and divided by the smoothed energy; the walk runs
	// the forward pass and the division. (A blocked form of these recursions,
	// equal but for rounding, moved the output of frequency snap by -79 dB: the
	// frequencies' rounding adds up in the phases.)
	for (std::size_t b = 0; b < n; ++b) h[b] = bandHz(b) * h[b];
	float s = h[n - 1];
	for (std::size_t b = n - 1; b-- > 1;) {
		s = h[b] * ea + s * eb;
		h[b] = s;
	}
	walkBands(peaks, e, n, SmoothedHz{h, e, s, ea, eb});
}

void Peaks<float>::walk(std::size_t n) {
	walkBands(peaks, energy, n, GivenHz{hz});
}

} // namespace varkesh::lumbrel
