#pragma once
// Frequency snap: pulls every spectral peak toward the nearest notes of a
// chord shape or of the notes being played, so that any sound takes on that
// harmony. Each peak is split into two voices, one going to the best note
// above it and one to the best note below, cross-faded by how close each note
// is. Peaks high above `maxHz` are left alone.
#include "blocks/lumbrel_effect.h"
#include "blocks/peaks.h"
#include "blocks/smoothed_gains.h"
#include "effects/lumbrel_quorl.h"
#include "effects/within_range.h"
#include "engine/bump_allocator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

namespace varkesh::lumbrel {

template<class Sample>
class FrequencySnap;

// Notes are MIDI note numbers, fractions allowed. A note below a peak counts
// in every octave (a chord's pitch classes 0-11 are below every peak); a note
// above a peak counts only at its own pitch. A note's score is its distance in
// semitones over its strength, so weak notes must be nearer to win.
//
// Both voices carry their phase from frame to frame; when the nearer target
// passes from one voice to the other, each continues from the other's gain,
// so that the partial on that note keeps its phase.
//
// `snapSemitones` must be above 0 (the wrapper keeps every setting within its
// parameter's range).
template<>
class FrequencySnap<float> : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	struct SnapNote {
		float note; // MIDI note number
		float strength;
	};
	// Chord notes, held notes and the harmonics of both: 3 x (5 + 64) at most.
	static constexpr std::size_t maxSnapNotes = 3 * (5 + 64);

	BumpVector<SnapNote> snapNotes; // the targets; the owner fills them between frames
	float snapSemitones = 8; // the largest move, semitones
	float maxHz = 8000; // moves fade out from 0.8 to 1.4 times this
	Peaks<float> peaks;
	SmoothedGains<float> upGains; // the voice going to the note above
	SmoothedGains<float> downGains; // the voice going to the note below
	BumpVector<float> upHistory, downHistory; // the note each band's voice aimed at last frame

	// [set-up, allocates] Sizes every row to `bands` and reserves the notes.
	void init() {
		reserveScratch();
		peaks.init(*this);
		upGains.init(*this);
		downGains.init(*this);
		upHistory.assign(bands, -1000.0f);
		downHistory.assign(bands, 1000.0f);
		snapNotes.reserve(maxSnapNotes);
	}

	// [audio-thread] Clears the engine and every history; the histories start
	// far from any note.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		snapNotes.clear();
		std::fill(peaks.peaks.begin(), peaks.peaks.end(), Peak<float>{});
		std::fill(peaks.energyBuffer.begin(), peaks.energyBuffer.end(), 0.0f);
		for (SmoothedGains<float> *gains : {&upGains, &downGains}) {
			std::fill(gains->gainsReal.begin(), gains->gainsReal.end(), 1.0f);
			std::fill(gains->gainsImag.begin(), gains->gainsImag.end(), 0.0f);
			std::fill(gains->previousEnergy.begin(), gains->previousEnergy.end(), 0.0f);
		}
		std::fill(upHistory.begin(), upHistory.end(), -1000.0f);
		std::fill(downHistory.begin(), downHistory.end(), 1000.0f);
	}

protected:
	void onSpectrum() override {
		peaks.update(*this, true);
		const float R = snapSemitones, M = maxHz;
		const float *peakHz = peaks.hz;
		float *upRe = upGains.gainsReal.data(), *upIm = upGains.gainsImag.data(), *upHz = upGains.hz.data();
		float *downRe = downGains.gainsReal.data(), *downIm = downGains.gainsImag.data(), *downHz = downGains.hz.data();
		float *upNote = upHistory.data(), *downNote = downHistory.data();

		for (const Peak<float> &peak : peaks.peaks) {
			const float h = std::fabs(peak.hz);
			const float n = 12 * std::log2(h * 0.0022727272f + 1e-30f) + 69;
			if (h > M * 1.4f) {
				const std::size_t first = peak.start, count = peak.end - peak.start;
				spread(upRe + first, upIm + first, upHz + first, upNote + first, peakHz + first, 0.5f, 0, 0, n,
					count);
				spread(downRe + first, downIm + first, downHz + first, downNote + first, peakHz + first, 0.5f, 0, 0,
					n, count);
				continue;
			}

			float bestUp = R, bestDown = -R, scoreUp = 1e30f, scoreDown = 1e30f;
			for (const SnapNote &snap : snapNotes) {
				const float d = snap.note - n;
				const float e = d < 0 ? d - std::floor(d / 12) * 12 : d; // below: folded up into [0, 12)
				const float s = std::max(snap.strength, 1e-30f);
				const float score = std::fabs(e) / s;
				if (score < scoreUp) bestUp = e;
				if (e > d) { // folded, so its octave below the peak counts too
					const float below = e - 12, scoreBelow = std::fabs(below) / s;
					if (scoreBelow < scoreDown) {
						bestDown = below;
						scoreDown = scoreBelow;
					}
				}
				scoreUp = std::min(scoreUp, score);
			}

			float up = std::min(bestUp, R), down = std::max(bestDown, -R);
			if (h > M * 0.8f) {
				const float v = (M * 0.8f - h) / (M * 0.6f);
				up *= 1 + v;
				down *= 1 + v;
			}
			const float noteUp = n + up, noteDown = n + down;
			const float hzUp = 440 * std::exp2(noteUp / 12 - 5.75f);
			const float hzDown = 440 * std::exp2(noteDown / 12 - 5.75f);
			const float thetaUp = (hzUp - peak.hz) * 6.2831855f / subRate;
			const float thetaDown = (hzDown - peak.hz) * 6.2831855f / subRate;

			// Whichever voice aimed nearest last frame to the nearer target
			// continues from its own gain; otherwise the voices swap.
			const std::size_t k = peak.peakIndex;
			float p, q;
			if (std::fabs(up) >= std::fabs(down)) {
				p = std::fabs(noteDown - upNote[k]);
				q = std::fabs(noteDown - downNote[k]);
			} else {
				p = std::fabs(noteUp - downNote[k]);
				q = std::fabs(noteUp - upNote[k]);
			}
			const bool own = p >= q;
			float gainUpRe, gainUpIm, gainDownRe, gainDownIm;
			rotateUnit(own ? upRe[k] : downRe[k], own ? upIm[k] : downIm[k], thetaUp, 0.70710677f, gainUpRe, gainUpIm);
			rotateUnit(own ? downRe[k] : upRe[k], own ? downIm[k] : upIm[k], thetaDown, -0.70710677f, gainDownRe,
				gainDownIm);

			// A voice fades as its note is far, relative to the range, and as the
			// other voice's note scores better.
			// (The floor keeps two zero scores, from an infinite velocity, from 0/0.)
			const float a = smoothstep(scoreUp / (scoreUp + scoreDown + 1e-30f)); // the down voice's share
			const float b = 1 - a;
			const float u = smoothstep(b * (1 - up / R));
			const float v = smoothstep(a * (1 + down / R));
			const float upLevel = (2 - u) * u, downLevel = (2 - v) * v;
			gainUpRe *= upLevel;
			gainUpIm *= upLevel;
			gainDownRe *= downLevel;
			gainDownIm *= downLevel;

			const std::size_t first = peak.start, count = peak.end - peak.start;
			spread(upRe + first, upIm + first, upHz + first, upNote + first, peakHz + first, gainUpRe, gainUpIm,
				hzUp - h, noteUp, count);
			spread(downRe + first, downIm + first, downHz + first, downNote + first, peakHz + first, gainDownRe,
				gainDownIm, hzDown - h, noteDown, count);
		}

		SmoothedGains<float> *const sets[] = {&upGains, &downGains};
		SmoothedGains<float>::smoothAll(*this, peaks.energy, false, sets, 2);
		for (std::size_t o = 0; o < channelsOut; ++o) {
			const std::size_t i = o % channelsIn;
			upGains.addOutput(*this, o, inputReal(i), inputImag(i));
			downGains.addOutput(*this, o, inputReal(i), inputImag(i));
		}
	}

private:
	// One voice's gain, frequency (the band's own moved by `move`) and note
	// written to `count` bands of a peak. Unaliased, so that no overlap test
	// runs per peak and voice.
	static void spread(float *__restrict re, float *__restrict im, float *__restrict hz, float *__restrict note,
		const float *__restrict peakHz, float gainRe, float gainIm, float move, float target, std::size_t count) {
		for (std::size_t b = 0; b < count; ++b) {
			re[b] = gainRe;
			im[b] = gainIm;
			hz[b] = peakHz[b] + move;
			note[b] = target;
		}
	}

	static float smoothstep(float x) { return x * x * (3 - 2 * x); }

	// (re, im) rotated by theta and set to magnitude 1. A gain that has died
	// away (or is not a number) restarts at 45 degrees, `side` giving the sign
	// of its imaginary part, so that the two voices start a right angle apart.
	static void rotateUnit(float re, float im, float theta, float side, float &outRe, float &outIm) {
		const float c = std::cos(theta), s = std::sin(theta);
		outRe = re * c - im * s;
		outIm = im * c + re * s;
		const float norm = outRe * outRe + outIm * outIm;
		if (norm > 1e-30f) {
			const float root = std::sqrt(norm);
			outRe /= root;
			outIm /= root;
		} else {
			outRe = 0.70710677f;
			outIm = side;
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct ChordConfig {
	ParamStepped baseNote{9};
	ParamStepped mode{1};
	ParamRange snapSemitones{8};
	ParamRange maxHz{8000};
	ParamRange hz3{600};
	ParamRange hz5{2000};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Chord");
		storage.stepped("baseNote", baseNote)
			.info("base note")
			.labelsFrom(0)
			.label("C", "C#/Db", "D", "D#/Eb", "E", "F", "F#/Gb", "G", "G#/Ab", "A", "A#/Bb", "B");
		storage.stepped("mode", mode)
			.info("mode")
			.labelsFrom(0)
			.label("none", "octave", "fifths", "major", "minor", "pentatonic");
		storage.range("snapSemitones", snapSemitones).info("range").range(1, 6, 24).unit("s.t.", 1);
		storage.range("maxHz", maxHz).info("max").range(4000, 8000, 16000).unit("Hz", 0);
		storage.range("hz3", hz3).info("harm-3").range(300, 2000, 8000).unit("Hz", 0);
		storage.range("hz5", hz5).info("harm-5").range(1000, 6000, 16000).unit("Hz", 0);
	}
};

} // namespace quorl

// The one effect with a note input. The plug-in's event loop hands it note
// events through noteStart/noteEnd before the block they belong to, with
// offsets counted from that block's first sample; the block is then run in
// pieces cut where a note starts or ends, so that each spectrum frame hears
// exactly the notes held at its own sample.
template<class Base>
struct FrequencySnapQUORL : quorl::LumbrelQUORL<Base, FrequencySnap<float>, FrequencySnapQUORL<Base>> {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;
	using SnapNote = FrequencySnap<float>::SnapNote;

	// The note input port that the plug-in reports.
	static constexpr std::uint32_t noteInputId = 0xC0DEBA55;
	static constexpr const char *noteInputName = "notes";
	// Notes held or ended in one block; more are dropped rather than allocate.
	static constexpr std::size_t noteCapacity = 64;

	// One note event. `startSample` and `endSample` count from the present
	// block's first sample; a held note is carried into the next block with
	// `startSample` 0, an ended one is not.
	struct NoteEvent {
		std::int64_t id; // note id, or -1 - key - channel * 128 without one
		float note; // MIDI note number
		float strength; // velocity, 0 to 1
		std::uint64_t startSample;
		std::int64_t endSample; // -1 while held
	};

	struct ChordShape {
		int count;
		int intervals[5]; // semitones above the base note
	};
	// Indexed by "mode".
	static constexpr ChordShape chordShapes[] = {
		{0, {}}, // none
		{1, {0}}, // octave
		{2, {0, 7}}, // fifths
		{3, {0, 4, 7}}, // major
		{3, {0, 3, 7}}, // minor
		{5, {0, 2, 4, 7, 9}}, // pentatonic
	};

	ParamStepped channelMode{1}; // 0: input 0 alone feeds every output; 1: each channel its own
	quorl::PeaksConfig<ParamRange, ParamStepped> peaksConfig;
	quorl::SmoothedGainsConfig<ParamRange, ParamStepped> gainsConfig;
	quorl::ChordConfig<ParamRange, ParamStepped> chordConfig;
	std::vector<NoteEvent> noteEvents, carriedNotes; // this block's, and the spare for the next
	std::vector<const float *> pieceInputs; // channel pointers into the block, for a piece of it
	std::vector<float *> pieceOutputs;

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel3 (Bespoke Effect Example): Frequency Snap");
		storage("engineConfig", this->engineConfig);
		storage.stepped("channelMode", channelMode).info("channels").labelsFrom(0).label("mono", "full");
		storage("peaksConfig", peaksConfig);
		storage("gainsConfig", gainsConfig);
		storage("chordConfig", chordConfig);
	}

	bool wantsMono() const { return channelMode.value == 0; }

	// [main-thread] As many outputs as inputs, no aux ports, a fresh effect,
	// no notes, and room for the notes and pointers of a block.
	void configureQUORL(::quorl::LibraryConfig &config) {
		config.outputChannels = config.inputChannels;
		config.auxInputs.clear();
		config.auxOutputs.clear();
		this->effect.reset();
		this->getEffect(config);
		noteEvents.clear();
		carriedNotes.clear();
		noteEvents.reserve(noteCapacity);
		carriedNotes.reserve(noteCapacity);
		pieceInputs.reserve(config.inputChannels);
		pieceOutputs.reserve(config.outputChannels);
	}

	// [audio-thread] A note begins `startSample` samples into the coming block.
	void noteStart(std::uint64_t startSample, std::int64_t id, float note, float strength) {
		if (noteEvents.size() < noteEvents.capacity()) noteEvents.push_back({id, note, strength, startSample, -1});
	}

	// [audio-thread] Every held note of this id ends `endSample` samples into
	// the coming block. Notes already ended keep their end, so that a key
	// struck twice in one block ends each time at its own sample.
	void noteEnd(std::int64_t id, std::int64_t endSample) {
		for (NoteEvent &event : noteEvents) {
			if (event.id == id && event.endSample < 0) event.endSample = endSample;
		}
	}

	// Values reach the effect inside their declared ranges; the range of the
	// snap stays above 0, which the weights divide by.
	template<class Effect>
	void copyParams(Effect &fx) {
		using quorl::withinRange;
		fx.peaks.smoothing = withinRange(peaksConfig.smoothing.value, 0, 10);
		gainsConfig.copyTo(fx.upGains);
		gainsConfig.copyTo(fx.downGains);
		fx.snapSemitones = withinRange(chordConfig.snapSemitones.value, 1, 24);
		fx.maxHz = withinRange(chordConfig.maxHz.value, 4000, 16000);
	}

	// [audio-thread] The block in pieces, each with the notes held at its first
	// sample; then held notes go on to the next block and ended ones are gone.
	template<class Effect>
	void processEffect(Effect &fx, const float *const *inputs, float *const *outputs, std::size_t length) {
		std::size_t from = 0;
		while (from < length) {
			std::size_t to = length;
			for (const NoteEvent &event : noteEvents) {
				if (event.startSample > from && event.startSample < to) to = std::size_t(event.startSample);
				if (event.endSample > std::int64_t(from) && event.endSample < std::int64_t(to)) to = std::size_t(event.endSample);
			}
			collectSnapNotes(fx, from);
			if (from == 0 && to == length) {
				fx.process(inputs, outputs, length);
			} else {
				pieceInputs.clear();
				pieceOutputs.clear();
				for (std::size_t c = 0; c < fx.channelsIn; ++c) pieceInputs.push_back(inputs[c] + from);
				for (std::size_t c = 0; c < fx.channelsOut; ++c) pieceOutputs.push_back(outputs[c] + from);
				fx.process(pieceInputs.data(), pieceOutputs.data(), to - from);
			}
			from = to;
		}

		carriedNotes.clear();
		for (const NoteEvent &event : noteEvents) {
			if (event.endSample >= 0) continue;
			carriedNotes.push_back(event);
			carriedNotes.back().startSample = 0;
		}
		noteEvents.swap(carriedNotes);
	}

	// Row 0: the peak energy; rows 1 and 2: the same through the up and the
	// down voice's gains.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		const std::size_t n = std::min(fx.bands, this->analysisSpectrum.hz.size());
		float *down = this->spectrumRow(2).data(); // makes rows 0 and 1 too
		float *up = this->spectrumRow(1).data();
		float *energy = this->spectrumRow(0).data();
		const float *upRe = fx.upGains.gainsReal.data(), *upIm = fx.upGains.gainsImag.data();
		const float *downRe = fx.downGains.gainsReal.data(), *downIm = fx.downGains.gainsImag.data();
		for (std::size_t b = 0; b < n; ++b) {
			energy[b] = fx.peaks.energy[b];
			up[b] = energy[b] * (upRe[b] * upRe[b] + upIm[b] * upIm[b]);
			down[b] = energy[b] * (downRe[b] * downRe[b] + downIm[b] * downIm[b]);
		}
	}

private:
	// The targets for a piece starting `at` samples into the block: the chord
	// shape's pitch classes at strength 1, the notes held at that sample, and
	// the third and fifth harmonic of each, raised by octaves up to "hz3" and
	// "hz5", at a third and a fifth of its strength.
	template<class Effect>
	void collectSnapNotes(Effect &fx, std::size_t at) {
		auto &notes = fx.snapNotes;
		notes.clear();
		const int mode = chordConfig.mode.value;
		if (mode >= 0 && mode < int(std::size(chordShapes))) {
			const ChordShape &shape = chordShapes[mode];
			for (int i = 0; i < shape.count; ++i) {
				notes.push_back({float((shape.intervals[i] + chordConfig.baseNote.value) % 12), 1});
			}
		}
		for (const NoteEvent &event : noteEvents) {
			if (event.startSample <= at && (event.endSample < 0 || event.endSample > std::int64_t(at))) {
				notes.push_back({event.note, event.strength});
			}
		}

		const float hz3 = quorl::withinRange(chordConfig.hz3.value, 300, 8000);
		const float hz5 = quorl::withinRange(chordConfig.hz5.value, 1000, 16000);
		const std::size_t count = notes.size();
		for (std::size_t i = 0; i < count; ++i) {
			const SnapNote played = notes[i];
			const float f = std::exp2(played.note / 12 - 5.75f);
			float h3 = f * 1320, h5 = f * 2200;
			// A note so low that f is 0 would never rise.
			while (hz3 > h3 && h3 > 0) h3 *= 2;
			while (hz5 > h5 && h5 > 0) h5 *= 2;
			notes.push_back({12 * std::log2(h3 / 440 + 1e-30f) + 69, played.strength * 0.33333334f});
			notes.push_back({12 * std::log2(h5 / 440 + 1e-30f) + 69, played.strength * 0.2f});
		}
	}
};

} // namespace varkesh::lumbrel
