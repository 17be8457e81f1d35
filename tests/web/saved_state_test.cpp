// Saved state, latency and the page's partial replies of the plug-ins of the
// real bundle, driven through clap.state, clap.latency and webview/3 as a host does.
#include "engine/engine.h"
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "storage/cbor_diagnostic.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cmath>
#include <cstring>
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

std::vector<std::pair<std::string, CborWalker>> pairsOf(const CborWalker &map) {
	std::vector<std::pair<std::string, CborWalker>> pairs;
	map.forEachPair([&](const CborWalker &key, const CborWalker &value) { pairs.emplace_back(std::string(key.stringView()), value); });
	return pairs;
}

// The number saved under `path` (keys down to the parameter), NaN if absent.
double savedValue(const Bytes &bytes, std::initializer_list<const char *> path) {
	CborWalker item(bytes.data(), bytes.data() + bytes.size());
	for (const char *key : {path.begin()[0], path.begin()[1], "value"}) {
		CborWalker found;
		for (const auto &pair : pairsOf(item))
			if (pair.first == key) found = pair.second;
		item = found;
	}
	return item.type == CborType::Float64 || item.type == CborType::Unsigned ? item.asDouble() : std::nan("");
}

// Checks the encoding rules of one saved object and collects its key tree:
// indefinite maps throughout, groups led by "name", "desc" "" and "version" 0,
// parameters holding "value" alone as a float64 or an integer.
void checkObject(const CborWalker &object, const std::string &where, std::string &tree) {
	const auto pairs = pairsOf(object);
	ASSERT_TRUE(object.type == CborType::IndefiniteMap && !pairs.empty()) << where;
	auto number = [](CborType type) { return type == CborType::Float64 || type == CborType::Unsigned || type == CborType::Negative; };
	if (pairs[0].first == "value") {
		EXPECT_TRUE(pairs.size() == 1 && number(pairs[0].second.type)) << where << ": a parameter holds its value alone";
		return;
	}
	ASSERT_GE(pairs.size(), 4u) << where;
	EXPECT_TRUE(pairs[0].first == "name" && pairs[0].second.type == CborType::Utf8) << where;
	EXPECT_TRUE(pairs[1].first == "desc" && pairs[1].second.type == CborType::Utf8 && pairs[1].second.value == 0) << where;
	EXPECT_TRUE(pairs[2].first == "version" && pairs[2].second.type == CborType::Unsigned && pairs[2].second.value == 0) << where;
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
	const CborWalker root(bytes.data(), bytes.data() + bytes.size());
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
	static void TearDownTestSuite() { delete bundle; }

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

	// Blocks of a 1 kHz tone; true if everything that came out is finite.
	static bool process(Instance &instance, InputEvents &events, OutputEvents &out, std::uint32_t frames, int blocks = 1) {
		std::vector<float> in(frames), left(frames), right(frames);
		for (std::uint32_t i = 0; i < frames; ++i) in[i] = 0.5f * float(std::sin(2 * M_PI * 1000 * i / 48000.0));
		float *inputs[2] = {in.data(), in.data()};
		float *outputs[2] = {left.data(), right.data()};
		bool finite = true;
		for (int b = 0; b < blocks; ++b) {
			instance.process(inputs, 2, outputs, 2, frames, events, out);
			for (std::uint32_t i = 0; i < frames; ++i) finite = finite && std::isfinite(left[i]) && std::isfinite(right[i]);
		}
		return finite;
	}

	static Bundle *bundle;
	Host host;
};
Bundle *SavedState::bundle = nullptr;
} // namespace

TEST_F(SavedState, PitchShifterStartsWithTheDocumentedFields) {
	const auto instance = make("varkesh.lumbrel.pitch-shifter-layer1");
	const Bytes saved = save(*instance);
	const std::string start = "{_ \"name\": \"Lumbrel: Pitch Shifter\", \"desc\": \"\", \"version\": 0, \"engineConfig\": {_ \"name\": \"Engine\", "
		"\"desc\": \"\", \"version\": 0, \"latencyMs\": {_ \"value\": 10.0}, \"overlap\": {_ \"value\": ";
	EXPECT_EQ(diagnostic(std::vector<unsigned char>(saved.begin(), saved.end())).substr(0, start.size()), start);
	keyTree(saved); // float64 values, indefinite maps, nothing after the root
	// Nothing of the page stands in a saved state.
	const std::string all(saved.begin(), saved.end());
	for (const char *pageKey : {"$type", "text", "gesture", "rangeUnit", "analysisSpectrum"})
		EXPECT_EQ(all.find(char(0x60 + std::strlen(pageKey)) + std::string(pageKey)), std::string::npos) << pageKey;
}

// The page's edit is answered with the changed branch alone: the parameter
// whole, the groups above it without their texts or other members (latencyMs
// is its group's first member: the two share an address).
TEST_F(SavedState, PageEditIsAnsweredWithThePartialWriteWithoutExtras) {
	const auto instance = make("varkesh.lumbrel.pitch-shifter-layer1");
	auto *webview = instance->extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_NE(webview, nullptr);
	for (const char *hex : {"65 7265616479", // "ready", then ["state", {"engineConfig": {"latencyMs": {"rangeUnit": 0.25}}}]
			 "82 65 7374617465 A1 6C 656E67696E65436F6E666967 A1 69 6C6174656E63794D73 A1 69 72616E6765556E6974 FB 3FD0000000000000"}) {
		host.sentMessages.clear();
		const auto bytes = lumbrel_test::hexBytes(hex);
		ASSERT_TRUE(webview->receive(instance->clapPlugin(), bytes.data(), std::uint32_t(bytes.size())));
	}
	std::string reply;
	for (const auto &m : host.sentMessages) {
		const std::string text = diagnostic(std::vector<unsigned char>(m.begin(), m.end()));
		if (text.rfind("[\"state\"", 0) == 0) reply = text;
	}
	EXPECT_EQ(reply.rfind("[\"state\", {_ \"engineConfig\": {_ \"latencyMs\": {_ \"value\": ", 0), 0u) << reply;
	for (const char *absent : {"\"Engine\"", "\"desc\"", "\"overlap\"", "Pitch Shifter"}) EXPECT_EQ(reply.find(absent), std::string::npos) << reply;
	for (const char *present : {"\"name\": \"latency\"", "\"rangeUnit\": 0.25"}) EXPECT_NE(reply.find(present), std::string::npos) << reply;
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
		InputEvents none;
		OutputEvents out;
		EXPECT_TRUE(process(*running, none, out, 256, 8));
		EXPECT_EQ(save(*running), saved);
		const double latencyMs = savedValue(saved, {"engineConfig", "latencyMs"});
		EXPECT_NE(latencyMs, 10.0);
		EXPECT_EQ(running->latency(), engineLatency(latencyMs, 48000)) << latencyMs << " ms";
	}
}
