// Saved state and latency of the ten plug-ins of the real bundle, driven
// through clap.state and clap.latency as a host does.
#include "engine/engine.h"
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "storage/cbor_diagnostic.h"

#include <gtest/gtest.h>

#include <clap/clap.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace lumbrel::host;
using lumbrel_test::diagnostic;
using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;

namespace {

using Bytes = std::vector<std::uint8_t>;

CborWalker walkerOn(const Bytes &bytes) { return {bytes.data(), bytes.data() + bytes.size()}; }

std::vector<std::pair<std::string, CborWalker>> pairsOf(const CborWalker &map) {
	std::vector<std::pair<std::string, CborWalker>> pairs;
	map.forEachPair([&](const CborWalker &key, const CborWalker &value) { pairs.emplace_back(std::string(key.stringView()), value); });
	return pairs;
}

CborWalker member(const CborWalker &map, const std::string &key) {
	for (const auto &pair : pairsOf(map)) {
		if (pair.first == key) return pair.second;
	}
	return {};
}

// The number saved under `path` (keys down to the parameter), NaN if absent.
double savedValue(const Bytes &bytes, std::initializer_list<const char *> path) {
	CborWalker item = walkerOn(bytes);
	for (const char *key : path) item = member(item, key);
	item = member(item, "value");
	switch (item.type) {
	case CborType::Unsigned:
	case CborType::Negative:
	case CborType::Float64:
		return item.asDouble();
	default:
		return std::nan("");
	}
}

// Checks the encoding rules of one saved object and collects its key tree:
// indefinite maps throughout, groups led by "name", "desc" "" and "version" 0,
// parameters holding "value" alone as a float64 or an integer.
void checkObject(const CborWalker &object, const std::string &where, std::string &tree) {
	ASSERT_EQ(object.type, CborType::IndefiniteMap) << where;
	const auto pairs = pairsOf(object);
	ASSERT_FALSE(pairs.empty()) << where;
	if (pairs[0].first == "value") {
		ASSERT_EQ(pairs.size(), 1u) << where << ": a parameter holds its value alone";
		const CborType type = pairs[0].second.type;
		EXPECT_TRUE(type == CborType::Float64 || type == CborType::Unsigned || type == CborType::Negative) << where;
		return;
	}
	ASSERT_GE(pairs.size(), 4u) << where;
	EXPECT_EQ(pairs[0].first, "name") << where;
	EXPECT_EQ(pairs[0].second.type, CborType::Utf8) << where;
	EXPECT_EQ(pairs[1].first, "desc") << where;
	EXPECT_TRUE(pairs[1].second.type == CborType::Utf8 && pairs[1].second.value == 0) << where;
	EXPECT_EQ(pairs[2].first, "version") << where;
	EXPECT_TRUE(pairs[2].second.type == CborType::Unsigned && pairs[2].second.value == 0) << where;
	tree += "{";
	for (std::size_t i = 3; i < pairs.size(); ++i) {
		tree += pairs[i].first;
		checkObject(pairs[i].second, where + "." + pairs[i].first, tree);
		tree += ",";
	}
	tree += "}";
}

// The key tree of a whole blob, after checking that it is one item exactly.
std::string keyTree(const Bytes &bytes) {
	const CborWalker root = walkerOn(bytes);
	EXPECT_TRUE(root.next().atBufferEnd()) << "nothing may follow the root map";
	std::string tree;
	checkObject(root, "root", tree);
	return tree;
}

// The latency of an engine built at `sampleRate` for `latencyMs`.
std::uint32_t engineLatency(double latencyMs, float sampleRate) {
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	config.latencyMs = latencyMs;
	varkesh_lumbrel_engine_float *engine = varkesh_lumbrel_engine_float_new(2, 2, sampleRate, &config);
	const auto samples = std::uint32_t(varkesh_lumbrel_engine_float_latencySamples(engine));
	varkesh_lumbrel_engine_float_delete(engine);
	return samples;
}

class SavedState : public ::testing::Test {
protected:
	static void SetUpTestSuite() {
		std::string error;
		bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error).release();
		ASSERT_NE(bundle, nullptr) << error;
	}
	static void TearDownTestSuite() {
		delete bundle;
		bundle = nullptr;
	}

	std::unique_ptr<Instance> make(const char *id) {
		auto instance = std::make_unique<Instance>(*bundle, id, host);
		EXPECT_TRUE(instance->valid()) << id;
		EXPECT_TRUE(instance->init()) << id;
		return instance;
	}
	static Bytes save(const Instance &instance) {
		Bytes bytes;
		EXPECT_TRUE(instance.saveState(bytes));
		return bytes;
	}

	// Moves every parameter away from its default through host events: ranged
	// ones to 0.3 of their travel, stepped ones to their lowest step.
	static void editAll(Instance &instance) {
		InputEvents events;
		OutputEvents out;
		for (std::uint32_t i = 0; i < instance.paramCount(); ++i) {
			clap_param_info info{};
			ASSERT_TRUE(instance.paramInfo(i, info));
			const bool stepped = (info.flags & CLAP_PARAM_IS_STEPPED) != 0;
			events.paramValue(0, info.id, stepped ? info.min_value : 0.3);
		}
		process(instance, events, out, 64);
	}

	// One block of a 1 kHz tone; true if everything that came out is finite.
	static bool process(Instance &instance, InputEvents &events, OutputEvents &out, std::uint32_t frames) {
		std::vector<float> in(frames), left(frames), right(frames);
		for (std::uint32_t i = 0; i < frames; ++i) in[i] = 0.5f * float(std::sin(2 * M_PI * 1000 * i / 48000.0));
		float *inputs[2] = {in.data(), in.data()};
		float *outputs[2] = {left.data(), right.data()};
		instance.process(inputs, 2, outputs, 2, frames, events, out);
		for (std::uint32_t i = 0; i < frames; ++i) {
			if (!std::isfinite(left[i]) || !std::isfinite(right[i])) return false;
		}
		return true;
	}
	static bool runsClean(Instance &instance) {
		InputEvents events;
		OutputEvents out;
		for (int b = 0; b < 8; ++b) {
			if (!process(instance, events, out, 256)) return false;
		}
		return true;
	}

	static Bundle *bundle;
	Host host;
};
Bundle *SavedState::bundle = nullptr;

std::string text(const std::string &s) {
	return std::string(1, char(0x60 + s.size())) + s; // texts below 24 bytes
}

} // namespace

TEST_F(SavedState, PitchShifterStartsWithTheDocumentedBytes) {
	const auto instance = make("varkesh.lumbrel.pitch-shifter-layer1");
	const Bytes saved = save(*instance);

	std::string start = "\xBF" + text("name") + "\x76" "Lumbrel: Pitch Shifter" + text("desc") + text("") + text("version")
		+ std::string(1, '\0') + "\x6C" "engineConfig" + "\xBF" + text("name") + text("Engine") + text("desc") + text("")
		+ text("version") + std::string(1, '\0') + text("latencyMs") + "\xBF" + text("value") + "\xFB";
	// 10 ms, the default latency, as a big-endian float64, then the parameter's break.
	start += std::string("\x40\x24\x00\x00\x00\x00\x00\x00", 8) + "\xFF" + text("overlap") + "\xBF" + text("value") + "\xFB";
	ASSERT_GT(saved.size(), start.size());
	EXPECT_EQ(lumbrel_test::diagnostic(std::vector<unsigned char>(saved.begin(), saved.begin() + std::ptrdiff_t(start.size()))),
		lumbrel_test::diagnostic(std::vector<unsigned char>(start.begin(), start.end())));
	EXPECT_EQ(Bytes(saved.begin(), saved.begin() + std::ptrdiff_t(start.size())), Bytes(start.begin(), start.end()));

	// The last parameter's break, its group's if it stands in one, and the root's.
	ASSERT_GE(saved.size(), 3u);
	EXPECT_EQ(saved[saved.size() - 1], 0xFF);
	EXPECT_EQ(saved[saved.size() - 2], 0xFF);
	keyTree(saved);
	// Nothing of the page stands in a saved state.
	const std::string all(saved.begin(), saved.end());
	for (const char *pageKey : {"$type", "text", "gesture", "rangeUnit", "analysisSpectrum"}) {
		EXPECT_EQ(all.find(text(pageKey)), std::string::npos) << pageKey;
	}
}

// Every plug-in saves by the format's rules, the same bytes each time, and
// an edited state comes back byte for byte in a running instance, which
// plays on and reports the latency of its loaded setting.
TEST_F(SavedState, EveryEffectSavesByTheRulesAndLoadsWhileRunning) {
	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const char *id = bundle->descriptor(p)->id;
		SCOPED_TRACE(id);
		const auto edited = make(id);
		const Bytes defaults = save(*edited);
		EXPECT_EQ(save(*edited), defaults);
		ASSERT_TRUE(edited->activate(48000, 1, 256));
		ASSERT_TRUE(edited->startProcessing());
		editAll(*edited);
		const Bytes saved = save(*edited);
		EXPECT_NE(saved, defaults) << "the edits reach the saved state";
		EXPECT_EQ(keyTree(saved), keyTree(defaults));

		const auto running = make(id);
		EXPECT_EQ(running->latency(), 0u) << "no engine before configuration";
		ASSERT_TRUE(running->activate(48000, 1, 256));
		ASSERT_TRUE(running->startProcessing());
		EXPECT_EQ(running->latency(), engineLatency(10, 48000));
		EXPECT_TRUE(running->loadState(saved));
		EXPECT_TRUE(runsClean(*running));
		EXPECT_EQ(save(*running), saved);
		const double latencyMs = savedValue(saved, {"engineConfig", "latencyMs"});
		EXPECT_NE(latencyMs, 10.0);
		EXPECT_EQ(running->latency(), engineLatency(latencyMs, 48000)) << latencyMs << " ms";
	}
}
