// The audio callback of every plug-in allocates nothing, takes no lock and writes nothing once it runs: blocks of
// changing length, every kind of host event (notes and MIDI past what a plug-in keeps), resets, with the page closed
// (its ring overflows) and open (spectra and updates through the ring).
#include "host/key_paths.h"
#include "support/alloc_counter.h"
#include "support/plugin_runner.h"

#include <gtest/gtest.h>

#include <clap/ext/draft/webview.h>

#include <cmath>
#include <cstdio>
#include <iterator>
#include <mutex>
#include <random>

using namespace lumbrel::host;

TEST(Realtime, ProcessAllocatesLocksAndWritesNothingInSteadyState) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "no allocation counting in this build";
	std::mutex mutex;
	const std::size_t locksBefore = lumbrel_test::lockCount(), writesBefore = lumbrel_test::writeCount();
	mutex.lock(), mutex.unlock();
	FILE *sink = std::tmpfile();
	std::fputs("x", sink), std::fclose(sink);
	ASSERT_TRUE(lumbrel_test::lockCount() > locksBefore && lumbrel_test::writeCount() > writesBefore) << "counters see";
	auto bundle = lumbrel_test::bundle();
	Host host;
	const std::uint32_t maxFrames = 1024;
	std::vector<float> left(maxFrames), right(maxFrames), outLeft(maxFrames), outRight(maxFrames);
	float *inputs[2] = {left.data(), right.data()}, *outputs[2] = {outLeft.data(), outRight.data()};
	std::mt19937 random(1);
	std::normal_distribution<float> noise(0.0f, 0.1f);
	for (std::uint32_t p = 0; bundle && p < bundle->count(); ++p) {
		const char *id = bundle->descriptor(p)->id;
		SCOPED_TRACE(id);
		lumbrel_test::AllocationScope creation;
		Instance instance(*bundle, id, host);
		ASSERT_GT(creation.count(), 0u) << "the counter must see the bundle's allocations";
		ASSERT_TRUE(instance.init() && instance.activate(48000, 1, maxFrames) && instance.startProcessing());
		// Automation of all but the engine settings and the channel mode (which
		// rebuild the effect by design), in range and far outside; it queues page updates.
		std::vector<clap_id> automated;
		std::vector<std::uint8_t> state;
		ASSERT_TRUE(instance.saveState(state));
		for (const auto &path : stateKeyPaths(state.data(), state.size()))
			if (path.keys.front() != "engineConfig" && path.keys.front() != "channelMode") automated.push_back(path.id);
		ASSERT_FALSE(automated.empty());
		const double hostile[] = {-1e9, -3, -0.25, 0, 0.5, 1, 1.02, 2, 100, 1e9};
		InputEvents events;
		OutputEvents output;
		// Passed over: transport, modulation, gestures, an unknown type, another space's.
		clap_event_transport transport{};
		transport.header = {sizeof(transport), 0, CLAP_CORE_EVENT_SPACE_ID, CLAP_EVENT_TRANSPORT, 0};
		clap_event_param_mod mod{};
		mod.header = {sizeof(mod), 0, CLAP_CORE_EVENT_SPACE_ID, CLAP_EVENT_PARAM_MOD, 0};
		mod.param_id = automated[0], mod.amount = 0.1;
		clap_event_header unknown{sizeof(clap_event_header), 0, CLAP_CORE_EVENT_SPACE_ID, 200, 0},
			otherSpace{sizeof(clap_event_header), 0, 7, CLAP_EVENT_PARAM_VALUE, 0};
		// Counts inside process() only; with `page` the main thread drains the ring between blocks.
		std::size_t allocations = 0, locks = 0, writes = 0, spectra = 0;
		int notes = 4; // notes and MIDI per block: a few while warming up, then more than a plug-in keeps
		auto run = [&](int blocks, bool page) {
			for (int b = 0; b < blocks; ++b) {
				const std::uint32_t frames = 1 + random() % maxFrames;
				for (std::uint32_t i = 0; i < frames; ++i) left[i] = noise(random), right[i] = std::sin(0.05f * float(i));
				events.clear();
				for (const clap_event_header *e : {&transport.header, &mod.header, &unknown, &otherSpace}) events.add(*e);
				events.paramGesture(0, automated[0], true);
				for (int e = 0; e < 3; ++e) {
					const double value = random() % 2 ? double(random() % 1000) / 999.0 : hostile[random() % std::size(hostile)];
					events.paramValue(std::uint32_t(random() % frames), automated[random() % automated.size()], value);
				}
				for (int n = 0; n < notes; ++n) {
					const auto key = std::int16_t(random() % 128);
					events.note(std::uint32_t(random() % frames), random() % 3 ? CLAP_EVENT_NOTE_ON : CLAP_EVENT_NOTE_OFF, key, 0.8, n);
					events.midi(std::uint32_t(random() % frames), random() % 3 ? 0x91 : 0x81, std::uint8_t(key), 90);
				}
				events.paramGesture(frames - 1, automated[0], false);
				output.clear();
				const std::size_t a = lumbrel_test::allocationCount(), l = lumbrel_test::lockCount(), w = lumbrel_test::writeCount();
				instance.process(inputs, 2, outputs, 2, frames, events, output);
				allocations += lumbrel_test::allocationCount() - a;
				locks += lumbrel_test::lockCount() - l;
				writes += lumbrel_test::writeCount() - w;
				if (page) {
					instance.onMainThread();
					for (const auto &m : host.sentMessages) spectra += m.size() > 3 && m[0] == 0x82 && m[2] == 'm';
					host.sentMessages.clear();
				}
			}
		};
		instance.onMainThread(); // the first whole state goes, so updates queue again and overflow
		run(50, false); // warm-up: first-use caches may grow here
		allocations = locks = writes = 0;
		notes = 100;
		run(400, false);
		instance.reset();
		run(50, false);
		EXPECT_EQ(allocations + locks + writes, 0u) << allocations << " allocations, " << locks << " locks, " << writes;
		// The page: "ready", then a spectrum every 1 ms; each ring slot grows once to hold one.
		const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
		const std::uint8_t ready[] = {0x65, 'r', 'e', 'a', 'd', 'y'}, // and ["meters", 0.001, 3600]
			meters[] = {0x83, 0x66, 'm', 'e', 't', 'e', 'r', 's', 0xfb, 0x3f, 0x50, 0x62, 0x4d, 0xd2, 0xf1, 0xa9, 0xfc, 0x19, 0x0e, 0x10};
		ASSERT_TRUE(webview && webview->receive(instance.clapPlugin(), ready, sizeof(ready))
			&& webview->receive(instance.clapPlugin(), meters, sizeof(meters)));
		run(300, true);
		allocations = locks = writes = spectra = 0;
		run(400, true);
		EXPECT_GT(spectra, 300u) << "the page got its spectra";
		EXPECT_EQ(allocations + locks + writes, 0u) << "page open: " << allocations << " allocations, " << locks << " locks, "
													<< writes;
	}
}
