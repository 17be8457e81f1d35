#pragma once
// The controls of a band envelope (blocks/envelope.h), as a parameter group.
#include "effects/parameter_groups.h"

namespace varkesh::lumbrel::quorl {

template<class ParamRange, class ParamStepped>
struct EnvelopeConfig {
	ParamRange smoothing{1}; // the Transients wrapper starts it at 0.25
	ParamRange periodMs{20};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Envelope");
		storage.range("smoothing", smoothing).info("smoothing", "spectrum smoothing").range(0, 0.5, 4).unit("", 2);
		storage.range("periodMs", periodMs).info("period").range(5, 20, 120).unit("ms", 0);
	}

	// Copies the values into an Envelope block.
	template<class Envelope>
	void copyTo(Envelope &envelope) const {
		envelope.smoothing = float(smoothing.value);
		envelope.periodMs = float(periodMs.value);
	}
};

} // namespace varkesh::lumbrel::quorl
