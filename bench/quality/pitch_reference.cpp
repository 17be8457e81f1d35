// A reference of the pitch path in double precision, written from the blocks'
// design as first laid down (peaks cut from the energy curve with the
// analysis' frequency row, one shift and one rotated gain per peak written to
// its bands at their measured frequency plus the shift, the gain smoothing,
// and the values placed between two bins), run beside the product on the
// same band values from the same engine.
//
// Two things come out:
// - stage by stage, per frame, how far the product's peaks, shifts, gains and
//   output frequencies are from the reference's on the same input;
// - the sound of three paths, each through its own engine: the reference as
//   designed, the reference with the product's frequency row (the phase step
//   of smoothed band values), and the product. A gap that the reference
//   shares is the design's; one the product alone has is the implementation's.
//
//   lumbrel_pitch_reference [SEMITONES ...]        (default: 5 12 -7 -12)
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "support/quality_measures.h"
#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace varkesh::lumbrel;
using namespace lumbrel_test;

namespace {

constexpr double rate = 48000;
constexpr std::size_t delay = 480; // the engine's 10 ms

// The band smoothing of the gains and peaks: a one-pole recursion backward
// from the last band down to band 1, then forward over every band.
void smoothBands(std::vector<double> &x, double width) {
	const std::size_t n = x.size();
	if (!(width > 1e-18) || n == 0) return;
	const double a = 1 / (width + 1), b = 1 - a;
	double s = x[n - 1];
	for (std::size_t i = n - 1; i-- > 1;) x[i] = s = x[i] * a + s * b;
	for (std::size_t i = 0; i < n; ++i) x[i] = s = x[i] * a + s * b;
}

struct RefPeak {
	std::size_t start, end, top;
	double energy, hz;
};

// The pitch path in double precision, with the settings of the pitch
// shifter's defaults.
struct Reference {
	double semitones = 0, tonalityLimit = 8000;
	double peaksSmoothing = 1;                                    // percent of resolution
	double phaseSmoothing = 1, detailBoost = 0.8, transientReset = 2, transientBoost = 0, transientSmoothing = 1;
	std::size_t n = 0;
	double subRate = 0, resolution = 0, lowCutBands = 0;
	std::vector<double> energy, hz, gainRe, gainIm, outHz, previousEnergy;
	std::vector<RefPeak> peaks;

	void init(LumbrelEffect<float> &fx) {
		n = fx.bands;
		subRate = fx.subRate;
		resolution = fx.resolution;
		lowCutBands = fx.nominalBand(120);
		energy.assign(n, 0);
		hz.assign(n, 0);
		gainRe.assign(n, 1);
		gainIm.assign(n, 0);
		previousEnergy.assign(n, 0);
		outHz.resize(n);
		for (std::size_t b = 0; b < n; ++b) outHz[b] = fx.nominalHz(b);
	}

	// Peaks: energy and frequency curves, smoothed, energy-weighted, and the walk.
	void updatePeaks(const float *re, const float *im, const float *frequency) {
		for (std::size_t b = 0; b < n; ++b) energy[b] = double(re[b]) * re[b] + double(im[b]) * im[b] + 1e-30;
		const double w = peaksSmoothing * 0.01 * resolution;
		for (std::size_t b = 0; b < n; ++b) hz[b] = double(frequency[b]) * energy[b];
		smoothBands(energy, w);
		smoothBands(hz, w);
		for (std::size_t b = 0; b < n; ++b) hz[b] /= energy[b] + 1e-30;
		peaks.clear();
		for (std::size_t s = 0; s < n;) {
			std::size_t i = s;
			while (i + 1 < n && energy[i + 1] >= energy[i]) ++i;
			const std::size_t top = i;
			std::size_t end = n;
			for (; i + 1 < n; ++i) {
				if (energy[i + 1] > energy[i]) {
					end = (i + 1 >= 3 && energy[i + 1] > energy[i - 1]) ? i : i + 1;
					break;
				}
			}
			double sum = 0, weighted = 0;
			for (std::size_t b = s; b < end; ++b) {
				sum += energy[b];
				weighted += energy[b] * hz[b];
			}
			peaks.push_back({s, end, top, sum, weighted / (sum + 1e-30)});
			s = end;
		}
	}

	double map(double f) const {
		const double r = std::exp2(semitones / 12);
		const double low = tonalityLimit / std::sqrt(r);
		const double high = std::max(tonalityLimit * std::max(r, 1 / r) + tonalityLimit, 15000.0);
		if (f < low) return f * r;
		if (f > high) return f;
		return (f - low) * (high - low * r) / (high - low) + low * r;
	}

	// Peak shifter: per peak the shift, last frame's gain at its top rotated by
	// the shift's phase per frame and set to magnitude 1, written to its bands
	// with their measured frequency plus the shift.
	void shift() {
		for (const RefPeak &p : peaks) {
			const double delta = map(p.hz) - p.hz;
			const double theta = delta * 2 * M_PI / subRate;
			const double a = gainRe[p.top], b = gainIm[p.top];
			double re = a * std::cos(theta) - b * std::sin(theta), im = b * std::cos(theta) + a * std::sin(theta);
			const double norm = re * re + im * im;
			if (norm >= 1e-30) {
				re /= std::sqrt(norm);
				im /= std::sqrt(norm);
			} else {
				re = 1;
				im = 0;
			}
			for (std::size_t k = p.start; k < p.end; ++k) {
				gainRe[k] = re;
				gainIm[k] = im;
				outHz[k] = hz[k] + delta;
			}
		}
	}

	// Smoothed gains: transient measure, phase pull, energy-weighted smoothing
	// in the complex plane, magnitude restore and detail boost.
	void smooth() {
		std::vector<double> B(n), A(energy), T(n), E(n), F(n), G(n), H(n);
		for (std::size_t i = 0; i < n; ++i) B[i] = std::hypot(gainRe[i], gainIm[i]);
		for (std::size_t i = 0; double(i) < lowCutBands; ++i) {
			const double x = std::max(2 * double(i) / lowCutBands - 1, 0.0);
			A[i] *= x * x;
		}
		if (transientSmoothing > 0) {
			smoothBands(A, resolution * transientSmoothing);
			for (double &a : A) a = std::max(a, 0.0);
		}
		for (std::size_t i = 0; i < n; ++i) {
			const double t = std::max(0.0, A[i] - previousEnergy[i]) / (A[i] + 1e-30);
			T[i] = t * t;
		}
		previousEnergy.swap(A);
		const double kappa = transientReset * detailBoost / (transientReset + 1);
		if (detailBoost != 0) {
			for (std::size_t i = 0; i < n; ++i) B[i] += T[i] * (B[i] - gainRe[i]) * kappa;
		}
		if (transientBoost != 0) {
			for (std::size_t i = 0; i < n; ++i) B[i] *= 1 + T[i] * transientBoost;
		}
		for (std::size_t i = 0; i < n; ++i) {
			const double pull = T[i] * transientReset * B[i];
			E[i] = (gainRe[i] + pull) * energy[i];
			F[i] = energy[i] * gainIm[i];
			G[i] = std::hypot(E[i], F[i]);
		}
		const double w = phaseSmoothing * 0.01 * resolution;
		smoothBands(E, w);
		smoothBands(F, w);
		if (detailBoost != 0) smoothBands(G, w);
		const double d = detailBoost < 0 ? detailBoost / (detailBoost + 1) : detailBoost;
		for (std::size_t i = 0; i < n; ++i) {
			H[i] = std::hypot(E[i], F[i]);
			const double s = B[i] / (H[i] + 1e-15);
			gainRe[i] = s * E[i];
			gainIm[i] = s * F[i];
			if (detailBoost != 0) {
				const double v = G[i] / (H[i] * d + G[i] * (1 - d) + 1e-30);
				gainRe[i] *= v;
				gainIm[i] *= v;
			}
		}
	}
};

enum class Path { reference, referenceWithStep, product };

// One pitch path over the engine; the product's blocks run in every path, so
// that the reference can be compared with them frame by frame.
class PathEffect : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;
	Path path = Path::product;
	Peaks<float> peaks;
	PeakShifter<float> shifter;
	Reference ref;
	std::vector<float> outRe, outIm, outHz;
	std::size_t frame = 0, compareFrom = 0;
	// Stage differences between product and reference, over the compared frames:
	// the strongest peak's frequency (cents) and shift (Hz), the phase of the
	// gain at its top (radians) and its output frequency (Hz), rms; and how
	// often the strongest peak's band range differs.
	double hzSq = 0, shiftSq = 0, phaseSq = 0, outHzSq = 0;
	std::size_t compared = 0, rangeDiffers = 0;

	void init(double semitones) {
		reserveScratch();
		peaks.init(*this);
		shifter.gains.init(*this);
		shifter.semitones = float(semitones);
		shifter.tonalityLimit = 8000;
		shifter.gains.transientReset = 2;
		std::fill(shifter.gains.gainsReal.begin(), shifter.gains.gainsReal.end(), 1.0f);
		ref.init(*this);
		ref.semitones = semitones;
		outRe.resize(bands);
		outIm.resize(bands);
		outHz.resize(bands);
	}

	void onSpectrum() override {
		const float *re = inputReal(0), *im = inputImag(0);
		peaks.update(*this, true);
		shifter.update(*this, peaks);
		ref.updatePeaks(re, im, path == Path::reference ? inputHz(0) : peaks.hz);
		ref.shift();
		ref.smooth();
		if (++frame > compareFrom) compare();
		if (path == Path::product) {
			shifter.gains.addOutput(*this, 0, re, im, 1);
			return;
		}
		for (std::size_t b = 0; b < bands; ++b) {
			outRe[b] = float(re[b] * ref.gainRe[b] - im[b] * ref.gainIm[b]);
			outIm[b] = float(re[b] * ref.gainIm[b] + im[b] * ref.gainRe[b]);
			outHz[b] = float(ref.outHz[b]);
		}
		varkesh_lumbrel_engine_float_addOutputSplitMoved(engine, 0, outRe.data(), outIm.data(), outHz.data(), bands);
	}

	void compare() {
		const auto strongest = [](const auto &list) {
			return std::max_element(list.begin(), list.end(), [](const auto &a, const auto &b) { return a.energy < b.energy; });
		};
		const auto p = strongest(peaks.peaks);
		const auto r = strongest(ref.peaks);
		const double cents = 1200 * std::log2(double(p->hz) / r->hz);
		const double productShift = double(shifter.pitchMap()(p->hz)) - p->hz, refShift = ref.map(r->hz) - r->hz;
		const auto &g = shifter.gains;
		const double phase = std::remainder(std::atan2(g.gainsImag[p->peakIndex], g.gainsReal[p->peakIndex])
			- std::atan2(ref.gainIm[p->peakIndex], ref.gainRe[p->peakIndex]), 2 * M_PI);
		const double hzOut = double(g.hz[p->peakIndex]) - ref.outHz[p->peakIndex];
		hzSq += cents * cents;
		shiftSq += (productShift - refShift) * (productShift - refShift);
		phaseSq += phase * phase;
		outHzSq += hzOut * hzOut;
		rangeDiffers += (p->start != r->start || p->end != r->end) ? 1 : 0;
		++compared;
	}
};

struct Sound {
	double level, wander, centsRms, sweepUp, sweepDown, toneSpurious, toneLevel;
	double hzRms, shiftRms, phaseRms, outHzRms, rangeShare; // stage differences on the sine
};

std::vector<float> run(PathEffect &fx, const std::vector<float> &in) {
	std::vector<float> out(in.size());
	for (std::size_t at = 0; at < in.size(); at += 256) {
		const float *i[1] = {in.data() + at};
		float *o[1] = {out.data() + at};
		fx.process(i, o, std::min<std::size_t>(256, in.size() - at));
	}
	return out;
}

std::unique_ptr<PathEffect> make(Path path, double semitones, std::size_t compareFrom) {
	auto fx = std::make_unique<PathEffect>(1, 1, float(rate), varkesh_lumbrel_config_default());
	fx->path = path;
	fx->init(semitones);
	fx->compareFrom = compareFrom;
	return fx;
}

Sound measure(Path path, double sineHz, double semitones) {
	Sound s{};
	const double ratio = std::exp2(semitones / 12);
	{
		const std::size_t frames = std::size_t(2.0 * rate);
		const std::vector<double> hz(frames, sineHz);
		auto fx = make(path, semitones, 320); // from 0.8 s
		const auto out = run(*fx, fromPhase(phaseOf(hz, rate), 0.25));
		std::vector<double> outHz(frames, sineHz * ratio);
		const std::size_t frame = std::max<std::size_t>(std::size_t(0.02 * rate), std::size_t(6 * rate / (sineHz * ratio)));
		const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(0.8 * rate), frames, frame,
			std::size_t(0.002 * rate), rate);
		s.level = dB(track.meanAmplitude() / 0.25);
		s.wander = track.levelWanderDb();
		s.centsRms = track.centsRms();
		const double count = double(std::max<std::size_t>(fx->compared, 1));
		s.hzRms = std::sqrt(fx->hzSq / count);
		s.shiftRms = std::sqrt(fx->shiftSq / count);
		s.phaseRms = std::sqrt(fx->phaseSq / count);
		s.outHzRms = std::sqrt(fx->outHzSq / count);
		s.rangeShare = 100 * double(fx->rangeDiffers) / count;
	}
	if (sineHz == 220) {
		// The 220 Hz harmonic tone, as the quality benchmark measures it.
		const std::size_t frames = std::size_t(2.5 * rate), from = std::size_t(1.0 * rate), length = 32768;
		const auto in = harmonicTone(220, 12, rate, frames, 0.03);
		auto fx = make(path, semitones, std::size_t(-1));
		const auto out = run(*fx, in);
		std::vector<double> partials;
		for (int k = 1; k <= 12; ++k) partials.push_back(220 * k * ratio);
		s.toneSpurious = toneSpectrum(out, from, length, partials, rate).strongestSpuriousDb;
		s.toneLevel = dB(rms(out, from, from + length) / rms(in, from, from + length));
	}
	for (int direction : {1, -1}) {
		const std::vector<double> hz = glideHz(direction, 110, 880, rate);
		const std::size_t frames = hz.size();
		auto fx = make(path, semitones, std::size_t(-1));
		const auto out = run(*fx, fromPhase(phaseOf(hz, rate), 0.25));
		std::vector<double> outHz(frames);
		for (std::size_t i = 0; i < frames; ++i) outHz[i] = ratio * hz[i >= delay ? i - delay : 0];
		const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(1.0 * rate), std::size_t(5.75 * rate),
			std::size_t(0.04 * rate), std::size_t(0.002 * rate), rate);
		(direction > 0 ? s.sweepUp : s.sweepDown) = track.meanCents();
	}
	return s;
}

} // namespace

int main(int argc, char **argv) {
	std::vector<double> shifts;
	for (int a = 1; a < argc; ++a) {
		char *end = nullptr;
		const double v = std::strtod(argv[a], &end);
		if (end == argv[a] || *end != 0 || std::fabs(v) > 24) {
			std::fprintf(stderr, "lumbrel_pitch_reference: '%s' is not a shift in semitones from -24 to 24\n", argv[a]);
			return 2;
		}
		shifts.push_back(v);
	}
	if (shifts.empty()) shifts = {5, 12, -7, -12};
	const char *names[] = {"reference, as designed", "reference, phase-step frequencies", "product"};
	std::printf("| Shift | Path | sine 110 Hz: level, dB | wander p-p, dB | pitch rms, cents | sine 220 Hz: level, dB | wander p-p, dB "
				"| pitch rms, cents | sweep up / down, cents | harmonic tone: strongest spurious, dB | level, dB |\n"
				"|---|---|---|---|---|---|---|---|---|---|---|\n");
	std::vector<Sound> stages;
	for (double semitones : shifts) {
		for (Path path : {Path::reference, Path::referenceWithStep, Path::product}) {
			std::fprintf(stderr, ".");
			const Sound low = measure(path, 110, semitones), mid = measure(path, 220, semitones);
			std::printf("| %+g | %s | %+.2f | %.2f | %.2f | %+.2f | %.2f | %.2f | %+.1f / %+.1f | %.1f | %+.2f |\n", semitones,
				names[int(path)], low.level, low.wander, low.centsRms, mid.level, mid.wander, mid.centsRms, mid.sweepUp,
				mid.sweepDown, mid.toneSpurious, mid.toneLevel);
			if (path == Path::referenceWithStep) stages.push_back(mid);
		}
	}
	std::fprintf(stderr, "\n");
	std::printf("\nStage by stage, product against the reference with the same frequency row, 220 Hz sine, rms over frames "
				"from 0.8 s:\n\n| Shift | strongest peak's frequency, cents | its shift, Hz | gain phase at its top, rad "
				"| output frequency at its top, Hz | frames whose strongest peak's bands differ, %% |\n|---|---|---|---|---|---|\n");
	for (std::size_t i = 0; i < shifts.size(); ++i) {
		const Sound &s = stages[i];
		std::printf("| %+g | %.4f | %.4f | %.4f | %.3f | %.1f |\n", shifts[i], s.hzRms, s.shiftRms, s.phaseRms, s.outHzRms,
			s.rangeShare);
	}
	return 0;
}
