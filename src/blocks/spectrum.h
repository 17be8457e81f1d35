#pragma once
#include <vector>

namespace varkesh::lumbrel::quorl {

// What the page plots: energy per band, one row per trace, and the bands'
// centre frequencies, which go out only once after each rebuild.
struct Spectrum {
	std::vector<std::vector<float>> energy;
	bool hzChanged = true;
	std::vector<float> hz;

	// Written for the page; never read from it (the audio thread owns the rows).
	template<class Storage>
	void state(Storage &storage) {
		if constexpr (Storage::isWriter) {
			if (hzChanged) {
				storage.extra("$type", "Spectrum");
				storage("hz", hz);
				hzChanged = false;
			}
			storage("energy", energy);
		}
	}
};

} // namespace varkesh::lumbrel::quorl
