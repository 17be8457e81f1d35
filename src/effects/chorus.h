#pragma once
// Spectral chorus: every spectral peak of every output channel gets its own
// slowly wandering complex gain, so that each partial drifts in pitch and level
// by itself, with a wander bandwidth that follows an auditory scale. Channels
// wander independently; "width" blends each one with the mean of all.
#include "blocks/lumbrel_effect.h"
#include "blocks/peaks.h"
#include "blocks/smoothed_gains.h"
#include "effects/lumbrel_quorl.h"
#include "engine/bump_allocator.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace varkesh::lumbrel {

// [main-thread, makes system calls] 32 random bits from the system's random
// device. If the device can't be opened or read, the bits come from the
// address `salt`, the clock and a process-wide count instead: not secret, but
// still different for every call, so that two instances never share a seed.
inline std::uint32_t randomDeviceSeed(const void *salt, const char *device = "/dev/urandom") {
	std::uint32_t bits = 0;
	if (std::FILE *file = std::fopen(device, "rb")) {
		std::setvbuf(file, nullptr, _IONBF, 0); // four bytes, not a buffer's worth
		const bool read = std::fread(&bits, sizeof bits, 1, file) == 1;
		std::fclose(file);
		if (read) return bits;
	}
	static std::atomic<std::uint32_t> calls{0};
	std::uint64_t x = std::uint64_t(reinterpret_cast<std::uintptr_t>(salt));
	x ^= std::uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) * 0x9E3779B97F4A7C15ull;
	x += std::uint64_t(calls.fetch_add(1, std::memory_order_relaxed)) << 32;
	// A 64-bit finaliser (MurmurHash3's), so that every input bit reaches the result.
	x ^= x >> 33;
	x *= 0xFF51AFD7ED558CCDull;
	x ^= x >> 33;
	x *= 0xC4CEB9FE1A85EC53ull;
	x ^= x >> 33;
	return std::uint32_t(x);
}

namespace chorus_rows {
namespace {

// The output loops, with unaliased rows so that they vectorise.
// t = g own + s common; level = 1 + warble (|t|^2 - 1), before its square root.
void blend(float *__restrict tr, float *__restrict ti, float *__restrict level,
	const float *__restrict gr, const float *__restrict gi, const float *__restrict sr, const float *__restrict si,
	float own, float common, float warble, std::size_t n) {
	for (std::size_t b = 0; b < n; ++b) {
		tr[b] = gr[b] * own + sr[b] * common;
		ti[b] = gi[b] * own + si[b] * common;
		// The level moves toward 1 as the anti-warble rises.
		level[b] = 1 + warble * (tr[b] * tr[b] + ti[b] * ti[b] - 1);
	}
}

// out = in (t / level) wet
void wetOutput(float *__restrict outR, float *__restrict outI, const float *__restrict inR,
	const float *__restrict inI, const float *__restrict tr, const float *__restrict ti,
	const float *__restrict level, float wet, std::size_t n) {
	for (std::size_t b = 0; b < n; ++b) {
		const float re = tr[b] / level[b] * wet, im = ti[b] / level[b] * wet;
		outR[b] = inR[b] * re - inI[b] * im;
		outI[b] = inR[b] * im + inI[b] * re;
	}
}

void dryOutput(float *__restrict outR, float *__restrict outI, const float *__restrict inR,
	const float *__restrict inI, float dry, std::size_t n) {
	for (std::size_t b = 0; b < n; ++b) {
		outR[b] = inR[b] * dry;
		outI[b] = inI[b] * dry;
	}
}

// A peak's turn, offset and noise stages (four floats to a band) written to
// each of its n bands. Unaliased, so that no overlap test runs per peak.
void spread(float *__restrict turnReal, float *__restrict turnImag, float *__restrict shift, float *__restrict stages,
	float pRe, float pIm, float offset, float re1, float im1, float re2, float im2, std::size_t n) {
	for (std::size_t b = 0; b < n; ++b) {
		turnReal[b] = pRe;
		turnImag[b] = pIm;
		shift[b] = offset;
		stages[4 * b] = re1;
		stages[4 * b + 1] = im1;
		stages[4 * b + 2] = re2;
		stages[4 * b + 3] = im2;
	}
}

inline std::uint32_t bitsOf(float x) {
	std::uint32_t bits;
	std::memcpy(&bits, &x, sizeof bits);
	return bits;
}

inline float floatOf(std::uint32_t bits) {
	float x;
	std::memcpy(&x, &bits, sizeof x);
	return x;
}

// Each band's gain g turned by its peak's p (turnReal, turnImag) and set to
// the level |z2|^2 of its noise stages, or to z2 itself where the turned gain
// has died away; outHz = nominal + shift. `stages` points at the first band's
// re2, four floats to a band. Two passes around a square root of the row, so
// that both vectorise.
void turnGains(float *__restrict gr, float *__restrict gi, float *__restrict outHz, float *__restrict ratio,
	const float *__restrict turnReal, const float *__restrict turnImag, const float *__restrict shift,
	const float *__restrict stages, const float *__restrict nominal, std::size_t n) {
	for (std::size_t b = 0; b < n; ++b) {
		const float re = gr[b] * turnReal[b] - gi[b] * turnImag[b];
		const float im = gr[b] * turnImag[b] + gi[b] * turnReal[b];
		const float level = stages[4 * b] * stages[4 * b] + stages[4 * b + 1] * stages[4 * b + 1];
		ratio[b] = level / (re * re + im * im);
	}
	linear::platform::sqrt(ratio, ratio, n);
	for (std::size_t b = 0; b < n; ++b) {
		const float re = gr[b] * turnReal[b] - gi[b] * turnImag[b];
		const float im = gr[b] * turnImag[b] + gi[b] * turnReal[b];
		// Alive: |turned|^2 above 1e-30 in double, that is above the float
		// just below it (bits 0x0DA2425F), and not NaN. Chosen with a bit
		// mask: GCC sinks the products of a plain choice into a branch and
		// then keeps the loop scalar, as they might trap.
		const std::uint32_t size = bitsOf(re * re + im * im);
		const std::uint32_t keep = 0u - std::uint32_t(size - 0x0DA24260u <= 0x7F800000u - 0x0DA24260u);
		gr[b] = floatOf((bitsOf(re * ratio[b]) & keep) | (bitsOf(stages[4 * b]) & ~keep));
		gi[b] = floatOf((bitsOf(im * ratio[b]) & keep) | (bitsOf(stages[4 * b + 1]) & ~keep));
		outHz[b] = nominal[b] + shift[b];
	}
}

} // namespace
} // namespace chorus_rows

template<class Sample>
class Chorus : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	// One output channel's wander: its gains and output frequencies, plus the
	// two complex stages (z1, z2) of each band's noise filter.
	struct NoiseStages {
		float re1, im1, re2, im2;
	};
	struct Channel : SmoothedGains<float> {
		BumpVector<NoiseStages> noise;

		// [audio-thread] Unit gains, no energy history, and fresh noise in
		// both stages of every band (drawn in band order, z1 first).
		void reset(Chorus &chorus) {
			std::fill(gainsReal.begin(), gainsReal.end(), 1.0f);
			std::fill(gainsImag.begin(), gainsImag.end(), 0.0f);
			std::fill(previousEnergy.begin(), previousEnergy.end(), 0.0f);
			for (NoiseStages &z : noise) {
				chorus.gaussian(z.re1, z.im1);
				chorus.gaussian(z.re2, z.im2);
			}
		}

		// [audio-thread, inside onSpectrum] Steps the noise filter at each
		// peak's top, turns its phase step into a frequency offset and its
		// level into the gain of every band of the peak; the owner smooths
		// all channels together.
		void onSpectrum(Chorus &chorus, const Peaks<float> &peaks) {
			const float *pole = chorus.noisePole.data();
			const float *inputGain = chorus.noiseGain.data();
			float *gr = gainsReal.data(), *gi = gainsImag.data(), *outHz = hz.data();
			NoiseStages *stages = noise.data();
			// Per band, its peak's turn and frequency offset, in rows that are
			// free until the smoothing.
			float *turnReal = outReal.data(), *turnImag = outImag.data(), *shift = weightedReal.data();
			float *ratio = magnitudes.data();
			// The phase step of one frame, read as a frequency (1/2pi per radian).
			const float hzPerRadian = 0.15915494f * chorus.subRate;

			for (const Peak<float> &peak : peaks.peaks) {
				const std::size_t k = peak.peakIndex;
				const float a = pole[k], c = inputGain[k];
				NoiseStages z = stages[k];
				const float oldRe = z.re2, oldIm = z.im2;
				float nRe, nIm;
				chorus.gaussian(nRe, nIm);
				// Two cascaded one-pole filters on complex noise.
				z.re1 = z.re1 * a + nRe * c;
				z.im1 = z.im1 * a + nIm * c;
				z.re2 = z.re2 * a + z.re1 * c;
				z.im2 = z.im2 * a + z.im1 * c;
				stages[k] = z;

				// p = z2 conj(old z2): its phase is this frame's step of the
				// wander, its size grows with the level.
				const float pRe = z.re2 * oldRe + z.im2 * oldIm;
				const float pIm = z.im2 * oldRe - z.re2 * oldIm;
				const float offset = pIm * hzPerRadian;

				// Every band of the peak follows its top from now on; the
				// turn itself runs over all bands below.
				chorus_rows::spread(turnReal + peak.start, turnImag + peak.start, shift + peak.start,
					&stages[peak.start].re1, pRe, pIm, offset, z.re1, z.im1, z.re2, z.im2, peak.end - peak.start);
			}
			chorus_rows::turnGains(gr, gi, outHz, ratio, turnReal, turnImag, shift, &stages[0].re2,
				chorus.nominalHzRow.data(), chorus.bands);
		}
	};

	float width = 0.8f; // 0: every channel takes the mean; 1: independent; above 1 pushes apart
	float mix = 1; // wet amount; above 1 the dry part turns negative
	Peaks<float> peaks;
	BumpVector<Channel> channels; // one per output channel
	float antiWarbleSquared = 0.25f; // how far the level is pulled toward 1
	BumpVector<float> noisePole, noiseGain; // the noise filter per band
	float noiseDepth = -1; // the depth noisePole and noiseGain were made for; none yet
	// Minimal-standard generator state, 1 to 2^31 - 2. The owner seeds it with
	// seed(); until then every object draws the same sequence.
	std::uint32_t randomState = 1;
	bool seeded = false; // seed() has run
	BumpVector<float> sumReal, sumImag; // all channels' gains, summed and scaled
	BumpVector<float> tempReal, tempImag; // output work space

	// [set-up, allocates] Linear needs no scratch here: every row is our own.
	void init() {
		peaks.init(*this);
		peaks.smoothing = 0;
		channels.resize(channelsOut);
		for (Channel &channel : channels) {
			channel.init(*this);
			channel.noise.assign(bands, NoiseStages{0, 0, 0, 0});
		}
		noisePole.assign(bands, 0.0f);
		noiseGain.assign(bands, 0.0f);
		noiseDepth = -1;
		setNoiseFilter(436.05988f); // "detune" 2, "anti-warble" 0.5
		antiWarbleSquared = 0.25f;
		for (auto *row : {&sumReal, &sumImag, &tempReal, &tempImag}) row->assign(bands, 0.0f);
	}

	// [audio-thread] The engine and every channel's history; peaks keep theirs.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		for (Channel &channel : channels) channel.reset(*this);
	}

	// [any thread] Starts the generator from `bits` (any value).
	void seed(std::uint32_t bits) {
		randomState = bits % 2147483647u;
		if (randomState == 0) randomState = 1;
		seeded = true;
	}

	// [audio-thread] The next state of the minimal-standard generator
	// (x' = 48271 x mod 2^31 - 1). As 2^31 = 1 mod 2^31 - 1, the product's
	// bits above 31 fold onto its low bits; one subtraction finishes it.
	std::uint32_t nextRandom() {
		const std::uint64_t product = std::uint64_t(randomState) * 48271u;
		std::uint64_t next = (product & 0x7FFFFFFFu) + (product >> 31);
		if (next >= 0x7FFFFFFFu) next -= 0x7FFFFFFFu;
		randomState = std::uint32_t(next);
		return randomState;
	}

	// [audio-thread] A complex Gaussian sample, each part of standard
	// deviation 0.5, by the polar method.
	void gaussian(float &re, float &im) {
		float u, v, s;
		do {
			const std::uint32_t x1 = nextRandom();
			const std::uint32_t x2 = nextRandom();
			u = float(x1 - 1) * 0x1p-30f - 1;
			v = float(x2 - 1) * 0x1p-30f - 1;
			s = u * u + v * v;
		} while (s > 1 || s == 0);
		const float f = std::sqrt(-2 * std::log(s) / s) * 0.5f;
		re = u * f;
		im = v * f;
	}

	// [audio-thread] Pole and input gain of each band's noise filter for the
	// depth `k`. The corner, in cycles per frame, widens with frequency on an
	// auditory scale and never falls below 0.001, so the wander never stops.
	void setNoiseFilter(float k) {
		// Called with every block; the rows change only with the depth.
		if (k == noiseDepth) return;
		noiseDepth = k;
		float *pole = noisePole.data(), *gain = noiseGain.data();
		for (std::size_t b = 0; b < bands; ++b) {
			const float h = nominalHz(b);
			// About 15.2 at 0 Hz, falling toward 0 at high frequencies.
			const float q = (h * -8.479652f - 160.10822f) / (h * 0.5528328f + 1176.7571f) + 15.338548f;
			const float x = std::max(k / (q * q * subRate), 0.001f);
			const float a = std::exp(x * -8.885766f); // -2 pi sqrt(2)
			pole[b] = a;
			gain[b] = (1 - a) * std::pow(x * 1.4142135f, -0.25f);
		}
	}

protected:
	void onSpectrum() override {
		const std::size_t n = bands;
		peaks.update(*this, true);

		float *sr = sumReal.data(), *si = sumImag.data();
		std::fill(sr, sr + n, 0.0f);
		std::fill(si, si + n, 0.0f);
		// Draws run through channels and then peaks, in this order.
		for (Channel &channel : channels) channel.onSpectrum(*this, peaks);
		for (std::size_t start = 0; start < channels.size(); start += 8) {
			SmoothedGains<float> *sets[8];
			const std::size_t count = std::min<std::size_t>(8, channels.size() - start);
			for (std::size_t k = 0; k < count; ++k) sets[k] = &channels[start + k];
			SmoothedGains<float>::smoothAll(*this, peaks.energy, false, sets, count);
		}
		for (Channel &channel : channels) {
			const float *gr = channel.gainsReal.data(), *gi = channel.gainsImag.data();
			for (std::size_t b = 0; b < n; ++b) {
				sr[b] += gr[b];
				si[b] += gi[b];
			}
		}
		const float sumScale = 1 / std::sqrt(float(channelsOut));
		for (std::size_t b = 0; b < n; ++b) {
			sr[b] *= sumScale;
			si[b] *= sumScale;
		}

		const float wet = (2 - mix) * mix;
		const float dry = 1 - 0.5f * mix * mix * (3 - mix);
		const float own = width, common = 1 - width, warble = antiWarbleSquared;
		float *outR = tempReal.data(), *outI = tempImag.data();
		for (std::size_t o = 0; o < channelsOut; ++o) {
			const std::size_t i = o % channelsIn;
			const float *inR = inputReal(i), *inI = inputImag(i);
			Channel &channel = channels[o];
			// The channel's smoothing rows are free until its next frame.
			float *tr = channel.outReal.data(), *ti = channel.outImag.data(), *level = channel.magnitudes.data();
			chorus_rows::blend(tr, ti, level, channel.gainsReal.data(), channel.gainsImag.data(), sr, si, own, common,
				warble, n);
			linear::platform::sqrt(level, level, n);
			chorus_rows::wetOutput(outR, outI, inR, inI, tr, ti, level, wet, n);
			varkesh_lumbrel_engine_float_addOutputSplitMoved(engine, o, outR, outI, channels[o].hz.data(), n);
			// At mix 1 (the default) the dry part is all zeros, which would
			// change no output.
			if (dry == 0) continue;
			chorus_rows::dryOutput(outR, outI, inR, inI, dry, n);
			varkesh_lumbrel_engine_float_addOutputSplit(engine, o, outR, outI);
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct ChorusConfig {
	ParamRange detune{1.5};
	ParamRange antiWarble{0.65};
	ParamRange width{0.8};
	ParamRange mix{1};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Chorus");
		// Fewer decimals as the number grows.
		storage.range("detune", detune)
			.info("detune")
			.range(0, 2.5, 50)
			.unit("%", 2, ::quorl::RangeParamInfo::identityMap, ::quorl::RangeParamInfo::identityMap,
				std::numeric_limits<double>::lowest(), 4)
			.unit("%", 1, ::quorl::RangeParamInfo::identityMap, ::quorl::RangeParamInfo::identityMap, 4, 10)
			.unit("%", 0, ::quorl::RangeParamInfo::identityMap, ::quorl::RangeParamInfo::identityMap, 10,
				std::numeric_limits<double>::max());
		storage.range("antiWarble", antiWarble).info("anti-warble").range(0.05, 0.5, 0.95).unit("", 2);
		storage.range("width", width).info("width").range(0, 0.8, 1.5).unit("", 2);
		storage.range("mix", mix).info("mix").range(0, 0.75, 1.5).unit("", 2);
	}
};

} // namespace quorl

template<class Base>
struct ChorusQUORL : quorl::LumbrelQUORL<Base, Chorus<float>, ChorusQUORL<Base>> {
	using Wrapper = quorl::LumbrelQUORL<Base, Chorus<float>, ChorusQUORL<Base>>;
	using EffectWithPublic = typename Wrapper::EffectWithPublic;

	quorl::PeaksConfig<typename Base::ParamRange, typename Base::ParamStepped> peaksConfig;
	quorl::SmoothedGainsConfig<typename Base::ParamRange, typename Base::ParamStepped> gainsConfig;
	quorl::ChorusConfig<typename Base::ParamRange, typename Base::ParamStepped> chorusConfig;

	// The random device is read here, once, on the main thread: an effect
	// rebuilt on the audio thread takes its seed from `nextSeed` instead.
	ChorusQUORL() : nextSeed(randomDeviceSeed(this)) {}

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel3: Chorus (Spectral)");
		storage("engineConfig", this->engineConfig);
		storage("peaksConfig", peaksConfig);
		storage("gainsConfig", gainsConfig);
		storage("chorusConfig", chorusConfig);
	}

	// A fresh effect is seeded before its first reset (configure) or its first
	// block (a rebuild in the block path), so that its first noise already
	// differs from any other instance's.
	void resetEffect(EffectWithPublic &fx) {
		if (!fx.seeded) seedEffect(fx);
		fx.reset();
	}

	// [audio-thread] Host values arrive unclamped; each is held to its
	// control's range, outside which the arithmetic can divide by zero.
	void copyParams(EffectWithPublic &fx) {
		if (!fx.seeded) seedEffect(fx);
		fx.peaks.smoothing = float(quorl::withinRange(peaksConfig.smoothing.value, 0, 10));
		for (auto &channel : fx.channels) gainsConfig.copyTo(channel);
		const float w = float(quorl::withinRange(chorusConfig.antiWarble.value, 0.05, 0.95));
		const float w2 = w * w;
		fx.antiWarbleSquared = w2;
		fx.setNoiseFilter(float(quorl::withinRange(chorusConfig.detune.value, 0, 50)) * 178.89636f * (1 + (w2 / 2) * (2 - w2)));
		fx.width = float(quorl::withinRange(chorusConfig.width.value, 0, 1.5));
		fx.mix = float(quorl::withinRange(chorusConfig.mix.value, 0, 1.5));
	}

	// The peak energy curve only.
	void refreshSpectrum(EffectWithPublic &fx) {
		this->spectrumRow(0).assign(fx.peaks.energy, fx.peaks.energy + fx.bands);
	}

private:
	std::uint32_t nextSeed;

	// Each effect object gets its own seed; the next one is stirred on, so a
	// rebuild doesn't replay the sequence it replaces.
	void seedEffect(EffectWithPublic &fx) {
		fx.seed(nextSeed);
		std::uint32_t x = nextSeed + 0x9E3779B9u;
		x = (x ^ (x >> 16)) * 0x85EBCA6Bu;
		x = (x ^ (x >> 13)) * 0xC2B2AE35u;
		nextSeed = x ^ (x >> 16);
	}

	// `value` held to [low, high]; NaN goes to `low`.
};

} // namespace varkesh::lumbrel
