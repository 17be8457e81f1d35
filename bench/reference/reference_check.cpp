// Behaviour checks for optimisation work: record what the engine and the
// effects produce now, and later measure how far a changed build lands from it.
//
//   lumbrel_reference_check bands PREFIX       the engine's bands and output on a test signal
//   lumbrel_reference_check compare REF NEW    difference relative to the reference, in dB
//
// `bands` runs the engine in several settings (rates, all bands tracked, 1 and 8
// refinement rounds), stereo, in blocks of 256, with a pass-through effect, and
// writes as raw 32-bit floats, per setting: for every step and input channel
// the rows inputReal and inputImag to PREFIX-SETTING.values.f32, inputHz to
// PREFIX-SETTING.hz.f32, and the output samples to PREFIX-SETTING.output.f32. `compare` takes two
// such files, or two audio files (anything libsndfile reads), and prints the
// energy of the difference relative to the energy of the reference, overall
// and for the worst 0.1-second stretch with signal in it.
#include "engine/engine.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct Setting {
	const char *name;
	float rate;
	bool directCopy;
	std::uint64_t iterations;
};

const Setting settings[] = {
	{"48k", 48000, true, 4},
	{"44.1k", 44100, true, 4},
	{"96k", 96000, true, 4},
	{"48k-all-tracked", 48000, false, 4},
	{"48k-1-round", 48000, true, 1},
	{"48k-8-rounds", 48000, true, 8},
};

struct Recorder {
	varkesh_lumbrel_engine_float *engine = nullptr;
	std::vector<float> *values = nullptr, *hz = nullptr;
};

bool record(void *user) {
	auto *r = static_cast<Recorder *>(user);
	std::size_t bands = varkesh_lumbrel_engine_float_bands(r->engine);
	for (std::size_t c = 0; c < 2; ++c) {
		const float *rows[3] = {varkesh_lumbrel_engine_float_inputReal(r->engine, c),
			varkesh_lumbrel_engine_float_inputImag(r->engine, c), varkesh_lumbrel_engine_float_inputHz(r->engine, c)};
		r->values->insert(r->values->end(), rows[0], rows[0] + bands);
		r->values->insert(r->values->end(), rows[1], rows[1] + bands);
		r->hz->insert(r->hz->end(), rows[2], rows[2] + bands);
		varkesh_lumbrel_engine_float_addOutputSplit(r->engine, c, rows[0], rows[1]);
	}
	return false;
}

// Two seconds: partials with vibrato, a sweep, clicks, noise, then a silent gap
// (so the engine sleeps and wakes) and a low chord.
void testSignal(float rate, std::vector<float> &left, std::vector<float> &right) {
	std::size_t length = std::size_t(2 * rate);
	left.assign(length, 0);
	right.assign(length, 0);
	std::mt19937 random(7);
	std::normal_distribution<float> noise(0.0f, 0.02f);
	const double pi = 3.141592653589793;
	double sweepPhase = 0;
	for (std::size_t i = 0; i < length; ++i) {
		double t = double(i) / rate;
		double l = 0, r = 0;
		if (t < 0.9) {
			double vib = 220 * (1 + 0.01 * std::sin(2 * pi * 5 * t));
			for (int k = 1; k <= 12; ++k) l += 0.3 / k * std::sin(2 * pi * k * vib * t + k);
			sweepPhase += 2 * pi * (100 + 12000 * t / 0.9) / rate;
			r = 0.2 * std::sin(sweepPhase) + 0.5 * l;
			if (i % std::size_t(rate / 7) < 20) l += 0.8;
			l += noise(random);
			r += noise(random);
		} else if (t > 1.3) {
			for (double f : {65.4, 82.4, 98.0, 130.8}) {
				l += 0.15 * std::sin(2 * pi * f * t);
				r += 0.15 * std::cos(2 * pi * f * 1.003 * t);
			}
		}
		left[i] = float(l);
		right[i] = float(r);
	}
}

bool save(const std::string &path, const std::vector<float> &data) {
	std::FILE *file = std::fopen(path.c_str(), "wb");
	bool ok = file && std::fwrite(data.data(), sizeof(float), data.size(), file) == data.size();
	if (file) ok = std::fclose(file) == 0 && ok;
	if (!ok) std::fprintf(stderr, "lumbrel_reference_check: cannot write %s\n", path.c_str());
	return ok;
}

int bands(const std::string &prefix) {
	for (std::size_t n = 0; n < sizeof settings / sizeof settings[0]; ++n) {
		const Setting &s = settings[n];
		std::vector<float> values, hz, out;
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.directCopy = s.directCopy;
		config.iterations = s.iterations;
		Recorder recorder;
		recorder.engine = varkesh_lumbrel_engine_float_new(2, 2, s.rate, &config);
		recorder.values = &values;
		recorder.hz = &hz;
		varkesh_lumbrel_engine_float_setCallbacks(recorder.engine, &recorder, record, nullptr);
		varkesh_lumbrel_engine_float_reset(recorder.engine);
		std::vector<float> left, right;
		testSignal(s.rate, left, right);
		std::vector<float> outLeft(left.size()), outRight(left.size());
		for (std::size_t pos = 0; pos < left.size(); pos += 256) {
			std::size_t n = std::min<std::size_t>(256, left.size() - pos);
			const float *in[2] = {left.data() + pos, right.data() + pos};
			float *o[2] = {outLeft.data() + pos, outRight.data() + pos};
			varkesh_lumbrel_engine_float_process(recorder.engine, in, o, n);
		}
		out.insert(out.end(), outLeft.begin(), outLeft.end());
		out.insert(out.end(), outRight.begin(), outRight.end());
		varkesh_lumbrel_engine_float_delete(recorder.engine);
		std::string name = prefix + "-" + s.name;
		if (!save(name + ".values.f32", values) || !save(name + ".hz.f32", hz) || !save(name + ".output.f32", out)) return 1;
	}
	return 0;
}

bool endsWith(const std::string &s, const char *tail) {
	std::size_t n = std::strlen(tail);
	return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

bool load(const std::string &path, std::vector<float> &data, std::size_t &frameSize) {
	if (endsWith(path, ".f32")) {
		std::FILE *file = std::fopen(path.c_str(), "rb");
		if (!file) return false;
		float chunk[4096];
		std::size_t n;
		while ((n = std::fread(chunk, sizeof(float), 4096, file)) > 0) data.insert(data.end(), chunk, chunk + n);
		std::fclose(file);
		frameSize = 4800; // stretches of the flat file, for the worst-stretch figure
		return true;
	}
	SF_INFO info{};
	SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
	if (!file) return false;
	data.resize(std::size_t(info.frames) * std::size_t(info.channels));
	sf_count_t got = sf_readf_float(file, data.data(), info.frames);
	sf_close(file);
	data.resize(std::size_t(got) * std::size_t(info.channels));
	frameSize = std::size_t(info.samplerate / 10) * std::size_t(info.channels);
	return got == info.frames;
}

double toDb(double ratio) { return ratio > 0 ? 10 * std::log10(ratio) : -400; }

int compare(const char *refPath, const char *newPath) {
	std::vector<float> ref, now;
	std::size_t stretch = 0, stretch2 = 0;
	if (!load(refPath, ref, stretch)) {
		std::fprintf(stderr, "lumbrel_reference_check: cannot read %s\n", refPath);
		return 1;
	}
	if (!load(newPath, now, stretch2)) {
		std::fprintf(stderr, "lumbrel_reference_check: cannot read %s\n", newPath);
		return 1;
	}
	if (ref.size() != now.size()) {
		std::fprintf(stderr, "lumbrel_reference_check: %s has %zu values, %s has %zu\n", refPath, ref.size(), newPath,
			now.size());
		return 1;
	}
	double signal = 0, diff = 0, peak = 0;
	std::size_t nonFinite = 0;
	std::vector<double> stretchSignal, stretchDiff;
	for (std::size_t start = 0; start < ref.size(); start += stretch) {
		double s = 0, d = 0;
		for (std::size_t i = start, end = std::min(ref.size(), start + stretch); i < end; ++i) {
			if (!std::isfinite(now[i]) || !std::isfinite(ref[i])) {
				nonFinite += std::isfinite(now[i]) != std::isfinite(ref[i]);
				continue;
			}
			s += double(ref[i]) * ref[i];
			double e = double(now[i]) - ref[i];
			d += e * e;
			peak = std::max(peak, std::fabs(e));
		}
		signal += s;
		diff += d;
		stretchSignal.push_back(s);
		stretchDiff.push_back(d);
	}
	// Stretches more than 60 dB below the loudest are a tail or a gap, not signal.
	double loudest = *std::max_element(stretchSignal.begin(), stretchSignal.end()), worst = -400;
	for (std::size_t i = 0; i < stretchSignal.size(); ++i) {
		if (stretchSignal[i] > 1e-6 * loudest) worst = std::max(worst, toDb(stretchDiff[i] / stretchSignal[i]));
	}
	double overall = toDb(diff / std::max(signal, 1e-300));
	std::printf("%-34s overall %7.1f dB, worst stretch %7.1f dB, largest sample difference %.3g%s\n",
		std::strrchr(newPath, '/') ? std::strrchr(newPath, '/') + 1 : newPath, overall, worst, peak,
		nonFinite ? " (NaN or infinity differs)" : "");
	return nonFinite ? 2 : 0;
}

} // namespace

int main(int argc, char **argv) {
	if (argc == 3 && std::string(argv[1]) == "bands") return bands(argv[2]);
	if (argc == 4 && std::string(argv[1]) == "compare") return compare(argv[2], argv[3]);
	std::fprintf(stderr, "usage: lumbrel_reference_check bands OUT.f32 | compare REFERENCE NEW\n");
	return 1;
}
