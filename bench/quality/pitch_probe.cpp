// Quick look at one case of the pitch shifter through the built bundle: the
// harmonic tone's level and strongest spurious components (with where they
// lie), or one sine's level and wander. For chasing a figure of the quality
// benchmark without running all of it.
//
//   lumbrel_pitch_probe tone|SINE_HZ SEMITONES [group/key=VALUE ...]
#include "host/bundle.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"
#include "support/quality_measures.h"
#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

// Local maxima of the output's spectrum outside the partials' lobes,
// strongest first, in dB below `top`.
void listSpurious(const std::vector<float> &out, std::size_t from, std::size_t length, const std::vector<double> &partials,
	double top) {
	constexpr double rate = 48000;
	const auto spectrum = amplitudeSpectrum(out, from, length);
	const double binHz = rate / double(length);
	std::vector<std::pair<double, double>> found;
	for (std::size_t k = 2; k + 2 < spectrum.size() && double(k) * binHz < 20000; ++k) {
		bool near = false;
		for (double p : partials) near = near || std::fabs(double(k) - p / binHz) <= 4.5;
		if (near || spectrum[k] < spectrum[k - 1] || spectrum[k] < spectrum[k + 1]) continue;
		found.push_back({dB(spectrum[k] / top), double(k) * binHz});
	}
	std::sort(found.rbegin(), found.rend());
	for (std::size_t i = 0; i < found.size() && i < 8; ++i) std::printf("  spurious %.1f dB at %.1f Hz\n", found[i].first, found[i].second);
}

} // namespace

int main(int argc, char **argv) {
	if (argc < 3) {
		std::fprintf(stderr, "usage: lumbrel_pitch_probe tone|SINE_HZ SEMITONES [group/key=VALUE ...]\n");
		return 2;
	}
	constexpr double rate = 48000;
	const auto isNumber = [](const char *text, double low, double high) {
		char *end = nullptr;
		const double value = std::strtod(text, &end);
		return end != text && *end == 0 && value >= low && value <= high;
	};
	if (std::string(argv[1]) != "tone" && !isNumber(argv[1], 20, 20000)) {
		std::fprintf(stderr, "lumbrel_pitch_probe: '%s' is neither 'tone' nor a sine's frequency from 20 to 20000 Hz\n", argv[1]);
		return 2;
	}
	if (!isNumber(argv[2], -24, 24)) {
		std::fprintf(stderr, "lumbrel_pitch_probe: '%s' is not a shift from -24 to 24 semitones\n", argv[2]);
		return 2;
	}
	for (int a = 3; a < argc; ++a) {
		const char *equals = std::strchr(argv[a], '=');
		if (equals && !isNumber(equals + 1, -1e9, 1e9)) {
			std::fprintf(stderr, "lumbrel_pitch_probe: '%s' has no number after '='\n", argv[a]);
			return 2;
		}
	}
	const std::string what = argv[1];
	const double semitones = std::atof(argv[2]), ratio = std::exp2(semitones / 12);
	std::string error;
	auto bundle = lumbrel::host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	if (!bundle) {
		std::fprintf(stderr, "lumbrel_pitch_probe: cannot load the bundle: %s\n", error.c_str());
		return 1;
	}
	PluginRunner runner(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", rate, 256);
	if (!runner.ok) {
		std::fprintf(stderr, "lumbrel_pitch_probe: the pitch shifter does not start\n");
		return 1;
	}
	runner.set(paramId({"peakShifterConfig", "semitones"}), semitones);
	for (int a = 3; a < argc; ++a) {
		const std::string arg = argv[a];
		const auto slash = arg.find('/'), equals = arg.find('=');
		if (slash == std::string::npos || equals == std::string::npos || equals < slash) {
			std::fprintf(stderr, "lumbrel_pitch_probe: '%s' is not group/key=value\n", argv[a]);
			return 2;
		}
		const std::string group = arg.substr(0, slash), key = arg.substr(slash + 1, equals - slash - 1);
		runner.set(paramId({group.c_str(), key.c_str()}), std::atof(arg.c_str() + equals + 1));
	}
	const std::size_t delay = 480;
	if (what == "tone") {
		const std::size_t frames = std::size_t(2.5 * rate);
		const auto in = harmonicTone(220, 12, rate, frames, 0.03);
		const auto out = runner.run({in, in})[0];
		const std::size_t from = std::size_t(1.0 * rate), length = 32768;
		std::vector<double> partials;
		for (int k = 1; k <= 12; ++k) partials.push_back(220 * k * ratio);
		const auto s = toneSpectrum(out, from, length, partials, rate);
		std::printf("tone %+g: level %+.3f dB, strongest spurious %.1f dB, floor %.1f dB\n", semitones,
			dB(rms(out, from, from + length) / rms(in, from, from + length)), s.strongestSpuriousDb, s.floorDb);
		double top = 0;
		for (double a : s.partialAmplitude) top = std::max(top, a);
		std::printf("partials, dB re input:");
		for (double a : s.partialAmplitude) std::printf(" %+.2f", dB(a / 0.03));
		std::printf("\n");
		listSpurious(out, from, length, partials, top);
	} else {
		const double hz = std::atof(what.c_str());
		const std::size_t frames = std::size_t(2.0 * rate);
		const std::vector<double> inHz(frames, hz);
		const auto in = fromPhase(phaseOf(inHz, rate), 0.25);
		const auto out = runner.run({in, in})[0];
		std::vector<double> outHz(frames);
		for (std::size_t i = 0; i < frames; ++i) outHz[i] = ratio * hz;
		const std::size_t frame = std::max<std::size_t>(std::size_t(0.02 * rate), std::size_t(6 * rate / (hz * ratio)));
		const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(0.8 * rate), frames, frame,
			std::size_t(0.002 * rate), rate);
		(void)delay;
		std::printf("sine %g Hz %+g: level %+.3f dB, wander %.2f dB p-p, %.2f cents rms\n", hz, semitones,
			dB(track.meanAmplitude() / 0.25), track.levelWanderDb(), track.centsRms());
		const std::size_t from = std::size_t(1.0 * rate), length = 32768;
		const std::vector<double> partials = {hz * ratio};
		listSpurious(out, from, length, partials, toneSpectrum(out, from, length, partials, rate).partialAmplitude[0]);
	}
	return 0;
}
