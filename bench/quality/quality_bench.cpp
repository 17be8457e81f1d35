// Sound quality of the pitch path side by side with Rubber Band R3 (real-time)
// and SoundTouch: the pitch shifter and the octaver of the built bundle, run
// through the CLAP ABI, and the two libraries, on signals made here. Prints one
// table; each cell lists the shifts +5 / +12 / -7 / -12 semitones (the
// octaver: -12 / +12). What each row measures is in bench/README.md.
#include "host/bundle.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"
#include "support/quality_measures.h"
#include "support/signals.h"

#if LUMBREL_BENCH_RUBBERBAND
#include <rubberband/RubberBandStretcher.h>
#endif
#if LUMBREL_BENCH_SOUNDTOUCH
#include <SoundTouch.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr double rate = 48000;
constexpr std::size_t block = 256;
constexpr std::size_t maxOutput = 8192;
using Signal = std::vector<float>;

// A real-time shifter fed mono blocks; returns how many frames it wrote.
class Shifter {
public:
	virtual ~Shifter() = default;
	virtual bool ok() const { return true; }
	// Delay of what a host plays, when the shifter reports one (seconds); < 0: measure it.
	virtual double reportedLatency() const { return -1; }
	virtual std::size_t process(const float *input, std::size_t frames, float *output) = 0;
};

const lumbrel::host::Bundle *loadedBundle() {
	static std::string error;
	static std::unique_ptr<lumbrel::host::Bundle> loaded = lumbrel::host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	if (!loaded) std::fprintf(stderr, "lumbrel_quality_bench: cannot load %s: %s\n", LUMBREL_BUNDLE_PATH, error.c_str());
	return loaded.get();
}

// A plug-in of the bundle at its defaults (10 ms latency) with a few parameters set.
class LumbrelShifter final : public Shifter {
public:
	LumbrelShifter(const char *id, const std::vector<std::pair<clap_id, double>> &params) : runner(*loadedBundle(), id, rate, block) {
		for (const auto &[param, value] : params) {
			if (runner.ok) runner.set(param, value);
		}
	}
	bool ok() const override { return runner.ok; }
	double reportedLatency() const override { return 0.010; }
	std::size_t process(const float *input, std::size_t frames, float *output) override {
		runner.out.clear();
		float *in[2] = {const_cast<float *>(input), const_cast<float *>(input)};
		float *out[2] = {output, scratch};
		runner.instance->process(in, 2, out, 2, std::uint32_t(frames), runner.events, runner.out);
		return frames;
	}

private:
	PluginRunner runner;
	float scratch[block];
};

#if LUMBREL_BENCH_RUBBERBAND
class RubberBandShifter final : public Shifter {
public:
	explicit RubberBandShifter(double semitones)
		: stretcher(std::size_t(rate), 1,
			  RubberBand::RubberBandStretcher::OptionProcessRealTime | RubberBand::RubberBandStretcher::OptionEngineFiner, 1.0,
			  std::exp2(semitones / 12)) {
		stretcher.setMaxProcessSize(block);
	}
	std::size_t process(const float *input, std::size_t frames, float *output) override {
		stretcher.process(&input, frames, false);
		std::size_t written = 0;
		for (int ready; (ready = stretcher.available()) > 0 && written < maxOutput;) {
			float *at = output + written;
			written += stretcher.retrieve(&at, std::min(std::size_t(ready), maxOutput - written));
		}
		return written;
	}

private:
	RubberBand::RubberBandStretcher stretcher;
};
#endif

#if LUMBREL_BENCH_SOUNDTOUCH
class SoundTouchShifter final : public Shifter {
public:
	explicit SoundTouchShifter(double semitones) {
		touch.setSampleRate(unsigned(rate));
		touch.setChannels(1);
		touch.setPitchSemiTones(semitones);
	}
	std::size_t process(const float *input, std::size_t frames, float *output) override {
		touch.putSamples(input, unsigned(frames));
		return touch.receiveSamples(output, unsigned(maxOutput));
	}

private:
	soundtouch::SoundTouch touch;
};
#endif

// What a host plays: the output behind the shortest FIFO that never runs dry.
Signal hostOutput(Shifter &shifter, const Signal &input) {
	Signal produced, scratch(maxOutput);
	std::size_t fifo = 0;
	for (std::size_t start = 0; start < input.size(); start += block) {
		const std::size_t n = std::min(block, input.size() - start);
		const std::size_t written = shifter.process(input.data() + start, n, scratch.data());
		produced.insert(produced.end(), scratch.begin(), scratch.begin() + std::ptrdiff_t(written));
		if (start + n > produced.size()) fifo = std::max(fifo, start + n - produced.size());
	}
	Signal output(input.size(), 0.0f);
	for (std::size_t i = fifo; i < output.size() && i - fifo < produced.size(); ++i) output[i] = produced[i - fifo];
	return output;
}

// Start of a tone switched on after silence: where the power over centred
// 20 ms windows first reaches half its level `steadyPower`.
double halfPowerTime(const Signal &x, double steadyPower) {
	const std::size_t half = std::size_t(0.01 * rate);
	std::vector<double> sum(x.size() + 1, 0.0);
	for (std::size_t i = 0; i < x.size(); ++i) sum[i + 1] = sum[i] + double(x[i]) * x[i];
	for (std::size_t i = half; i + half < x.size(); ++i) {
		if ((sum[i + half] - sum[i - half]) / double(2 * half) >= 0.5 * steadyPower) return double(i);
	}
	return double(x.size());
}

// The delay of an expected-frequency curve: hz(t) of the input, delayed and scaled.
std::vector<double> shiftedHz(const std::vector<double> &inputHz, double ratio, std::size_t delay) {
	std::vector<double> out(inputHz.size());
	for (std::size_t i = 0; i < out.size(); ++i) out[i] = ratio * inputHz[i >= delay ? i - delay : 0];
	return out;
}

// Normalised autocorrelation peak of a frame within a lag range: voicing.
double periodicity(const Signal &x, std::size_t from, std::size_t length, std::size_t minLag, std::size_t maxLag) {
	double best = 0;
	for (std::size_t lag = minLag; lag <= maxLag; ++lag) {
		double xy = 0, xx = 0, yy = 0;
		for (std::size_t i = from; i < from + length; ++i) {
			xy += double(x[i]) * x[i + lag];
			xx += double(x[i]) * x[i];
			yy += double(x[i + lag]) * x[i + lag];
		}
		best = std::max(best, xy / std::sqrt(xx * yy + 1e-30));
	}
	return best;
}

// Speech from espeak-ng, at 48 kHz; empty when the program is not there.
Signal speech() {
	const std::string path = "/tmp/lumbrel_quality_speech.wav";
	const std::string command = "espeak-ng -v en -s 140 -w " + path
		+ " 'The quick brown fox jumps over the lazy dog, and sings a long low note.' 2>/dev/null";
	if (std::system(command.c_str()) != 0) return {};
	std::ifstream file(path, std::ios::binary);
	std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
	std::remove(path.c_str());
	if (bytes.size() < 44) return {};
	auto read32 = [&](std::size_t at) { return std::uint32_t(std::uint8_t(bytes[at])) | std::uint32_t(std::uint8_t(bytes[at + 1])) << 8
		| std::uint32_t(std::uint8_t(bytes[at + 2])) << 16 | std::uint32_t(std::uint8_t(bytes[at + 3])) << 24; };
	const double sourceRate = read32(24);
	// Find the data chunk.
	std::size_t at = 12;
	while (at + 8 <= bytes.size() && std::string(&bytes[at], 4) != "data") at += 8 + read32(at + 4);
	if (at + 8 > bytes.size()) return {};
	std::vector<double> source;
	for (std::size_t i = at + 8; i + 1 < bytes.size(); i += 2) source.push_back(double(std::int16_t(std::uint16_t(std::uint8_t(bytes[i])) | std::uint16_t(std::uint8_t(bytes[i + 1])) << 8)) / 32768.0);
	// Windowed-sinc resampling to 48 kHz, cut at the source's Nyquist.
	const double step = sourceRate / rate;
	Signal out(std::size_t(double(source.size()) / step));
	const double cutoff = std::min(1.0, 1 / step) * 0.95;
	for (std::size_t i = 0; i < out.size(); ++i) {
		const double t = double(i) * step;
		double sum = 0;
		for (long k = long(t) - 16; k <= long(t) + 16; ++k) {
			if (k < 0 || k >= long(source.size())) continue;
			const double d = t - double(k);
			const double sinc = d == 0 ? 1 : std::sin(pi * cutoff * d) / (pi * cutoff * d);
			const double w = 0.5 + 0.5 * std::cos(pi * d / 17);
			sum += source[std::size_t(k)] * cutoff * sinc * w;
		}
		out[i] = float(0.5 * sum);
	}
	return out;
}

struct Results {
	std::vector<double> spurious, floor, toneLevel, sweepUp, sweepDown, vibrato, chordMin, chordMax, hnr, echoes;
	std::vector<std::vector<double>> sineWander, sineCents, sineLevel; // [sine][shift]
};

const std::vector<double> sineHz = {110, 220, 440, 880, 1760, 3520};

// Runs every measurement for one shifter factory over the given shifts.
Results measure(const std::function<std::unique_ptr<Shifter>(double)> &make, const std::vector<double> &shifts,
	const Signal &voice) {
	Results res;
	res.sineWander.assign(sineHz.size(), {});
	res.sineCents.assign(sineHz.size(), {});
	res.sineLevel.assign(sineHz.size(), {});
	for (double semitones : shifts) {
		const double ratio = std::exp2(semitones / 12);
		std::fprintf(stderr, ".");

		// Delay: reported, or from the onset of a harmonic tone.
		const std::size_t onset = std::size_t(0.25 * rate), toneFrames = std::size_t(2.5 * rate);
		Signal tone(toneFrames, 0.0f);
		const auto harmonic = harmonicTone(220, 12, rate, toneFrames - onset, 0.03);
		std::copy(harmonic.begin(), harmonic.end(), tone.begin() + std::ptrdiff_t(onset));
		auto shifter = make(semitones);
		const Signal toneOut = hostOutput(*shifter, tone);
		constexpr std::size_t window = 32768;
		const std::size_t from = std::size_t(1.0 * rate);
		std::size_t delay;
		if (shifter->reportedLatency() >= 0) {
			delay = std::size_t(shifter->reportedLatency() * rate + 0.5);
		} else {
			const double inPower = std::pow(rms(tone, from, from + window), 2);
			const double outPower = std::pow(rms(toneOut, from, from + window), 2);
			delay = std::size_t(std::max(0.0, halfPowerTime(toneOut, outPower) - halfPowerTime(tone, inPower)));
		}

		std::vector<double> partials;
		for (int k = 1; k <= 12; ++k) partials.push_back(220 * k * ratio);
		const auto spectrum = toneSpectrum(toneOut, from, window, partials, rate);
		res.spurious.push_back(spectrum.strongestSpuriousDb);
		res.floor.push_back(spectrum.floorDb);
		res.toneLevel.push_back(dB(rms(toneOut, from, from + window) / rms(tone, from, from + window)));

		// Pure sines: 2 s, the last 1.2 s measured in frames of at least 6 cycles.
		for (std::size_t s = 0; s < sineHz.size(); ++s) {
			const std::size_t frames = std::size_t(2.0 * rate);
			const std::vector<double> hz(frames, sineHz[s]);
			const Signal in = fromPhase(phaseOf(hz, rate), 0.25);
			auto fresh = make(semitones);
			const Signal out = hostOutput(*fresh, in);
			const auto outHz = shiftedHz(hz, ratio, delay);
			const std::size_t frame = std::max<std::size_t>(std::size_t(0.02 * rate), std::size_t(6 * rate / (sineHz[s] * ratio)));
			const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(0.8 * rate), frames, frame,
				std::size_t(0.002 * rate), rate);
			res.sineWander[s].push_back(track.levelWanderDb());
			res.sineCents[s].push_back(track.centsRms());
			res.sineLevel[s].push_back(dB(track.meanAmplitude() / 0.25));
		}

		// Sweeps of half an octave per second over three octaves, 110 to 880 Hz, up and down.
		for (int direction : {1, -1}) {
			const std::vector<double> hz = glideHz(direction, 110, 880, rate);
			const std::size_t frames = hz.size();
			const Signal in = fromPhase(phaseOf(hz, rate), 0.25);
			auto fresh = make(semitones);
			const Signal out = hostOutput(*fresh, in);
			const auto outHz = shiftedHz(hz, ratio, delay);
			const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(1.0 * rate),
				std::size_t(5.75 * rate), std::size_t(0.04 * rate), std::size_t(0.002 * rate), rate);
			(direction > 0 ? res.sweepUp : res.sweepDown).push_back(track.meanCents());
		}

		// Vibrato: 440 Hz, +-50 cents at 5.5 Hz; the depth of the output's
		// vibrato from its 5.5 Hz component.
		{
			const std::size_t frames = std::size_t(3.0 * rate);
			std::vector<double> hz(frames);
			for (std::size_t i = 0; i < frames; ++i) hz[i] = 440 * std::exp2(50.0 / 1200 * std::sin(2 * pi * 5.5 * double(i) / rate));
			const Signal in = fromPhase(phaseOf(hz, rate), 0.25);
			auto fresh = make(semitones);
			const Signal out = hostOutput(*fresh, in);
			const auto outHz = shiftedHz(hz, ratio, delay);
			const std::size_t hop = std::size_t(0.001 * rate), frame = std::size_t(0.03 * rate);
			const std::size_t start = std::size_t(0.8 * rate);
			const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, start, frames, frame, hop, rate);
			double c = 0, s = 0;
			const std::size_t n = std::size_t(2.0 * 5.5) * std::size_t(rate / 5.5) / hop; // whole periods
			for (std::size_t k = 0; k < n && k < track.cents.size(); ++k) {
				const double t = double(start + (k + 1) * hop + frame / 2 - delay) / rate;
				const double measuredCents = 50 * std::sin(2 * pi * 5.5 * t) + track.cents[k];
				c += measuredCents * std::cos(2 * pi * 5.5 * t);
				s += measuredCents * std::sin(2 * pi * 5.5 * t);
			}
			res.vibrato.push_back(100 * 2 * std::hypot(c, s) / double(n) / 50);
		}

		// Chord with close partials: the level of each partial out against in.
		{
			const std::vector<double> chord = {220, 233.08, 261.63, 277.18, 329.63};
			const std::size_t frames = std::size_t(3.0 * rate);
			Signal in(frames, 0.0f);
			for (double hz : chord) {
				const auto part = sine(hz, rate, frames, 0.08);
				for (std::size_t i = 0; i < frames; ++i) in[i] += part[i];
			}
			auto fresh = make(semitones);
			const Signal out = hostOutput(*fresh, in);
			std::vector<double> shifted;
			for (double hz : chord) shifted.push_back(hz * ratio);
			const auto chordSpectrum = toneSpectrum(out, std::size_t(0.5 * rate), 65536, shifted, rate);
			double lo = 1e9, hi = -1e9;
			for (double a : chordSpectrum.partialAmplitude) {
				lo = std::min(lo, dB(a / 0.08));
				hi = std::max(hi, dB(a / 0.08));
			}
			res.chordMin.push_back(lo);
			res.chordMax.push_back(hi);
		}

		// Clicks: 20 single-sample clicks 200 ms apart. A click echoes when its
		// output's 1 ms level, having fallen 20 dB below its peak, comes back
		// above that mark 5 ms or more after the peak.
		{
			const std::size_t spacing = std::size_t(0.2 * rate), frames = 21 * spacing;
			Signal in(frames, 0.0f);
			for (int k = 1; k <= 20; ++k) in[std::size_t(k) * spacing] = 0.5f;
			auto fresh = make(semitones);
			const Signal out = hostOutput(*fresh, in);
			const std::size_t ms = std::size_t(rate / 1000);
			int echoes = 0;
			for (int k = 1; k <= 20; ++k) {
				const std::size_t begin = std::size_t(k) * spacing - 20 * ms;
				std::vector<double> level;
				for (std::size_t at = begin; at + ms <= begin + spacing; at += ms) level.push_back(rms(out, at, at + ms));
				const std::size_t top = std::size_t(std::max_element(level.begin(), level.end()) - level.begin());
				bool fell = false, back = false;
				for (std::size_t j = top + 1; j < level.size(); ++j) {
					const bool below = level[j] < 0.1 * level[top];
					if (below) fell = true;
					if (fell && !below && j >= top + 5) back = true;
				}
				echoes += back ? 1 : 0;
			}
			res.echoes.push_back(echoes);
		}

		// Speech: mean harmonics-to-noise ratio of voiced 40 ms frames, out against in.
		if (!voice.empty()) {
			auto fresh = make(semitones);
			const Signal out = hostOutput(*fresh, voice);
			const std::size_t length = std::size_t(0.04 * rate);
			const double peak = rms(voice, 0, voice.size()) * 3;
			double inSum = 0, outSum = 0;
			int count = 0;
			for (std::size_t at = 0; at + delay + 2 * length + std::size_t(rate / 35) < voice.size(); at += length) {
				if (rms(voice, at, at + length) < 0.1 * peak) continue;
				const double inR = periodicity(voice, at, length, std::size_t(rate / 400), std::size_t(rate / 70));
				if (inR < 0.6) continue;
				const double outR = std::min(0.999,
					periodicity(out, at + delay, length, std::size_t(rate / 400 / ratio), std::size_t(rate / 70 / ratio)));
				inSum += 10 * std::log10(std::min(0.999, inR) / (1 - std::min(0.999, inR)));
				outSum += 10 * std::log10(std::max(outR, 1e-3) / (1 - outR));
				++count;
			}
			res.hnr.push_back(count ? (outSum - inSum) / count : 0);
		}
	}
	return res;
}

std::string cell(const std::vector<double> &values, const char *format) {
	std::string s;
	char text[32];
	for (std::size_t i = 0; i < values.size(); ++i) {
		std::snprintf(text, sizeof text, format, values[i]);
		s += (i ? " / " : "") + std::string(text);
	}
	return s.empty() ? "-" : s;
}

} // namespace

int main() {
	if (!loadedBundle()) return 1;
	const Signal voice = speech();
	if (voice.empty()) std::fprintf(stderr, "lumbrel_quality_bench: espeak-ng not found, the speech row is left out\n");
	const std::vector<double> pitchShifts = {5, 12, -7, -12}, octaveShifts = {-12, 12};

	struct Column {
		std::string name;
		Results results;
	};
	std::vector<Column> columns;
	std::fprintf(stderr, "measuring");
	columns.push_back({"Lumbrel pitch shifter", measure([](double semitones) -> std::unique_ptr<Shifter> {
		return std::make_unique<LumbrelShifter>("varkesh.lumbrel.pitch-shifter-layer1",
			std::vector<std::pair<clap_id, double>>{{paramId({"peakShifterConfig", "semitones"}), semitones}});
	}, pitchShifts, voice)});
	columns.push_back({"Lumbrel octaver (-12 / +12)", measure([](double semitones) -> std::unique_ptr<Shifter> {
		const bool down = semitones < 0;
		return std::make_unique<LumbrelShifter>("varkesh.lumbrel.octaver",
			std::vector<std::pair<clap_id, double>>{{paramId({"octaves", "gainD1"}), down ? 1.0 : 0.0},
				{paramId({"octaves", "gainU1"}), down ? 0.0 : 1.0}, {paramId({"mix"}), 1.0}});
	}, octaveShifts, voice)});
#if LUMBREL_BENCH_RUBBERBAND
	columns.push_back({"Rubber Band R3", measure([](double semitones) -> std::unique_ptr<Shifter> {
		return std::make_unique<RubberBandShifter>(semitones);
	}, pitchShifts, voice)});
#endif
#if LUMBREL_BENCH_SOUNDTOUCH
	columns.push_back({"SoundTouch", measure([](double semitones) -> std::unique_ptr<Shifter> {
		return std::make_unique<SoundTouchShifter>(semitones);
	}, pitchShifts, voice)});
#endif
	std::fprintf(stderr, "\n");

	std::printf("| Measurement (shift +5 / +12 / -7 / -12 semitones; octaver -12 / +12) |");
	for (const auto &c : columns) std::printf(" %s |", c.name.c_str());
	std::printf("\n|---|");
	for (std::size_t i = 0; i < columns.size(); ++i) std::printf("---|");
	std::printf("\n");
	auto row = [&](const std::string &label, const std::function<std::vector<double>(const Results &)> &pick, const char *format) {
		std::printf("| %s |", label.c_str());
		for (const auto &c : columns) std::printf(" %s |", cell(pick(c.results), format).c_str());
		std::printf("\n");
	};
	row("220 Hz harmonic tone, strongest spurious component, dB re top partial", [](const Results &r) { return r.spurious; }, "%.0f");
	row("220 Hz harmonic tone, noise + distortion floor, dB", [](const Results &r) { return r.floor; }, "%.0f");
	row("220 Hz harmonic tone, output level re input, dB", [](const Results &r) { return r.toneLevel; }, "%+.2f");
	for (std::size_t s = 0; s < sineHz.size(); ++s) {
		char label[96];
		std::snprintf(label, sizeof label, "sine %.0f Hz: level wander p-p, dB", sineHz[s]);
		row(label, [s](const Results &r) { return r.sineWander[s]; }, "%.1f");
		std::snprintf(label, sizeof label, "sine %.0f Hz: pitch wander rms, cents", sineHz[s]);
		row(label, [s](const Results &r) { return r.sineCents[s]; }, "%.1f");
		std::snprintf(label, sizeof label, "sine %.0f Hz: output level re input, dB", sineHz[s]);
		row(label, [s](const Results &r) { return r.sineLevel[s]; }, "%+.2f");
	}
	row("sweep up 110-880 Hz, mean signed error, cents", [](const Results &r) { return r.sweepUp; }, "%+.1f");
	row("sweep down 880-110 Hz, mean signed error, cents", [](const Results &r) { return r.sweepDown; }, "%+.1f");
	row("vibrato +-50 cents at 5.5 Hz: depth of the output's vibrato, %", [](const Results &r) { return r.vibrato; }, "%.0f");
	row("chord with close partials: weakest partial re input, dB", [](const Results &r) { return r.chordMin; }, "%+.1f");
	row("chord with close partials: strongest partial re input, dB", [](const Results &r) { return r.chordMax; }, "%+.1f");
	if (!voice.empty()) row("speech: change of harmonics-to-noise ratio, dB", [](const Results &r) { return r.hnr; }, "%+.1f");
	row("20 clicks: how many have a second burst 5 ms or more after", [](const Results &r) { return r.echoes; }, "%.0f");
	return 0;
}
