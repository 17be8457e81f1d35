// Output synthesis: values added at chosen frequencies come out as sines of
// twice their magnitude at that frequency, out-of-range frequencies are dropped,
// and the quick and general placement paths agree with their contract.
#include "engine/engine_impl.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

#include <complex>
#include <functional>

namespace {

using namespace lumbrel_test;

// Amplitude of the component of x[from, from + n) at hz.
double amplitudeAt(const Signal &x, std::size_t from, std::size_t n, double hz, double sampleRate) {
	std::complex<double> sum = 0;
	for (std::size_t i = 0; i < n; ++i) sum += double(x[from + i]) * std::polar(1.0, -2 * pi * hz * double(i) / sampleRate);
	return 2 * std::abs(sum) / double(n);
}

// An engine fed silence but kept awake, with the effect's output given by a
// function called at each step.
struct Synth {
	Engine engine{1, 1, 48000, varkesh_lumbrel_config_default()};
	std::function<void(varkesh_lumbrel_engine_float *)> effect;
	static bool onSpectrum(void *self) {
		auto &s = *static_cast<Synth *>(self);
		s.effect(s.engine);
		return true;
	}
	static bool keepRunning(void *) { return true; }
	Signal render(std::size_t length) {
		varkesh_lumbrel_engine_float_setCallbacks(engine, this, onSpectrum, keepRunning);
		varkesh_lumbrel_engine_float_reset(engine);
		return run(engine, {Signal(length, 0.0f)}, 1, 256)[0];
	}
};

// 2000 Hz is a whole number of cycles per interval (120 samples at 48 kHz), so
// the same value at every step continues one steady sine.
constexpr float onGrid = 2000.0f;
constexpr std::size_t settled = 1440, measured = 4800;

TEST(Synthesis, AValueBecomesASineOfTwiceItsMagnitude) {
	Synth synth;
	float re = 0.15f, im = 0.2f, hz = onGrid;
	synth.effect = [&](varkesh_lumbrel_engine_float *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, &re, &im, &hz, 1); };
	Signal y = synth.render(settled + measured);
	double amplitude = amplitudeAt(y, settled, measured, onGrid, 48000);
	EXPECT_NEAR(dB(amplitude / 0.5), 0.0, 0.05) << amplitude;
	EXPECT_NEAR(rms(y.data() + settled, measured), 0.5 / std::sqrt(2.0), 0.005);
}

TEST(Synthesis, CallsAddUpAndSplitMatchesInterleaved) {
	auto render = [](std::function<void(varkesh_lumbrel_engine_float *)> effect) {
		Synth synth;
		synth.effect = std::move(effect);
		return synth.render(settled + measured);
	};
	float hz[2] = {onGrid, 6000.0f};
	float re[2] = {0.1f, -0.05f}, im[2] = {0.02f, 0.1f};
	float twiceRe[2] = {0.2f, -0.1f}, twiceIm[2] = {0.04f, 0.2f};
	std::complex<float> pairs[2] = {{0.1f, 0.02f}, {-0.05f, 0.1f}};

	Signal once = render([&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, twiceRe, twiceIm, hz, 2); });
	Signal twice = render([&](auto *e) {
		varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, re, im, hz, 2);
		varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, re, im, hz, 2);
	});
	Signal interleaved = render([&](auto *e) {
		varkesh_lumbrel_engine_float_addOutputInterleavedMoved(e, 0, pairs, hz, 2);
		varkesh_lumbrel_engine_float_addOutputInterleavedMoved(e, 0, pairs, hz, 2);
	});
	ASSERT_GT(rms(once.data() + settled, measured), 0.1);
	for (std::size_t i = 0; i < once.size(); ++i) {
		ASSERT_EQ(twice[i], once[i]) << i;
		ASSERT_EQ(interleaved[i], twice[i]) << i;
	}
}

// At or above Nyquist plus one bin, and below 0 Hz on x86, values are dropped;
// Nyquist itself is kept.
TEST(Synthesis, OutOfRangeFrequenciesAreDropped) {
	float binHz = 48000.0f / 768.0f;
	for (float hz : {24000.0f + binHz, 30000.0f, 1e9f}) {
		Synth synth;
		float re = 0.3f, im = 0.0f;
		synth.effect = [&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, &re, &im, &hz, 1); };
		Signal y = synth.render(settled + measured);
		EXPECT_EQ(rms(y.data(), y.size()), 0.0) << hz << " Hz";
	}
#if defined(__x86_64__)
	{
		Synth synth;
		float re = 0.3f, im = 0.0f, hz = -100.0f;
		synth.effect = [&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, &re, &im, &hz, 1); };
		Signal y = synth.render(settled + measured);
		EXPECT_EQ(rms(y.data(), y.size()), 0.0);
	}
#endif
	Synth synth;
	float re = 0.2f, im = 0.0f, hz = 24000.0f;
	synth.effect = [&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, &re, &im, &hz, 1); };
	Signal y = synth.render(settled + measured);
	EXPECT_GT(rms(y.data() + settled, measured), 0.01);
}

// addOutputSplit places channel 0's values at the nominal band positions; a
// swapped inputHz row moves them to the frequencies given there.
TEST(Synthesis, SwappedFrequenciesMoveTheBands) {
	Synth nominal;
	std::size_t bands = varkesh_lumbrel_engine_float_bands(nominal.engine);
	std::size_t target = 0;
	while (varkesh_lumbrel_engine_float_nominalHz(nominal.engine, target) < 1000.0f) ++target;
	std::vector<float> re(bands, 0.0f), im(bands, 0.0f), moved(bands, 6000.0f);
	float bandHz = varkesh_lumbrel_engine_float_nominalHz(nominal.engine, target);
	// The value turns by the band's phase advance per interval, as a tracked band does.
	std::size_t step = 0;
	nominal.effect = [&](auto *e) {
		std::complex<double> v = std::polar(0.25, 2 * pi * double(bandHz) * 120.0 / 48000.0 * double(step++));
		re[target] = float(v.real());
		im[target] = float(v.imag());
		varkesh_lumbrel_engine_float_addOutputSplit(e, 0, re.data(), im.data());
	};
	Signal atBand = nominal.render(settled + measured);

	// 6000 Hz turns by whole cycles per interval: a constant value continues it.
	re[target] = 0.25f;
	im[target] = 0.0f;
	Synth swapped;
	swapped.effect = [&](auto *e) {
		varkesh_lumbrel_engine_float_setInputHz(e, 0, moved.data());
		varkesh_lumbrel_engine_float_addOutputSplit(e, 0, re.data(), im.data());
	};
	Signal atMoved = swapped.render(settled + measured);

	double near = amplitudeAt(atBand, settled, measured, bandHz, 48000);
	EXPECT_GT(near, 0.2);
	EXPECT_LT(amplitudeAt(atBand, settled, measured, 6000, 48000), 0.01 * near);
	EXPECT_NEAR(dB(amplitudeAt(atMoved, settled, measured, 6000, 48000) / 0.5), 0.0, 0.05);
	EXPECT_LT(amplitudeAt(atMoved, settled, measured, bandHz, 48000), 0.01);
}

} // namespace
