// The message ring with both threads at work, as in a session with the editor
// open: the audio thread runs blocks with host automation (parameter updates)
// and a meter lease (spectra), now and then an engine rebuild, while the main
// thread sends page edits and "ready" through webview/3 and drains. Meant to run under ThreadSanitizer as well.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "storage/cbor_diagnostic.h"
#include "support/param_ids.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace lumbrel::host;
using lumbrel_test::diagnostic;
using lumbrel_test::hexBytes;
using lumbrel_test::paramId;
using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;

namespace {

using Bytes = std::vector<std::uint8_t>;

// What the page got, by kind.
struct Tally {
	int updates = 0, spectra = 0, replies = 0, broken = 0;
	std::string firstBroken;

	// One message must be exactly one complete CBOR item: a bare map (an
	// update or the whole state), ["meters", map] or ["state", map].
	void take(const Bytes &message) {
		const std::vector<unsigned char> bytes(message.begin(), message.end());
		const CborWalker item(bytes.data(), bytes.data() + bytes.size());
		const std::string text = diagnostic(bytes);
		const bool whole = !item.isError() && item.next().atBufferEnd() && text.find("error(") == std::string::npos;
		if (whole && item.type == CborType::Map) {
			++updates;
		} else if (whole && item.type == CborType::IndefiniteMap) {
			++updates; // the whole state
		} else if (whole && text.rfind("[\"meters\", {_ ", 0) == 0) {
			++spectra;
		} else if (whole && text.rfind("[\"state\", {_ ", 0) == 0) {
			++replies;
		} else {
			if (!broken++) firstBroken = text;
		}
	}
};

// A short double in CBOR: fb and eight bytes, most significant first.
Bytes float64(double value) {
	std::uint64_t bits;
	std::memcpy(&bits, &value, sizeof bits);
	Bytes bytes{0xFB};
	for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(std::uint8_t(bits >> shift));
	return bytes;
}

} // namespace

TEST(MessageRingThreads, AudioProducesWhileTheMainThreadDrainsAndEdits) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host host;
	Instance instance(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", host);
	ASSERT_TRUE(instance.valid());
	ASSERT_TRUE(instance.init());
	ASSERT_TRUE(instance.activate(48000, 1, 256));
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_NE(webview, nullptr);
	auto receive = [&](const Bytes &bytes) {
		return webview->receive(instance.clapPlugin(), bytes.data(), std::uint32_t(bytes.size()));
	};
	Tally tally;
	auto collect = [&] {
		for (const auto &message : host.sentMessages) tally.take(message);
		host.sentMessages.clear();
	};
	ASSERT_TRUE(receive(hexBytes("65 7265616479"))); // "ready"
	// ["meters", 0.005, 0.3]: a spectrum every 240 samples, renewed below as the page does.
	const Bytes meters = hexBytes("83 66 6d6574657273 fb 3f747ae147ae147b fb 3fd3333333333333");
	ASSERT_TRUE(receive(meters));
	collect();
	ASSERT_EQ(tally.updates, 1) << "the whole state";

	std::atomic<bool> audioDone{false};
	std::atomic<int> blocks{0};
	std::thread audio([&] {
		InputEvents events;
		OutputEvents out;
		std::vector<float> in(256), left(256), right(256);
		float *inputs[2] = {in.data(), in.data()};
		float *outputs[2] = {left.data(), right.data()};
		const clap_id channelMode = paramId({"channelMode"});
		const clap_id semitones = paramId({"peakShifterConfig", "semitones"});
		const clap_id latency = paramId({"engineConfig", "latencyMs"});
		instance.startProcessing();
		const auto start = std::chrono::steady_clock::now();
		auto due = start;
		std::uint64_t phase = 0;
		for (int b = 0; std::chrono::steady_clock::now() - start < std::chrono::seconds(1); ++b) {
			for (auto &x : in) x = 0.3f * float(std::sin(2 * M_PI * 440.0 * double(phase++) / 48000.0));
			events.clear();
			out.clear();
			// Automation at two points of the block: each value change is an
			// update for the page.
			events.paramValue(32, channelMode, b % 2);
			events.paramValue(128, semitones, b % 5 - 2);
			// Now and then an engine setting: the effect and its bands are rebuilt.
			if (b % 50 == 49) events.paramValue(200, latency, b % 100 == 99 ? 0.3 : 0.7);
			instance.process(inputs, 2, outputs, 2, 256, events, out);
			blocks.fetch_add(1);
			// At the pace of real time: a block of 256 samples every 5.3 ms.
			due += std::chrono::microseconds(5333);
			std::this_thread::sleep_until(due);
		}
		instance.stopProcessing();
		audioDone = true;
	});

	// The main thread: a page edit, a drain, now and then a renewed lease.
	int edits = 0, failedReceives = 0;
	while (!audioDone.load()) {
		// {"peakShifterConfig": {"tonalityLimit": {"rangeUnit": x}}}
		Bytes merge = hexBytes("a1 71 7065616b53686966746572436f6e666967 a1 6d 746f6e616c6974794c696d6974 a1 69 72616e6765556e6974");
		const Bytes position = float64(0.1 + 0.8 * double(edits % 7) / 6);
		merge.insert(merge.end(), position.begin(), position.end());
		if (!receive(merge)) ++failedReceives;
		if (edits % 40 == 0 && !receive(meters)) ++failedReceives;
		// A page that reloads: the whole state, written here while the audio
		// thread refreshes the spectrum.
		if (edits % 15 == 0 && !receive(hexBytes("65 7265616479"))) ++failedReceives;
		++edits;
		instance.onMainThread();
		collect();
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	audio.join();
	instance.onMainThread();
	collect();

	::testing::Test::RecordProperty("blocks", blocks.load());
	::testing::Test::RecordProperty("updates", tally.updates);
	::testing::Test::RecordProperty("spectra", tally.spectra);
	::testing::Test::RecordProperty("replies", tally.replies);
	EXPECT_EQ(failedReceives, 0);
	EXPECT_EQ(tally.broken, 0) << "first broken message: " << tally.firstBroken;
	EXPECT_GT(blocks.load(), 10) << "slow under ThreadSanitizer, but running";
	EXPECT_GT(tally.updates, 10) << "automation reached the page";
	EXPECT_GT(tally.spectra, 5) << "the lease brought spectra";
	EXPECT_GT(tally.replies, 5) << "page edits were answered";

	// The run ends cleanly: nothing is left waiting, and the ring still works.
	EXPECT_TRUE(host.sentMessages.empty());
	ASSERT_TRUE(receive(hexBytes("65 7265616479")));
	collect();
	Bytes state;
	EXPECT_TRUE(instance.saveState(state));
	EXPECT_EQ(tally.broken, 0);
}
