#pragma once
// The parameter groups the effects share. Each group is declared once in its
// state(): the host's list, the page and the saved state all come from it.
#include "effects/within_range.h"
#include "storage/quorl_storage.h"

namespace varkesh::lumbrel::quorl {

// Every group opens with its title and an empty description; saved states
// also carry a format version, 0.
template<class Storage>
void groupHeader(Storage &storage, const char *name) {
	storage.extra("name", name);
	storage.extra("desc", "");
	if constexpr (::quorl::storage::isSavedState<Storage>) {
		int version = 0;
		storage("version", version);
	}
}

// Settings that shape the engine; any change makes a new engine and effect.
template<class ParamRange, class ParamStepped>
struct EngineConfig {
	ParamRange latencyMs{10};
	ParamRange overlap{4};
	ParamRange resolution{20};
	ParamRange emphasis{12};
	ParamStepped iterationsLog2{2};
	ParamStepped directCopy{1};
	// No effect shows "emphasis": it stays at 12 and is neither listed nor saved.
	bool showEmphasis = false;

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Engine");
		storage.range("latencyMs", latencyMs).info("latency").range(2, 8, 15).unit("ms", 1);
		storage.range("overlap", overlap).info("overlap").range(3, 4, 6).unit("", 1);
		storage.range("resolution", resolution).info("resolution").range(5, 20, 40).unit("", 0);
		if (showEmphasis) storage.range("emphasis", emphasis).info("emphasis").range(0, 12, 24).unit("dB", 1);
		storage.stepped("iterationsLog2", iterationsLog2).info("iterations").labelsFrom(0).label("1", "2", "4", "8");
		storage.stepped("directCopy", directCopy)
			.info("direct", "higher bands can be copied directly from the FFT without further refinement")
			.labelsFrom(0)
			.label("off", "on");
	}
};

template<class ParamRange, class ParamStepped>
struct PeaksConfig {
	ParamRange smoothing{1};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Spectral peaks");
		storage.range("smoothing", smoothing).info("smoothing").range(0, 2, 10).unit("%", 1);
	}
};

template<class ParamRange, class ParamStepped>
struct SmoothedGainsConfig {
	ParamRange phaseSmoothing{1};
	ParamRange detailBoost{0.8};
	ParamRange transientReset{2};
	ParamRange transientBoost{0};
	ParamRange transientSmoothing{1};
	// No effect shows "transientSmoothing": it stays at 1.
	bool showTransientSmoothing = false;

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Output gains");
		storage.range("phaseSmoothing", phaseSmoothing).info("phase", "phase-smoothing (% resolution)").range(0, 1, 10).unit("%", 1);
		storage.range("detailBoost", detailBoost)
			.info("detail", "boost bands which might have misaligned phase")
			.range(-0.95, 0, 0.95)
			.unit("", 2);
		storage.range("transientReset", transientReset)
			.info("tr. reset", "soft-reset phase when new energy arrives")
			.range(0, 1, 4)
			.unit("", 2);
		storage.range("transientBoost", transientBoost).info("tr. boost", "extra transient boost").range(0, 1, 4).unit("", 2);
		if (showTransientSmoothing) {
			// Shares its long text with "transientReset", as shipped.
			storage.range("transientSmoothing", transientSmoothing)
				.info("tr. smooth", "soft-reset phase when new energy arrives")
				.range(0, 1, 4)
				.unit("", 2);
		}
	}

	// Copies the values into a SmoothedGains block (or anything with its
	// fields), inside the declared ranges: beyond them the smoothing divides
	// by zero or the boost runs away.
	template<class Gains>
	void copyTo(Gains &gains) const {
		gains.phaseSmoothing = float(withinRange(phaseSmoothing.value, 0, 10));
		gains.detailBoost = float(withinRange(detailBoost.value, -0.95, 0.95));
		gains.transientReset = float(withinRange(transientReset.value, 0, 4));
		gains.transientBoost = float(withinRange(transientBoost.value, 0, 4));
		gains.transientSmoothing = float(withinRange(transientSmoothing.value, 0, 4));
	}
};

template<class ParamRange, class ParamStepped>
struct PeakShifterConfig {
	ParamStepped semitones{0};
	ParamRange tonalityLimit{8000};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Transpose");
		storage.stepped("semitones", semitones).info("semitones").range(-24, 24).labelsFrom(0).label("none");
		storage.range("tonalityLimit", tonalityLimit).info("tonality limit").range(4000, 8000, 24000).unit("Hz", 0);
	}
};

template<class ParamRange, class ParamStepped>
struct TimbreConfig {
	ParamRange smoothing{1};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Timbre");
		storage.range("smoothing", smoothing).info("smoothing").range(0, 1, 2).unit("", 1);
	}
};

} // namespace varkesh::lumbrel::quorl
