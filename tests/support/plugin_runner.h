#pragma once
// Runs a plug-in of a loaded bundle over whole signals, in blocks, the way the offline render does.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace lumbrel_test {

// Loads a bundle for a test; a failure is a test failure that says why.
inline std::unique_ptr<lumbrel::host::Bundle> loadBundle(const char *path) {
	std::string error;
	auto loaded = lumbrel::host::Bundle::load(path, error);
	EXPECT_TRUE(loaded) << error;
	return loaded;
}

#ifdef LUMBREL_BUNDLE_PATH
inline std::unique_ptr<lumbrel::host::Bundle> bundle() { return loadBundle(LUMBREL_BUNDLE_PATH); }
#endif

struct PluginRunner {
	lumbrel::host::Host host;
	std::unique_ptr<lumbrel::host::Instance> instance;
	lumbrel::host::InputEvents events;
	lumbrel::host::OutputEvents out;
	PluginRunner(const lumbrel::host::Bundle &bundle, const char *id, double sampleRate = 48000, std::uint32_t maxBlock = 512) {
		instance = std::make_unique<lumbrel::host::Instance>(bundle, id, host);
		ok = instance->valid() && instance->init() && instance->activate(sampleRate, 1, maxBlock)
			&& instance->startProcessing();
		this->maxBlock = maxBlock;
	}
	bool ok = false;
	std::uint32_t maxBlock;
	// Sets a parameter by id through a value event in a short block.
	void set(clap_id id, double value) {
		events.clear();
		events.paramValue(0, id, value);
		std::vector<float> silence(1, 0.0f);
		float *channels[2] = {silence.data(), silence.data()};
		instance->process(channels, 2, channels, 2, 1, events, out);
		events.clear();
	}
	// Processes one or two input rows in blocks of at most `block` frames; returns both output rows. `beforeBlock(start,
	// end)` queues the events of the block from `start` and may end it sooner by lowering `end`.
	using BeforeBlock = std::function<void(std::size_t start, std::size_t &end)>;
	std::vector<std::vector<float>> run(const std::vector<std::vector<float>> &input, std::uint32_t block = 256,
		const BeforeBlock &beforeBlock = {}) {
		const std::size_t frames = input[0].size();
		std::vector<std::vector<float>> output(2, std::vector<float>(frames));
		std::vector<float> inL(block), inR(block), outL(block), outR(block);
		float *inputs[2] = {inL.data(), inR.data()};
		float *outputs[2] = {outL.data(), outR.data()};
		for (std::size_t start = 0, end; start < frames; start = end) {
			end = std::min<std::size_t>(start + block, frames);
			if (beforeBlock) {
				events.clear();
				beforeBlock(start, end);
			}
			const auto n = std::uint32_t(end - start);
			std::copy_n(input[0].begin() + std::ptrdiff_t(start), n, inL.begin());
			std::copy_n(input[input.size() > 1 ? 1 : 0].begin() + std::ptrdiff_t(start), n, inR.begin());
			out.clear();
			instance->process(inputs, 2, outputs, 2, n, events, out);
			std::copy_n(outL.begin(), n, output[0].begin() + std::ptrdiff_t(start));
			std::copy_n(outR.begin(), n, output[1].begin() + std::ptrdiff_t(start));
		}
		if (beforeBlock) events.clear();
		return output;
	}
};

} // namespace lumbrel_test
