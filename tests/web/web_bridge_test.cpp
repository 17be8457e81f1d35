// The page link through clap.webview/3 and clap.state, as a host that shows
// the page itself drives it: messages in through `receive`, out through `send`.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "host/streams.h"
#include "storage/cbor_diagnostic.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <memory>
#include <string>
#include <vector>

using namespace lumbrel::host;
using lumbrel_test::diagnostic;
using lumbrel_test::hexBytes;

namespace {

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

	void receive(const char *hex) {
		const auto bytes = hexBytes(hex);
		ASSERT_TRUE(webview->receive(instance->clapPlugin(), bytes.data(), std::uint32_t(bytes.size())));
	}
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
	std::vector<std::string> sent() {
		std::vector<std::string> texts;
		for (const auto &m : host.sentMessages) texts.push_back(diagnostic(std::vector<unsigned char>(m.begin(), m.end())));
		host.sentMessages.clear();
		return texts;
	}
	void block(std::uint32_t frames = 64) {
		std::vector<float> buffer(frames);
		float *channels[2] = {buffer.data(), buffer.data()};
		instance->process(channels, 2, channels, 2, frames, events, out);
	}
	// Parameter events of these types in this order, and nothing else.
	void expectTypes(std::initializer_list<std::uint16_t> types) {
		ASSERT_EQ(out.pushed.size(), types.size());
		std::size_t i = 0;
		for (auto type : types) EXPECT_EQ(out.header(i++).type, type);
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
	expectTypes({CLAP_EVENT_PARAM_GESTURE_BEGIN, CLAP_EVENT_PARAM_VALUE, CLAP_EVENT_PARAM_GESTURE_END});
	const auto value = out.as<clap_event_param_value>(1);
	EXPECT_TRUE(value.param_id == info.id && value.cookie == info.cookie && value.note_id == -1 && value.key == -1);
	EXPECT_DOUBLE_EQ(value.value, 0.25);

	// Nothing more is due.
	out.clear();
	block(64);
	EXPECT_TRUE(out.pushed.empty());

	// A host that has just read the value needs no event for it; the gestures still go.
	receive("a1 64 74696d65 a2 67 67657374757265 f5 65 76616c7565 fb 3ff0000000000000");
	position(*instance);
	out.clear();
	instance->paramsFlush(events, out);
	expectTypes({CLAP_EVENT_PARAM_GESTURE_BEGIN});

	// A full host queue keeps the value (and the gesture end behind it) due.
	receive("a1 64 74696d65 a2 65 76616c7565 fb 3ff8000000000000 67 67657374757265 f4");
	out.clear();
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
		for (const auto &m : sent()) {
			EXPECT_EQ(m, "[\"meters\", {_ }]") << "the probe has no spectrum of its own";
			++spectra;
		}
	}
	// The counter must exceed the interval: a request every second block of
	// 960, and the lease of 15 blocks then runs out.
	EXPECT_EQ(spectra, 7);
}

// The ABI's edges (the files themselves are checked where the editor bridge
// serves them): a short buffer, a missing file, a stream that takes a little
// at a time or fails.
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
	MemoryOStream slow;
	slow.maxChunk = 100;
	EXPECT_TRUE(webview->get_resource(instance->clapPlugin(), "/index.html?compact", type, 255, &slow.stream));
	EXPECT_GT(slow.bytes.size(), 1000u);
	EXPECT_STREQ(type, "text/html;charset=utf-8");
	MemoryOStream failing;
	failing.maxChunk = 100;
	failing.failAfter = 500;
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

	// A state of exactly 1024 bytes from a stream of 1024-byte reads takes two
	// reads: 1024 bytes, then one returning 0 (zeros are no saved state).
	MemoryIStream exact(std::vector<std::uint8_t>(1024, 0));
	exact.maxChunk = 1024;
	EXPECT_FALSE(state->load(fresh.clapPlugin(), &exact.stream));
	EXPECT_EQ(exact.reads, 2);

	// A writer that takes a few bytes at a time gets them all; one that fails gives false.
	MemoryOStream trickle;
	trickle.maxChunk = 3;
	EXPECT_TRUE(instance->extension<clap_plugin_state>(CLAP_EXT_STATE)->save(instance->clapPlugin(), &trickle.stream));
	EXPECT_EQ(trickle.bytes, edited);
	MemoryOStream broken;
	broken.maxChunk = 4;
	broken.failAfter = 10;
	EXPECT_FALSE(instance->extension<clap_plugin_state>(CLAP_EXT_STATE)->save(instance->clapPlugin(), &broken.stream));
}
