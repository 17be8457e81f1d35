#pragma once
// Stand-in for effects that aren't built yet: copies each input channel to the
// output channel of the same index and silences outputs without an input.
#include "frame/library_config.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace varkesh::lumbrel {

template<class Base>
struct PassThroughQUORL : Base {
	template<class Storage>
	void state(Storage &) {}

	void configureQUORL(::quorl::LibraryConfig &) {}
	void reset() {}
	std::size_t latencySamples() const { return 0; }

	void processQUORL(const ::quorl::LibraryConfig &config, const float *const *inputs, float *const *outputs,
		std::size_t length, bool) {
		for (std::size_t c = 0; c < config.outputChannels; ++c) {
			if (c < config.inputChannels) {
				if (outputs[c] != inputs[c]) std::memmove(outputs[c], inputs[c], length * sizeof(float));
			} else {
				std::fill(outputs[c], outputs[c] + length, 0.0f);
			}
		}
	}
};

} // namespace varkesh::lumbrel
