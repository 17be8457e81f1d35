// The pitch path built from its blocks alone (Peaks, PeakShifter and its
// gains on the engine), for taking a gap of the quality benchmark apart: one
// frame dumped band by band between FROM_HZ and TO_HZ (what the analysis
// hands over, what Peaks makes of it, where the shifter sends each band), and
// the output's level and spurious components. Each stage can be changed from
// the command line: a shift of the same number of hertz for every peak
// ("300Hz") instead of semitones, the gain smoothing and detail boost, the
// analysis' refinement rounds and resolution, and a pair of sines (880 Hz and
// OTHER_HZ, OTHER_dB louder) instead of the 220 Hz harmonic tone. KEEP_HZ > 0
// outputs only the bands that move with the partial at KEEP_HZ (its own peak
// and those that take its shift), so that what those bands hold of each
// partial can be heard apart. Each partial's output level is listed.
//
//   lumbrel_pitch_stages tone|pair|SINE_HZ SEMITONES|SHIFT_Hz FROM_HZ TO_HZ
//       [PHASE_SMOOTHING [DETAIL_BOOST [ITERATIONS [RESOLUTION [OTHER_HZ [EMPHASIS_dB [KEEP_HZ [OTHER_dB]]]]]]]]
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "support/quality_measures.h"
#include "support/signals.h"

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace varkesh::lumbrel;

namespace {

class Shift : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;
	Peaks<float> peaks;
	PeakShifter<float> shifter;
	std::size_t frame = 0, dumpAt = 0;
	// For two sines: each band's value demodulated by each sine's phase per
	// frame and averaged, which splits a band's content between the two.
	double sineA = 0, sineB = 0;
	std::vector<std::complex<double>> shareA, shareB;
	std::size_t demodulated = 0;
	float fromHz = 0, toHz = 0, shiftHz = 0, keepHz = 0;
	std::vector<float> keptReal, keptImag;

	void init() {
		reserveScratch();
		peaks.init(*this);
		shifter.gains.init(*this);
		std::fill(shifter.gains.gainsReal.begin(), shifter.gains.gainsReal.end(), 1.0f);
	}
	void onSpectrum() override {
		peaks.update(*this, true);
		if (shiftHz != 0) {
			shifter.updateWithMap(*this, peaks, [this](float hz, float &to, float &) { to = hz + shiftHz; });
		} else {
			shifter.update(*this, peaks);
		}
		if (++frame == dumpAt) dump();
		const float *inReal = inputReal(0), *inImag = inputImag(0);
		if (keepHz > 0) {
			// The bands whose shift is that of the band at keepHz.
			const std::size_t at = std::size_t(nominalBand(keepHz) + 0.5f);
			const float keepShift = shifter.gains.hz[at] - nominalHz(at);
			keptReal.assign(inReal, inReal + bands);
			keptImag.assign(inImag, inImag + bands);
			for (std::size_t b = 0; b < bands; ++b) {
				if (std::fabs(shifter.gains.hz[b] - nominalHz(b) - keepShift) > 0.01f) keptReal[b] = keptImag[b] = 0;
			}
			inReal = keptReal.data();
			inImag = keptImag.data();
		}
		if (sineB > 0 && frame > dumpAt / 2 && frame <= dumpAt) {
			shareA.resize(bands);
			shareB.resize(bands);
			const double t = double(frame);
			const std::complex<double> ua = std::polar(1.0, -2 * M_PI * sineA * t / subRate);
			const std::complex<double> ub = std::polar(1.0, -2 * M_PI * sineB * t / subRate);
			for (std::size_t b = 0; b < bands; ++b) {
				const std::complex<double> x(inputReal(0)[b], inputImag(0)[b]);
				shareA[b] += x * ua;
				shareB[b] += x * ub;
			}
			++demodulated;
		}
		for (std::size_t o = 0; o < channelsOut; ++o) shifter.gains.addOutput(*this, o, inReal, inImag, 1);
	}
	void dump() {
		std::vector<std::size_t> owner(bands);
		for (std::size_t p = 0; p < peaks.peaks.size(); ++p)
			for (std::size_t b = peaks.peaks[p].start; b < peaks.peaks[p].end; ++b) owner[b] = p;
		std::printf("band  nominal  energy_dB  analysisHz  peaksHz  peak(top,hz)  outHz  |gain| arg\n");
		for (std::size_t b = 0; b < bands; ++b) {
			if (nominalHz(b) < fromHz || nominalHz(b) > toHz) continue;
			const auto &p = peaks.peaks[owner[b]];
			const float gr = shifter.gains.gainsReal[b], gi = shifter.gains.gainsImag[b];
			std::printf("%4zu %8.1f %9.1f %10.1f %8.1f  %3zu(%3zu,%7.1f) %8.1f %6.3f %+.3f\n", b, nominalHz(b),
				10 * std::log10(peaks.energy[b]), inputHz(0)[b], peaks.hz[b], owner[b], p.peakIndex, p.hz,
				shifter.gains.hz[b], std::hypot(gr, gi), std::atan2(gi, gr));
		}
	}
};

} // namespace

int main(int argc, char **argv) {
	if (argc < 5) {
		std::fprintf(stderr, "usage: lumbrel_pitch_stages tone|pair|SINE_HZ SEMITONES|SHIFT_Hz FROM_HZ TO_HZ [PHASE_SMOOTHING [DETAIL_BOOST [ITERATIONS [RESOLUTION [OTHER_HZ [EMPHASIS_dB [KEEP_HZ [OTHER_dB]]]]]]]]\n");
		return 2;
	}
	constexpr float rate = 48000;
	for (int a = 1; a < argc; ++a) {
		std::string text = argv[a];
		if (a == 1 && (text == "tone" || text == "pair")) continue;
		if (a == 2 && text.size() > 2 && text.compare(text.size() - 2, 2, "Hz") == 0) text.resize(text.size() - 2);
		char *end = nullptr;
		const double value = std::strtod(text.c_str(), &end);
		if (text.empty() || *end != 0 || !std::isfinite(value) || ((a == 1 || a == 9) && !(value > 0 && value < 20000)) ||
			(a == 11 && !(value >= 0 && value < 20000)) || (a == 12 && std::fabs(value) > 60)) {
			std::fprintf(stderr, "lumbrel_pitch_stages: argument %d, '%s', is not a number in range\n", a, argv[a]);
			return 2;
		}
	}
	LumbrelConfig config = varkesh_lumbrel_config_default();
	if (argc > 7) config.iterations = unsigned(std::atoi(argv[7]));
	if (argc > 8) config.resolution = float(std::atof(argv[8]));
	if (argc > 10) config.emphasis = float(std::atof(argv[10]));
	const double otherGain = argc > 12 ? std::pow(10.0, std::atof(argv[12]) / 20) : 1.0;
	Shift fx(1, 1, rate, config);
	fx.init();
	const std::string shift = argv[2];
	if (shift.size() > 2 && shift.back() == 'z') {
		fx.shiftHz = float(std::atof(argv[2]));
	} else {
		fx.shifter.semitones = float(std::atof(argv[2]));
	}
	if (argc > 5) fx.shifter.gains.phaseSmoothing = float(std::atof(argv[5]));
	if (argc > 6) fx.shifter.gains.detailBoost = float(std::atof(argv[6]));
	fx.fromHz = float(std::atof(argv[3]));
	fx.toHz = float(std::atof(argv[4]));
	if (argc > 11) fx.keepHz = float(std::atof(argv[11]));
	fx.dumpAt = std::size_t(fx.subRate); // one second in
	const std::string what = argv[1];
	const std::size_t frames = std::size_t(2.0 * rate);
	std::vector<float> in = what == "tone" ? lumbrel_test::harmonicTone(220, 12, rate, frames, 0.03)
										   : lumbrel_test::sine(std::atof(argv[1]), rate, frames, 0.25);
	if (what == "pair") {
		in = lumbrel_test::sine(880, rate, frames, 0.03);
		const auto other = lumbrel_test::sine(argc > 9 ? std::atof(argv[9]) : 1100, rate, frames, 0.03 * otherGain);
		for (std::size_t i = 0; i < frames; ++i) in[i] += other[i];
	}
	if (what == "pair") {
		fx.sineA = 880;
		fx.sineB = argc > 9 ? std::atof(argv[9]) : 1100;
	}
	std::vector<float> out(frames);
	std::printf("bands %zu, %.1f spectra per second, resolution %.1f\n", fx.bands, fx.subRate, fx.resolution);
	for (std::size_t at = 0; at < frames; at += 256) {
		const float *i[1] = {in.data() + at};
		float *o[1] = {out.data() + at};
		fx.process(i, o, std::min<std::size_t>(256, frames - at));
	}
	if (fx.demodulated > 0) {
		// How much of each sine lies in the bands of the other's peak: the
		// power of its share there against its share's power in all bands.
		const auto peakOf = [&](double hz) {
			const std::size_t band = std::size_t(fx.nominalBand(float(hz)) + 0.5f);
			for (const auto &p : fx.peaks.peaks)
				if (band >= p.start && band < p.end) return p;
			return fx.peaks.peaks.back();
		};
		const auto a = peakOf(fx.sineA), b = peakOf(fx.sineB);
		double aInB = 0, aAll = 0, bInA = 0, bAll = 0;
		for (std::size_t k = 0; k < fx.bands; ++k) {
			const double pa = std::norm(fx.shareA[k]), pb = std::norm(fx.shareB[k]);
			aAll += pa;
			bAll += pb;
			if (k >= b.start && k < b.end) aInB += pa;
			if (k >= a.start && k < a.end) bInA += pb;
		}
		std::printf("share of %.0f Hz in the peak of %.0f Hz: %.1f dB; of %.0f Hz in the peak of %.0f Hz: %.1f dB\n", fx.sineA,
			fx.sineB, 10 * std::log10(aInB / aAll + 1e-30), fx.sineB, fx.sineA, 10 * std::log10(bInA / bAll + 1e-30));
	}
	const std::size_t from = std::size_t(1.0 * rate), length = 32768;
	const double ratio = std::exp2(fx.shifter.semitones / 12);
	std::vector<double> partials;
	if (what == "pair") {
		partials = {880 * ratio + fx.shiftHz, (argc > 9 ? std::atof(argv[9]) : 1100) * ratio + fx.shiftHz};
	} else if (what == "tone") {
		for (int k = 1; k <= 12; ++k) partials.push_back(220 * k * ratio + fx.shiftHz);
	} else {
		partials = {std::atof(argv[1]) * ratio + fx.shiftHz};
	}
	const auto s = lumbrel_test::toneSpectrum(out, from, length, partials, rate);
	// Each partial's level out against in, by demodulation under a
	// Blackman-Harris window (no scalloping between FFT bins).
	std::printf("partials, dB re input:");
	for (std::size_t p = 0; p < partials.size(); ++p) {
		std::complex<double> sum = 0;
		double windowSum = 0;
		for (std::size_t i = 0; i < length; ++i) {
			const double phase = 2 * M_PI * double(i) / double(length);
			const double w = 0.35875 - 0.48829 * std::cos(phase) + 0.14128 * std::cos(2 * phase) - 0.01168 * std::cos(3 * phase);
			sum += w * double(out[from + i]) * std::polar(1.0, -2 * M_PI * partials[p] * double(i) / rate);
			windowSum += w;
		}
		const double input = what == "tone" ? 0.03 : what == "pair" ? (p == 0 ? 0.03 : 0.03 * otherGain) : 0.25;
		std::printf(" %+.3f", lumbrel_test::dB(2 * std::abs(sum) / windowSum / input));
	}
	std::printf("\n");
	std::printf("level %+.3f dB, strongest spurious %.1f dB, floor %.1f dB\n",
		lumbrel_test::dB(lumbrel_test::rms(out, from, from + length) / lumbrel_test::rms(in, from, from + length)),
		s.strongestSpuriousDb, s.floorDb);
	return 0;
}
