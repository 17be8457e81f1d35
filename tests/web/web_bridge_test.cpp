// The page link through clap.webview/3 and clap.state, driven as a host that shows the page.
#include "engine/engine.h"
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "host/streams.h"
#include "storage/cbor_diagnostic.h"
#include "support/param_ids.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace lumbrel::host;
using lumbrel_test::diagnostic;
using lumbrel_test::hexBytes;
using Bytes = std::vector<std::uint8_t>;
using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;

namespace {

bool toPlugin(Instance &instance, const Bytes &bytes) {
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	return webview && webview->receive(instance.clapPlugin(), bytes.data(), std::uint32_t(bytes.size()));
}

std::vector<std::string> sentTexts(Host &host) {
	std::vector<std::string> texts;
	for (const auto &m : host.sentMessages) texts.push_back(diagnostic(std::vector<unsigned char>(m.begin(), m.end())));
	host.sentMessages.clear();
	return texts;
}

class WebBridge : public ::testing::Test {
protected:
	void SetUp() override {
		std::string error;
		bundle = Bundle::load(LUMBREL_PROBE_PATH, error);
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<Instance>(*bundle, "lumbrel.test.chunk-probe", host);
		ASSERT_TRUE(instance->init());
		webview = instance->extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
		ASSERT_NE(webview, nullptr);
	}

	void receive(const char *hex) { ASSERT_TRUE(toPlugin(*instance, hexBytes(hex))); }
	void ready(double sampleRate = 48000, std::uint32_t maxFrames = 256) {
		ASSERT_TRUE(instance->activate(sampleRate, 1, maxFrames));
		receive("65 7265616479"); // "ready"
		sent();
	}
	double position(Instance &of) {
		double value = 0;
		clap_param_info info{};
		EXPECT_TRUE(of.paramInfo(1, info) && of.paramValue(info.id, value));
		return value;
	}
	std::vector<std::string> sent() { return sentTexts(host); }
	void block(std::uint32_t frames = 64) {
		std::vector<float> buffer(frames);
		float *channels[2] = {buffer.data(), buffer.data()};
		instance->process(channels, 2, channels, 2, frames, events, out);
	}
	// Parameter events of these types in this order, and nothing else; then none.
	void expectTypes(std::initializer_list<std::uint16_t> types) {
		ASSERT_EQ(out.pushed.size(), types.size());
		std::size_t i = 0;
		for (auto type : types) EXPECT_EQ(out.header(i++).type, type);
		out.clear();
	}

	Host host;
	std::unique_ptr<Bundle> bundle;
	std::unique_ptr<Instance> instance;
	const clap_plugin_webview *webview = nullptr;
	InputEvents events;
	OutputEvents out;
};

const char *wholeState =
	"{_ \"engineConfig\": {_ \"latencyMs\": {_ \"value\": 10.0, \"$type\": \"ParamRange\", \"name\": \"latency\", "
	"\"defaultValue\": 10.0, \"text\": \"10\", \"textUnits\": \"ms\", \"gesture\": false, \"rangeUnit\": 0.5000000000000001}}, "
	"\"time\": {_ \"value\": 0.5, \"$type\": \"ParamRange\", \"name\": \"time\", \"defaultValue\": 0.5, \"text\": \"0.5\", "
	"\"textUnits\": \"sec\", \"gesture\": false, \"rangeUnit\": 0.49999999999999994}, "
	"\"channelMode\": {_ \"value\": 1, \"$type\": \"ParamStepped\", \"low\": 0, \"high\": 1, \"name\": \"channels\", \"text\": \"full\"}, "
	"\"semitones\": {_ \"value\": 0, \"$type\": \"ParamStepped\", \"low\": -24, \"high\": 24, \"name\": \"shift\", \"text\": \"0\"}}";

} // namespace

TEST_F(WebBridge, ReadyGetsTheWholeStateOnce) {
	receive("65 7265616479"); // "ready"
	EXPECT_EQ(sent(), std::vector<std::string>{wholeState});
	receive("81 65 7265616479"); // ["ready"]
	EXPECT_EQ(sent(), std::vector<std::string>{wholeState});
	// Messages of other shapes are dropped without a word.
	for (const char *other : {"01", "", "80", "82 01 02", "64 72656164", "a0 ff", "9f 65 7265616479"}) {
		receive(other);
		EXPECT_EQ(sent().size(), std::size_t(std::string(other) == "9f 65 7265616479")) << other;
	}
}

TEST_F(WebBridge, DialMergeUpdatesTheParameterAndReplies) {
	ready();
	// {"time": {"rangeUnit": 1}}: an integer position, as pages send whole numbers.
	receive("a1 64 74696d65 a1 69 72616e6765556e6974 01");
	const auto messages = sent();
	ASSERT_EQ(messages.size(), 2u);
	const std::string time = "{_ \"value\": 2.0, \"$type\": \"ParamRange\", \"name\": \"time\", \"defaultValue\": 0.5, "
		"\"text\": \"2\", \"textUnits\": \"sec\", \"gesture\": false, \"rangeUnit\": 1.0}";
	EXPECT_EQ(messages[0], "{\"time\": " + time + "}");
	EXPECT_EQ(messages[1], "[\"state\", {_ \"time\": " + time + "}]");
	EXPECT_EQ(position(*instance), 1.0);
	// The same value again, or an unknown key: nothing changes, nothing is sent.
	receive("a1 64 74696d65 a1 65 76616c7565 fb 4000000000000000");
	receive("a1 63 78797a a1 65 76616c7565 01");
	EXPECT_TRUE(sent().empty());
}

TEST_F(WebBridge, PageEditsReachTheHostAsGestureValueGesture) {
	ready();
	clap_param_info info{};
	ASSERT_TRUE(instance->paramInfo(1, info));
	// Press, drag, release in one merge each.
	receive("a1 64 74696d65 a1 67 67657374757265 f5");
	EXPECT_TRUE(sent().empty()) << "a gesture alone sends nothing to the page";
	receive("a1 64 74696d65 a1 69 72616e6765556e6974 fb 3fd0000000000000");
	receive("a1 64 74696d65 a1 67 67657374757265 f4");
	EXPECT_GE(host.flushRequests.load(), 3);
	block(64);
	const auto value = out.pushed.size() == 3 ? out.as<clap_event_param_value>(1) : clap_event_param_value{};
	expectTypes({CLAP_EVENT_PARAM_GESTURE_BEGIN, CLAP_EVENT_PARAM_VALUE, CLAP_EVENT_PARAM_GESTURE_END});
	EXPECT_TRUE(value.param_id == info.id && value.cookie == info.cookie && value.note_id == -1 && value.key == -1);
	EXPECT_DOUBLE_EQ(value.value, 0.25);
	block(64);
	expectTypes({}); // nothing more is due
	// A host that has just read the value needs no event for it; the gestures still go.
	receive("a1 64 74696d65 a2 67 67657374757265 f5 65 76616c7565 fb 3ff0000000000000");
	position(*instance);
	instance->paramsFlush(events, out);
	expectTypes({CLAP_EVENT_PARAM_GESTURE_BEGIN});
	// A full host queue keeps the value (and the gesture end behind it) due.
	receive("a1 64 74696d65 a2 65 76616c7565 fb 3ff8000000000000 67 67657374757265 f4");
	out.capacity = 0;
	instance->paramsFlush(events, out);
	out.capacity = 16;
	instance->paramsFlush(events, out);
	expectTypes({CLAP_EVENT_PARAM_VALUE, CLAP_EVENT_PARAM_GESTURE_END});
}

TEST_F(WebBridge, HostAutomationUpdatesThePageWithoutEcho) {
	ready();
	events.paramValue(0, 0x9321A3CB, 0); // channelMode: mono
	block(64);
	EXPECT_TRUE(out.pushed.empty());
	EXPECT_EQ(host.callbackRequests.load(), 1) << "the drain is asked for";
	instance->onMainThread();
	EXPECT_EQ(sent(), std::vector<std::string>{"{\"channelMode\": {_ \"value\": 0, \"$type\": \"ParamStepped\", \"low\": 0, "
												"\"high\": 1, \"name\": \"channels\", \"text\": \"mono\"}}"});
}

TEST_F(WebBridge, FullRingFallsBackToOneWholeState) {
	ready();
	// 65 updates before a drain: one more than the ring holds.
	testing::internal::CaptureStderr();
	for (int i = 0; i < 65; ++i) {
		events.clear();
		events.paramValue(0, 0x9321A3CB, i % 2);
		block(16);
	}
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the audio thread says nothing";
	testing::internal::CaptureStderr();
	instance->onMainThread();
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "Web message queue full - sending entire state instead\n")
		<< "the drain says it, once";
	const auto messages = sent();
	ASSERT_EQ(messages.size(), 1u);
	EXPECT_EQ(messages[0].substr(0, 18), "{_ \"engineConfig\":");
	// And the ring works normally afterwards.
	events.clear();
	events.paramValue(0, 0x9321A3CB, 1);
	block(16);
	instance->onMainThread();
	EXPECT_EQ(sent().size(), 1u);
}

TEST_F(WebBridge, MeterLeaseAsksForSpectraEveryInterval) {
	ready(48000, 960);
	// ["meters", 0.02, 0.3]: one spectrum per 960 samples for 14400 samples.
	receive("83 66 6d6574657273 fb 3f947ae147ae147b fb 3fd3333333333333");
	EXPECT_TRUE(sent().empty());
	int spectra = 0;
	for (int b = 0; b < 40; ++b) {
		block(960);
		instance->onMainThread();
		for (const auto &m : sent()) spectra += m == "[\"meters\", {_ }]" ? 1 : 1000; // the probe has no spectrum of its own
	}
	// The counter must pass the interval: a spectrum every second block until the 15-block lease runs out.
	EXPECT_EQ(spectra, 7);
}

// The ABI's edges: a short buffer, a missing file, a stream that takes a little at a time or fails.
TEST_F(WebBridge, GetUriAndResourcesThroughShortBuffersAndStreams) {
	char uri[64];
	std::memset(uri, 'x', sizeof(uri));
	EXPECT_EQ(webview->get_uri(instance->clapPlugin(), uri, 5), 11);
	EXPECT_EQ(std::string(uri, 6), "/index");
	EXPECT_EQ(webview->get_uri(instance->clapPlugin(), nullptr, 0), 11);
	char type[256] = {};
	MemoryOStream missing;
	EXPECT_FALSE(webview->get_resource(instance->clapPlugin(), "/missing.png", type, 255, &missing.stream));
	EXPECT_TRUE(missing.bytes.empty());
	EXPECT_STREQ(type, "image/png") << "the media type is guessed even for a missing file";
	MemoryOStream slow{{}, 100}, failing{{}, 100, 500};
	EXPECT_TRUE(webview->get_resource(instance->clapPlugin(), "/index.html?compact", type, 255, &slow.stream));
	EXPECT_GT(slow.bytes.size(), 1000u);
	EXPECT_STREQ(type, "text/html;charset=utf-8");
	EXPECT_FALSE(webview->get_resource(instance->clapPlugin(), "/cbor.min.js", type, 255, &failing.stream));
}

TEST_F(WebBridge, StateSavesAndLoadsValuesAndSurvivesBadBlobs) {
	std::vector<std::uint8_t> saved;
	ASSERT_TRUE(instance->saveState(saved));
	EXPECT_EQ(diagnostic(std::vector<unsigned char>(saved.begin(), saved.end())),
		"{_ \"engineConfig\": {_ \"latencyMs\": {_ \"value\": 10.0}}, \"time\": {_ \"value\": 0.5}, "
		"\"channelMode\": {_ \"value\": 1}, \"semitones\": {_ \"value\": 0}}");
	receive("a2 64 74696d65 a1 65 76616c7565 fb 3ff0000000000000 69 73656d69746f6e6573 a1 65 76616c7565 27");
	std::vector<std::uint8_t> edited;
	ASSERT_TRUE(instance->saveState(edited));
	Instance fresh(*bundle, "lumbrel.test.chunk-probe", host);
	ASSERT_TRUE(fresh.init());
	// No saved state at all is refused; a map loads what it can read.
	for (const char *blob : {"", "01", "ff ff ff"}) EXPECT_FALSE(fresh.loadState(hexBytes(blob))) << blob;
	for (const char *blob : {"a1 6c 656e67696e65436f6e666967 01", "a1 67 76657273696f6e 18 63",
			 "a1 64 74696d65 a1 65 76616c7565 02", "bf 64 74696d65 bf 65 76616c75"}) {
		EXPECT_TRUE(fresh.loadState(hexBytes(blob))) << blob;
	}
	EXPECT_EQ(position(fresh), 1.0) << "the integer 2 read as a float value, the top of the range";
	// A stream that fails changes nothing and says so.
	const auto *state = fresh.extension<clap_plugin_state>(CLAP_EXT_STATE);
	MemoryIStream failing(std::vector<std::uint8_t>(edited.begin(), edited.end()));
	failing.maxChunk = 8;
	failing.failAfter = 16;
	EXPECT_FALSE(state->load(fresh.clapPlugin(), &failing.stream));
	EXPECT_EQ(position(fresh), 1.0);
	// 1024 bytes from 1024-byte reads take two reads, the second returning 0 (zeros are no saved state).
	MemoryIStream exact(std::vector<std::uint8_t>(1024, 0));
	exact.maxChunk = 1024;
	EXPECT_FALSE(state->load(fresh.clapPlugin(), &exact.stream));
	EXPECT_EQ(exact.reads, 2);
	// A writer that takes a few bytes at a time gets them all; one that fails gives false.
	MemoryOStream trickle{{}, 3}, broken{{}, 4, 10};
	EXPECT_TRUE(instance->extension<clap_plugin_state>(CLAP_EXT_STATE)->save(instance->clapPlugin(), &trickle.stream));
	EXPECT_EQ(trickle.bytes, edited);
	EXPECT_FALSE(instance->extension<clap_plugin_state>(CLAP_EXT_STATE)->save(instance->clapPlugin(), &broken.stream));
}

// Audio automates, leases meters and rebuilds while the main thread edits, reloads and drains (run under TSan too).
TEST(MessageRingThreads, AudioProducesWhileTheMainThreadDrainsAndEdits) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host host;
	Instance instance(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", host);
	ASSERT_TRUE(instance.valid() && instance.init() && instance.activate(48000, 1, 256));
	int failedReceives = 0;
	auto receive = [&](const Bytes &bytes) { failedReceives += !toPlugin(instance, bytes); };
	// Each message one complete item: a map (update or whole state), ["meters", map] or ["state", map].
	int updates = 0, spectra = 0, replies = 0, broken = 0;
	std::string firstBroken;
	auto collect = [&] {
		for (const auto &message : host.sentMessages) {
			const std::vector<unsigned char> bytes(message.begin(), message.end());
			const varkesh::cbor::CborWalker item(bytes.data(), bytes.data() + bytes.size());
			const std::string text = lumbrel_test::diagnostic(bytes);
			const bool whole = !item.isError() && item.next().atBufferEnd() && text.find("error(") == std::string::npos;
			if (whole && text.rfind("{", 0) == 0) ++updates;
			else if (whole && text.rfind("[\"meters\", {_ ", 0) == 0) ++spectra;
			else if (whole && text.rfind("[\"state\", {_ ", 0) == 0) ++replies;
			else if (!broken++) firstBroken = text;
		}
		host.sentMessages.clear();
	};
	const Bytes ready = hexBytes("65 7265616479");
	// ["meters", 0.005, 0.3]: a spectrum every 240 samples, renewed below as the page does.
	const Bytes meters = hexBytes("83 66 6d6574657273 fb 3f747ae147ae147b fb 3fd3333333333333");
	receive(ready);
	receive(meters);
	collect();
	ASSERT_EQ(updates, 1) << "the whole state";
	std::atomic<bool> audioDone{false};
	std::atomic<int> blocks{0};
	std::thread audio([&] {
		InputEvents events;
		OutputEvents out;
		std::vector<float> in(256), left(256), right(256);
		float *inputs[2] = {in.data(), in.data()};
		float *outputs[2] = {left.data(), right.data()};
		const clap_id channelMode = lumbrel_test::paramId({"channelMode"});
		const clap_id semitones = lumbrel_test::paramId({"peakShifterConfig", "semitones"});
		const clap_id latency = lumbrel_test::paramId({"engineConfig", "latencyMs"});
		instance.startProcessing();
		const auto start = std::chrono::steady_clock::now();
		auto due = start;
		for (int b = 0; std::chrono::steady_clock::now() - start < std::chrono::seconds(1); ++b) {
			for (std::size_t i = 0; i < in.size(); ++i) in[i] = 0.3f * float(std::sin(2 * M_PI * 440.0 * double(b * 256 + int(i)) / 48000.0));
			events.clear();
			out.clear();
			// Automation at two points of the block; now and then an engine setting, which rebuilds the bands.
			events.paramValue(32, channelMode, b % 2);
			events.paramValue(128, semitones, b % 5 - 2);
			if (b % 50 == 49) events.paramValue(200, latency, b % 100 == 99 ? 0.3 : 0.7);
			instance.process(inputs, 2, outputs, 2, 256, events, out);
			blocks.fetch_add(1);
			due += std::chrono::microseconds(5333); // real time: 256 samples every 5.3 ms
			std::this_thread::sleep_until(due);
		}
		instance.stopProcessing();
		audioDone = true;
	});
	// A page edit and a drain each turn, now and then a renewed lease or a reloaded page.
	for (int edits = 0; !audioDone.load(); ++edits) {
		Bytes merge; // {"peakShifterConfig": {"tonalityLimit": {"rangeUnit": x}}}
		varkesh::cbor::CborWriter writer(merge);
		for (const char *key : {"peakShifterConfig", "tonalityLimit", "rangeUnit"}) writer.writeHead(5, 1), writer.addText(key);
		writer.addFloat(0.1 + 0.8 * double(edits % 7) / 6);
		receive(merge);
		if (edits % 40 == 0) receive(meters);
		if (edits % 15 == 0) receive(ready);
		instance.onMainThread();
		collect();
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	audio.join();
	instance.onMainThread();
	collect();
	EXPECT_EQ(failedReceives, 0);
	EXPECT_EQ(broken, 0) << "first broken message: " << firstBroken;
	EXPECT_GT(blocks.load(), 10) << "slow under ThreadSanitizer, but running";
	EXPECT_GT(updates, 10) << "automation reached the page";
	EXPECT_GT(spectra, 5) << "the lease brought spectra";
	EXPECT_GT(replies, 5) << "page edits were answered";
	// Nothing is left waiting, and the link still works.
	EXPECT_TRUE(host.sentMessages.empty());
	const int before = updates;
	receive(ready);
	collect();
	EXPECT_EQ(updates, before + 1);
	EXPECT_EQ(failedReceives + broken, 0);
}

// The real bundle's saved state, latency and partial replies to the page.
namespace {

std::vector<std::pair<std::string, CborWalker>> pairsOf(const CborWalker &map) {
	std::vector<std::pair<std::string, CborWalker>> pairs;
	map.forEachPair([&](const CborWalker &key, const CborWalker &value) { pairs.emplace_back(std::string(key.stringView()), value); });
	return pairs;
}

// Checks one saved object and collects its key tree: indefinite maps, groups led by "name", "desc" ""
// and "version" 0, parameters holding "value" alone as a number.
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

std::string keyTree(const Bytes &bytes) {
	const CborWalker root(bytes.data(), bytes.data() + bytes.size());
	EXPECT_TRUE(root.next().atBufferEnd()) << "nothing may follow the root map";
	std::string tree;
	checkObject(root, "root", tree);
	return tree;
}

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

	std::unique_ptr<Instance> make(const char *id, bool running = false) {
		auto instance = std::make_unique<Instance>(*bundle, id, host);
		EXPECT_TRUE(instance->valid() && instance->init()) << id;
		EXPECT_EQ(instance->latency(), 0u) << "no engine before configuration";
		EXPECT_TRUE(!running || (instance->activate(48000, 1, 256) && instance->startProcessing()));
		return instance;
	}
	static Bytes save(const Instance &instance) {
		Bytes bytes;
		EXPECT_TRUE(instance.saveState(bytes));
		return bytes;
	}
	// Blocks of a 1 kHz tone with the events given; true if everything that came out is finite.
	bool process(Instance &instance, std::uint32_t frames, int blocks = 1) {
		std::vector<float> in(frames), left(frames), right(frames);
		for (std::uint32_t i = 0; i < frames; ++i) in[i] = 0.5f * float(std::sin(2 * M_PI * 1000 * i / 48000.0));
		float *inputs[2] = {in.data(), in.data()};
		float *outputs[2] = {left.data(), right.data()};
		bool finite = true;
		for (int b = 0; b < blocks; ++b) {
			instance.process(inputs, 2, outputs, 2, frames, events, out);
			for (std::uint32_t i = 0; i < frames; ++i) finite = finite && std::isfinite(left[i]) && std::isfinite(right[i]);
		}
		events.clear();
		return finite;
	}

	static Bundle *bundle;
	Host host;
	InputEvents events;
	OutputEvents out;
};
Bundle *SavedState::bundle = nullptr;
} // namespace

// The page's edit is answered with the changed branch alone, its groups without texts or other members
// (latencyMs is its group's first member: the two share an address).
TEST_F(SavedState, PitchShifterSavesTheDocumentedFieldsAndAnswersEditsWithThePartialWriteWithoutExtras) {
	const auto instance = make("varkesh.lumbrel.pitch-shifter-layer1");
	const Bytes saved = save(*instance);
	const std::string start = "{_ \"name\": \"Lumbrel: Pitch Shifter\", \"desc\": \"\", \"version\": 0, \"engineConfig\": {_ \"name\": \"Engine\", "
		"\"desc\": \"\", \"version\": 0, \"latencyMs\": {_ \"value\": 10.0}, \"overlap\": {_ \"value\": ";
	EXPECT_EQ(diagnostic(std::vector<unsigned char>(saved.begin(), saved.end())).substr(0, start.size()), start);
	ASSERT_TRUE(toPlugin(*instance, hexBytes("65 7265616479"))); // "ready", then ["state", {"engineConfig": {"latencyMs": {"rangeUnit": 0.25}}}]
	sentTexts(host);
	ASSERT_TRUE(toPlugin(*instance, hexBytes("82 65 7374617465 A1 6C 656E67696E65436F6E666967 A1 69 6C6174656E63794D73"
											 " A1 69 72616E6765556E6974 FB 3FD0000000000000")));
	std::string reply;
	for (const auto &text : sentTexts(host))
		if (text.rfind("[\"state\"", 0) == 0) reply = text;
	EXPECT_EQ(reply.rfind("[\"state\", {_ \"engineConfig\": {_ \"latencyMs\": {_ \"value\": ", 0), 0u) << reply;
	for (const char *absent : {"\"Engine\"", "\"desc\"", "\"overlap\"", "Pitch Shifter"}) EXPECT_EQ(reply.find(absent), std::string::npos) << reply;
	for (const char *present : {"\"name\": \"latency\"", "\"rangeUnit\": 0.25"}) EXPECT_NE(reply.find(present), std::string::npos) << reply;
}

// Every parameter moved by host events reaches the state, which a running instance loads byte for byte
// and plays on with the loaded latency.
TEST_F(SavedState, EveryEffectSavesByTheRulesAndLoadsWhileRunning) {
	ASSERT_EQ(bundle->count(), 10u);
	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const char *id = bundle->descriptor(p)->id;
		SCOPED_TRACE(id);
		const auto edited = make(id, true);
		const Bytes defaults = save(*edited);
		for (std::uint32_t i = 0; i < edited->paramCount(); ++i) {
			clap_param_info info{};
			ASSERT_TRUE(edited->paramInfo(i, info));
			events.paramValue(0, info.id, info.flags & CLAP_PARAM_IS_STEPPED ? info.min_value : 0.3);
		}
		process(*edited, 64);
		const Bytes saved = save(*edited);
		EXPECT_EQ(keyTree(saved), keyTree(defaults));
		const auto running = make(id, true);
		EXPECT_EQ(running->latency(), engineLatency(10, 48000));
		EXPECT_TRUE(running->loadState(saved));
		EXPECT_TRUE(process(*running, 256, 8));
		EXPECT_EQ(save(*running), saved);
		CborWalker latency(saved.data(), saved.data() + saved.size());
		for (const char *key : {"engineConfig", "latencyMs", "value"})
			for (const auto &pair : pairsOf(CborWalker(latency)))
				if (pair.first == key) latency = pair.second;
		EXPECT_NE(latency.asDouble(), 10.0);
		EXPECT_EQ(running->latency(), engineLatency(latency.asDouble(), 48000)) << latency.asDouble() << " ms";
	}
}
