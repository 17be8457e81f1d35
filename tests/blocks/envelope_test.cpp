// The band envelope: two poles with the period's time constant on the way down, all but instant on the way up, smoothing
// across bands, a floor; measured on spectra made by hand, shown to it in place of the engine's rows.
#include "blocks/envelope.h"

#include "blocks/block_harness.h"

#include <gtest/gtest.h>

using namespace lumbrel_test;
using varkesh::lumbrel::Envelope;

namespace {

// Frame n shows an envelope (smoothing, period) the energy levels[n] (the last one after the end) in every band, or in
// the middle band only with `spike`. Returns band 0 (or the middle one) after each frame; `row` the last row.
std::vector<float> trace(float smoothing, float periodMs, std::vector<float> levels, std::size_t frames,
	bool spike = false, std::vector<float> *row = nullptr, float *subRate = nullptr) {
	ProbeEffect probe(1, 1);
	probe.keepRunning = true;
	Envelope<float> envelope;
	envelope.smoothing = smoothing;
	if (periodMs > 0) envelope.periodMs = periodMs;
	envelope.init(probe);
	const std::size_t bands = probe.bands, watch = spike ? bands / 2 : 0;
	varkesh::lumbrel::BumpVector<float> re(bands, 0.0f), im(bands, 0.0f);
	levels.resize(frames, levels.back());
	std::vector<float> out;
	probe.frame = [&](ProbeEffect &e) {
		if (out.size() == frames) return;
		for (std::size_t b = 0; b < bands; ++b) re[b] = !spike || b == watch ? std::sqrt(levels[out.size()]) : 0.0f;
		varkesh_lumbrel_engine_float_setInputReal(e.engine, 0, re.data());
		varkesh_lumbrel_engine_float_setInputImag(e.engine, 0, im.data());
		envelope.update(e);
		out.push_back(envelope.envelope[0][watch]);
	};
	runEffect(probe, {Signal((frames + 8) * 120, 0.0f)});
	if (row) row->assign(envelope.envelope[0].begin(), envelope.envelope[0].end());
	if (subRate) *subRate = probe.subRate;
	return out;
}

// Frames from `start` until x falls to `ratio` of x[start - 1].
std::size_t framesToFall(const std::vector<float> &x, std::size_t start, float ratio) {
	std::size_t i = start;
	while (i < x.size() && x[i] > x[start - 1] * ratio) ++i;
	return i - start + 1;
}

} // namespace

// Two identical poles p = T / (T + 1) from rest at 1 with no input give p^n (1 + n (1 - p)), which falls to 1% in about
// 6.64 T.
TEST(Envelope, FallsWithTwoPolesOfThePeriodAndRestsAtTheFloor) {
	double fallMs[2];
	const float periods[2] = {20, 80};
	for (int i = 0; i < 2; ++i) {
		std::vector<float> levels(50, 1.0f);
		levels.push_back(0.0f);
		float subRate = 0;
		const auto x = trace(0, periods[i], levels, 3050, false, nullptr, &subRate);
		ASSERT_NEAR(x[49], 1.0f, 1e-5f);
		const double p = periods[i] * 0.001 * subRate / (periods[i] * 0.001 * subRate + 1);
		std::size_t expected = 0;
		while (std::pow(p, double(expected)) * (1 + double(expected) * (1 - p)) > 0.01) ++expected;
		const std::size_t frames = framesToFall(x, 50, 0.01f);
		EXPECT_NEAR(double(frames), double(expected), 1.0) << periods[i] << " ms";
		fallMs[i] = 1000.0 * double(frames) / subRate;
		EXPECT_NEAR(fallMs[i] / periods[i], 6.64, 0.6) << periods[i] << " ms";
		EXPECT_EQ(x.back(), 1e-30f) << "stops at the floor";
	}
	EXPECT_NEAR(fallMs[1] / fallMs[0], 4.0, 0.2);
}

// +60 dB lands in one frame, +10 dB within 0.5 dB in two; falling 10 dB takes many.
TEST(Envelope, RisesWithinAFrameOrTwo) {
	std::vector<float> levels(100, 1e-6f);
	levels.resize(200, 1.0f);
	levels.resize(300, 1e-6f);
	levels.resize(400, 1e-5f);
	const auto x = trace(0, 0, levels, 450);
	EXPECT_NEAR(x[100], 1.0f, 1e-5f);
	EXPECT_GT(10 * std::log10(x[301] / 1e-5f), -0.5);
	EXPECT_GT(framesToFall(x, 200, 0.1f), 15u);
}

// A spike in one band: half-widths of a one-pole of coefficient 1 - 1 / (w + 1) are ln 2 / ln(1 + 1/w) bands, 3.8 and
// 14.6 for widths 5 and 20 (smoothing 0.25 and 1 at resolution 20; the two passes a little more). Smoothing moves
// energy, it doesn't make it.
TEST(Envelope, SmoothingSpreadsEnergyAcrossBandsByItsWidth) {
	const struct {
		float smoothing;
		std::size_t low, high;
	} cases[] = {{0, 0, 0}, {0.25f, 3, 6}, {1, 14, 22}};
	for (const auto &c : cases) {
		std::vector<float> row;
		trace(c.smoothing, 0, {1.0f}, 200, true, &row);
		const std::size_t k = row.size() / 2;
		std::size_t halfWidth = 0;
		while (k + halfWidth + 1 < row.size() && row[k + halfWidth + 1] > 0.5f * row[k]) ++halfWidth;
		double sum = 0;
		for (float v : row) sum += v > 1e-29f ? v : 0;
		EXPECT_TRUE(halfWidth >= c.low && halfWidth <= c.high) << c.smoothing << ": " << halfWidth;
		EXPECT_NEAR(sum, 1.0, c.smoothing == 0 ? 1e-6 : 0.01) << c.smoothing;
		if (c.smoothing == 0) {
			EXPECT_EQ(row[k], 1.0f);
		}
	}
}
