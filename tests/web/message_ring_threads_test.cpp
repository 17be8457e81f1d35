// The message ring with both threads at work, as in a session with the editor
// open: the audio thread runs blocks with host automation, a meter lease and
// now and then an engine rebuild, while the main thread sends page edits and
// "ready" through webview/3 and drains. Meant to run under ThreadSanitizer too.
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
#include <string>
#include <thread>
#include <vector>

using namespace lumbrel::host;
using lumbrel_test::hexBytes;
using Bytes = std::vector<std::uint8_t>;

TEST(MessageRingThreads, AudioProducesWhileTheMainThreadDrainsAndEdits) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host host;
	Instance instance(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", host);
	ASSERT_TRUE(instance.valid() && instance.init() && instance.activate(48000, 1, 256));
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_NE(webview, nullptr);
	int failedReceives = 0;
	auto receive = [&](const Bytes &bytes) {
		failedReceives += !webview->receive(instance.clapPlugin(), bytes.data(), std::uint32_t(bytes.size()));
	};
	// What the page got, by kind. Each message must be one complete CBOR item:
	// a bare map (an update or the whole state), ["meters", map] or ["state", map].
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
			// Automation at two points of the block, each change an update for
			// the page; now and then an engine setting, which rebuilds the bands.
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

	// The main thread: a page edit and a drain each turn, now and then a
	// renewed lease or a reloaded page (the whole state, written while the
	// audio thread refreshes the spectrum).
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
