#pragma once
// The bridge's audio thread: runs one active plug-in instance in real time on
// the test signal, in blocks of a fixed size, paced by the clock. The main
// thread hands it parameter values to send (as a host's automation does) and
// collects the parameter events that the plug-in sends back. When the plug-in
// asks for a main-thread callback, the loop writes a byte to `wakeFd`, which
// the main thread polls.
#include "bridge/test_signal.h"
#include "host/events.h"
#include "host/instance.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace lumbrel::bridge {

// One parameter event that the plug-in pushed to the host.
struct ParamEventRecord {
	std::uint16_t type = 0; // CLAP_EVENT_PARAM_VALUE, _GESTURE_BEGIN or _GESTURE_END
	clap_id id = 0;
	double value = 0; // for values
};

class AudioLoop {
public:
	// `instance` must be active, and must outlive the loop.
	AudioLoop(host::Instance &instance, double sampleRate, std::uint32_t blockSize, int wakeFd);
	~AudioLoop(); // stops

	// [main thread] Starts the thread, which starts processing on itself.
	void start();
	// [main thread] Stops processing on the audio thread and joins it.
	void stop();

	// [main thread] A value event for `id`, sent with the next block.
	void automate(clap_id id, double value);
	// [main thread] The parameter events that the plug-in pushed since the last call.
	std::vector<ParamEventRecord> takeParamEvents();

	// Blocks processed so far.
	std::uint64_t blocks() const { return blockCount.load(); }

private:
	host::Instance &instance;
	double sampleRate;
	std::uint32_t blockSize;
	int wakeFd;
	TestSignal signal;
	std::thread thread;
	std::atomic<bool> running{false};
	std::atomic<std::uint64_t> blockCount{0};

	// Between the threads. The audio thread only ever try-locks, so the main
	// thread can't hold it up; what it can't hand over now waits for a later block.
	std::mutex exchange;
	std::vector<std::pair<clap_id, double>> automation;
	std::vector<ParamEventRecord> pushed;

	void run();
};

} // namespace lumbrel::bridge
