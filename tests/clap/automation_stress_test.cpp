// Every plug-in under abuse, through the ABI: blocks of random length, random
// parameter events on every parameter (in range, at the ends, far outside),
// engine-setting changes, resets, state save/load and random page messages,
// on music-like input, silence and full-scale noise. The output must stay
// finite and below +24 dBFS, and nothing may crash.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "host/key_paths.h"
#include "storage/cbor_writer.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using namespace lumbrel::host;

namespace {

// Seconds of audio per plug-in and rate; LUMBREL_STRESS_SECONDS overrides
// (sanitizer builds run a shorter pass).
double stressSeconds() {
	if (const char *text = std::getenv("LUMBREL_STRESS_SECONDS")) return std::atof(text);
	return 60;
}

// A merge for one parameter, as the page would send it, with a hostile value.
std::vector<unsigned char> pageMerge(const lumbrel::host::StateKeyPath &path, std::mt19937 &random) {
	std::vector<unsigned char> bytes;
	varkesh::cbor::CborWriter writer(bytes);
	for (const auto &key : path.keys) {
		writer.writeHead(5, 1);
		writer.addText(key);
	}
	writer.writeHead(5, 1);
	static const double values[] = {0.0, 1.0, 0.5, -3.0, 7.5, 1e300, -1e300, std::nan("")};
	switch (random() % 4) {
	case 0:
		writer.addText("rangeUnit");
		writer.addFloat(values[random() % 8]);
		break;
	case 1:
		writer.addText("value");
		writer.addInt(std::int64_t(random() % 200) - 100);
		break;
	case 2:
		writer.addText("gesture");
		writer.addBool(random() % 2);
		break;
	default:
		writer.addText("value");
		writer.addFloat(values[random() % 8]);
	}
	return bytes;
}

struct Signal {
	enum Kind { music, silence, noise } kind;
	std::vector<float> left, right;
};

std::vector<Signal> inputs(double rate) {
	const auto frames = std::size_t(rate * 2);
	std::vector<Signal> signals;
	Signal music{Signal::music, lumbrel_test::harmonicTone(196, 12, rate, frames, 0.08), {}};
	music.right = lumbrel_test::harmonicTone(293.7, 10, rate, frames, 0.08);
	for (std::size_t i = 0; i < frames; i += std::size_t(rate / 4)) {
		for (std::size_t k = 0; k < 200 && i + k < frames; ++k) music.left[i + k] += (k % 2 ? 0.5f : -0.5f) * float(200 - k) / 200;
	}
	signals.push_back(music);
	signals.push_back({Signal::silence, std::vector<float>(frames, 0.0f), std::vector<float>(frames, 0.0f)});
	Signal noise{Signal::noise, std::vector<float>(frames), std::vector<float>(frames)};
	std::mt19937 random(3);
	std::uniform_real_distribution<float> full(-1.0f, 1.0f);
	for (std::size_t i = 0; i < frames; ++i) {
		noise.left[i] = full(random);
		noise.right[i] = full(random);
	}
	signals.push_back(noise);
	return signals;
}

} // namespace

TEST(AutomationStress, EveryPluginStaysFiniteAndBounded) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	const double seconds = stressSeconds();
	const float limit = std::pow(10.0f, 24.0f / 20.0f);

	for (double rate : {44100.0, 96000.0}) {
		const auto signals = inputs(rate);
		for (std::uint32_t p = 0; p < bundle->count(); ++p) {
			const char *id = bundle->descriptor(p)->id;
			SCOPED_TRACE(std::string(id) + " at " + std::to_string(int(rate)) + " Hz");
			std::mt19937 random(p * 7919 + std::uint32_t(rate));
			Host host;
			Instance instance(*bundle, id, host);
			ASSERT_TRUE(instance.init());
			ASSERT_TRUE(instance.activate(rate, 1, 2048));
			ASSERT_TRUE(instance.startProcessing());
			const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);

			std::vector<clap_param_info> params(instance.paramCount());
			for (std::uint32_t i = 0; i < params.size(); ++i) instance.paramInfo(i, params[i]);
			std::vector<std::uint8_t> state;
			ASSERT_TRUE(instance.saveState(state));
			const auto paths = lumbrel::host::stateKeyPaths(state.data(), state.size());

			std::vector<float> inL(2048), inR(2048), outL(2048), outR(2048);
			float *in[2] = {inL.data(), inR.data()};
			float *out[2] = {outL.data(), outR.data()};
			InputEvents events;
			OutputEvents outEvents;
			std::size_t position = 0, done = 0, bad = 0, loud = 0;
			const auto total = std::size_t(seconds * rate);
			std::size_t signalIndex = 0;

			while (done < total) {
				const auto frames = std::uint32_t(1 + random() % 2048);
				const Signal &signal = signals[signalIndex];
				for (std::uint32_t i = 0; i < frames; ++i) {
					const std::size_t at = (position + i) % signal.left.size();
					inL[i] = signal.left[at];
					inR[i] = signal.right[at];
				}
				position += frames;
				if (position >= signal.left.size()) {
					position = 0;
					signalIndex = (signalIndex + 1) % signals.size();
				}

				events.clear();
				const int eventCount = int(random() % 4);
				for (int e = 0; e < eventCount && !params.empty(); ++e) {
					const auto &info = params[random() % params.size()];
					// Engine settings (the first group) rebuild the effect: rarely.
					const bool engine = &info - params.data() < 5;
					if (engine && random() % 40) continue;
					static const double positions[] = {0.0, 1.0, 0.5, -0.5, 1.5, -100.0, 100.0, 0.999};
					double value = positions[random() % 8];
					if (info.flags & CLAP_PARAM_IS_STEPPED) value = info.min_value + std::round((info.max_value - info.min_value) * value);
					events.paramValue(std::uint32_t(random() % frames), info.id, value, random() % 2 ? info.cookie : nullptr);
				}
				outEvents.clear();
				instance.process(in, 2, out, 2, frames, events, outEvents);
				for (std::uint32_t i = 0; i < frames; ++i) {
					for (float v : {outL[i], outR[i]}) {
						if (!std::isfinite(v)) ++bad;
						else if (std::fabs(v) > limit) ++loud;
					}
				}
				done += frames;

				// Now and then, what else a host and a page do between blocks.
				switch (random() % 200) {
				case 0:
					instance.reset();
					break;
				case 1: {
					std::vector<std::uint8_t> saved;
					ASSERT_TRUE(instance.saveState(saved));
					ASSERT_TRUE(instance.loadState(saved));
					break;
				}
				case 2: {
					std::vector<std::uint8_t> garbage(random() % 64);
					for (auto &b : garbage) b = std::uint8_t(random());
					instance.loadState(garbage);
					break;
				}
				case 3:
				case 4:
				case 5:
					if (!paths.empty()) {
						const auto merge = pageMerge(paths[random() % paths.size()], random);
						webview->receive(instance.clapPlugin(), merge.data(), std::uint32_t(merge.size()));
					}
					break;
				case 6: {
					const unsigned char meters[] = {0x83, 0x66, 'm', 'e', 't', 'e', 'r', 's', 0xfb, 0x3f, 0x94, 0x7a, 0xe1,
						0x47, 0xae, 0x14, 0x7b, 0xfb, 0x3f, 0xd3, 0x33, 0x33, 0x33, 0x33, 0x33, 0x33};
					webview->receive(instance.clapPlugin(), meters, sizeof(meters));
					break;
				}
				case 7:
					instance.onMainThread();
					host.sentMessages.clear();
					break;
				default:
					break;
				}
			}
			EXPECT_EQ(bad, 0u) << "non-finite output samples";
			EXPECT_EQ(loud, 0u) << "samples above +24 dBFS";
		}
	}
}
