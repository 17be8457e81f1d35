#pragma once
#include <cstddef>
#include <vector>

namespace quorl {

// What the host offers an effect: rate, channel layout and block size.
struct LibraryConfig {
	double sampleRate = 48000; // Hz
	std::size_t inputChannels = 2; // main input channels
	std::size_t outputChannels = 2; // main output channels
	std::vector<std::size_t> auxInputs; // channels of each auxiliary input
	std::vector<std::size_t> auxOutputs; // channels of each auxiliary output
	std::size_t maxBlockSize = 256; // largest block the host will pass

	bool operator==(const LibraryConfig &other) const {
		return sampleRate == other.sampleRate && inputChannels == other.inputChannels
			&& outputChannels == other.outputChannels && auxInputs == other.auxInputs
			&& auxOutputs == other.auxOutputs && maxBlockSize == other.maxBlockSize;
	}
	bool operator!=(const LibraryConfig &other) const { return !(*this == other); }
};

} // namespace quorl
