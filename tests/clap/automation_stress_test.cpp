// Every plug-in under abuse through the ABI: blocks of random length, random
// values on every parameter (in range, at the ends, far outside), engine changes,
// resets, state save/load and page messages, on a chord with clicks, silence and
// full-scale noise. The output stays finite and below +24 dBFS; nothing crashes.
#include "host/key_paths.h"
#include "storage/cbor_writer.h"
#include "support/plugin_runner.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <set>

using namespace lumbrel::host;

namespace {

const double positions[] = {0.0, 1.0, 0.5, -0.5, 1.5, -100.0, 100.0, 0.999};

// A merge for one parameter, as the page would send it, with a hostile value.
std::vector<unsigned char> pageMerge(const StateKeyPath &path, std::mt19937 &random) {
	std::vector<unsigned char> bytes;
	varkesh::cbor::CborWriter writer(bytes);
	for (const auto &key : path.keys) writer.writeHead(5, 1), writer.addText(key);
	writer.writeHead(5, 1);
	const double value = random() % 8 ? positions[random() % 8] : std::nan("");
	switch (random() % 4) {
	case 0: writer.addText("rangeUnit"), writer.addFloat(value); break;
	case 1: writer.addText("value"), writer.addInt(std::int64_t(random() % 200) - 100); break;
	case 2: writer.addText("gesture"), writer.addBool(random() % 2); break;
	default: writer.addText("value"), writer.addFloat(value);
	}
	return bytes;
}

// Two seconds each.
std::vector<std::vector<float>> inputs(double rate) {
	const auto frames = std::size_t(rate * 2);
	std::vector<float> music = lumbrel_test::harmonicTone(196, 12, rate, frames, 0.08),
					   fifth = lumbrel_test::harmonicTone(293.7, 10, rate, frames, 0.08);
	for (std::size_t i = 0; i < frames; ++i) music[i] += fifth[i] + (i % std::size_t(rate / 4) < 200 ? 0.3f : 0);
	std::vector<float> noise(frames);
	std::mt19937 random(3);
	for (auto &x : noise) x = float(random()) / float(random.max()) * 2 - 1;
	return {music, std::vector<float>(frames, 0.0f), noise};
}

} // namespace

TEST(AutomationStress, EveryPluginStaysFiniteAndBounded) {
	auto bundle = lumbrel_test::bundle();
	ASSERT_TRUE(bundle);
	const double seconds = std::getenv("LUMBREL_STRESS_SECONDS") ? std::atof(std::getenv("LUMBREL_STRESS_SECONDS")) : 10;
	const float limit = std::pow(10.0f, 24.0f / 20.0f);
	for (double rate : {44100.0, 96000.0}) {
		const auto signals = inputs(rate);
		for (std::uint32_t p = 0; p < bundle->count(); ++p) {
			const char *id = bundle->descriptor(p)->id;
			SCOPED_TRACE(std::string(id) + " at " + std::to_string(int(rate)) + " Hz");
			std::mt19937 random(p * 7919 + std::uint32_t(rate));
			Host host;
			Instance instance(*bundle, id, host);
			ASSERT_TRUE(instance.init() && instance.activate(rate, 1, 2048) && instance.startProcessing());
			const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
			std::vector<clap_param_info> params(instance.paramCount());
			for (std::uint32_t i = 0; i < params.size(); ++i) instance.paramInfo(i, params[i]);
			std::vector<std::uint8_t> state;
			ASSERT_TRUE(instance.saveState(state));
			const auto paths = stateKeyPaths(state.data(), state.size());
			// Engine settings (which rebuild the effect): each to each hostile value first, then rarely.
			std::set<clap_id> engine;
			std::vector<std::pair<clap_id, double>> first;
			for (const auto &path : paths)
				for (double value : {-1e9, -100.0, -0.5, 1.5, 100.0, 1e9})
					if (path.keys.front() == "engineConfig") engine.insert(path.id), first.emplace_back(path.id, value);
			ASSERT_FALSE(engine.empty());
			std::vector<float> inL(2048), inR(2048), outL(2048), outR(2048);
			float *in[2] = {inL.data(), inR.data()}, *out[2] = {outL.data(), outR.data()};
			InputEvents events;
			OutputEvents outEvents;
			std::size_t position = 0, done = 0, bad = 0, loud = 0, block = 0;
			while (done < std::size_t(seconds * rate)) {
				const auto frames = std::uint32_t(1 + random() % 2048);
				const auto &signal = signals[position / signals[0].size() % 3];
				for (std::uint32_t i = 0; i < frames; ++i) {
					inL[i] = signal[(position + i) % signal.size()];
					inR[i] = signal[(position + i + signal.size() / 2) % signal.size()];
				}
				position += frames;
				events.clear();
				if (block < first.size()) events.paramValue(0, first[block].first, first[block].second);
				for (int e = int(random() % 4); e > 0; --e) {
					const auto &info = params[random() % params.size()];
					if (engine.count(info.id) && random() % 40) continue;
					double value = positions[random() % 8];
					if (info.flags & CLAP_PARAM_IS_STEPPED) value = info.min_value + std::round((info.max_value - info.min_value) * value);
					events.paramValue(std::uint32_t(random() % frames), info.id, value, random() % 2 ? info.cookie : nullptr);
				}
				outEvents.clear();
				instance.process(in, 2, out, 2, frames, events, outEvents);
				for (std::uint32_t i = 0; i < frames; ++i)
					for (float v : {outL[i], outR[i]}) bad += !std::isfinite(v), loud += std::isfinite(v) && std::fabs(v) > limit;
				done += frames;
				++block;
				// Now and then: a reset, a state round trip, garbage for a state, a page's
				// merge, ["meters", 0.02, 0.3], the main thread's turn.
				std::vector<std::uint8_t> bytes;
				const unsigned char meters[] = {0x83, 0x66, 'm', 'e', 't', 'e', 'r', 's', 0xfb, 0x3f, 0x94, 0x7a, 0xe1, 0x47,
					0xae, 0x14, 0x7b, 0xfb, 0x3f, 0xd3, 0x33, 0x33, 0x33, 0x33, 0x33, 0x33};
				const auto chance = random() % 200;
				if (chance == 0) instance.reset();
				ASSERT_TRUE(chance != 1 || (instance.saveState(bytes) && instance.loadState(bytes)));
				if (chance == 2) {
					for (auto n = random() % 64; n > 0; --n) bytes.push_back(std::uint8_t(random()));
					instance.loadState(bytes);
				}
				if (chance >= 3 && chance <= 5) bytes = pageMerge(paths[random() % paths.size()], random);
				if (chance == 6) bytes.assign(std::begin(meters), std::end(meters));
				if (chance >= 3 && chance <= 6) webview->receive(instance.clapPlugin(), bytes.data(), std::uint32_t(bytes.size()));
				if (chance == 7) instance.onMainThread(), host.sentMessages.clear();
			}
			EXPECT_EQ(bad + loud, 0u) << bad << " non-finite samples, " << loud << " above +24 dBFS";
		}
	}
}
