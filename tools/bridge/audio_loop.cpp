#include "bridge/audio_loop.h"

#include <chrono>
#include <unistd.h>

namespace lumbrel::bridge {

AudioLoop::AudioLoop(host::Instance &instance, double sampleRate, std::uint32_t blockSize, int wakeFd)
	: instance(instance), sampleRate(sampleRate), blockSize(blockSize), wakeFd(wakeFd), signal(sampleRate) {
	automation.reserve(256);
	pushed.reserve(1024);
}

AudioLoop::~AudioLoop() { stop(); }

void AudioLoop::start() {
	if (running.exchange(true)) return;
	thread = std::thread([this] { run(); });
}

void AudioLoop::stop() {
	running = false;
	if (thread.joinable()) thread.join();
}

void AudioLoop::automate(clap_id id, double value) {
	std::lock_guard<std::mutex> lock(exchange);
	automation.emplace_back(id, value);
}

std::vector<ParamEventRecord> AudioLoop::takeParamEvents() {
	std::lock_guard<std::mutex> lock(exchange);
	std::vector<ParamEventRecord> taken;
	taken.swap(pushed);
	pushed.reserve(1024);
	return taken;
}

void AudioLoop::run() {
	using Clock = std::chrono::steady_clock;
	std::vector<float> inL(blockSize), inR(blockSize), outL(blockSize), outR(blockSize);
	float *inputs[2] = {inL.data(), inR.data()};
	float *outputs[2] = {outL.data(), outR.data()};
	host::InputEvents in;
	host::OutputEvents out;
	std::vector<ParamEventRecord> unsent; // pushed events waiting for the lock
	unsent.reserve(1024);

	if (!instance.startProcessing()) {
		running = false;
		return;
	}
	const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(blockSize / sampleRate));
	auto due = Clock::now();
	while (running) {
		signal.fill(inL.data(), inR.data(), blockSize);
		in.clear();
		out.clear();
		{
			std::unique_lock<std::mutex> lock(exchange, std::try_to_lock);
			if (lock) {
				for (const auto &[id, value] : automation) in.paramValue(0, id, value);
				automation.clear();
			}
		}
		instance.process(inputs, 2, outputs, 2, blockSize, in, out);
		++blockCount;

		for (std::size_t i = 0; i < out.pushed.size(); ++i) {
			const clap_event_header &header = out.header(i);
			if (header.space_id != CLAP_CORE_EVENT_SPACE_ID) continue;
			ParamEventRecord record;
			record.type = header.type;
			if (header.type == CLAP_EVENT_PARAM_VALUE) {
				const auto event = out.as<clap_event_param_value>(i);
				record.id = event.param_id;
				record.value = event.value;
			} else if (header.type == CLAP_EVENT_PARAM_GESTURE_BEGIN || header.type == CLAP_EVENT_PARAM_GESTURE_END) {
				record.id = out.as<clap_event_param_gesture>(i).param_id;
			} else {
				continue;
			}
			if (unsent.size() < 4096) unsent.push_back(record);
		}
		if (!unsent.empty()) {
			std::unique_lock<std::mutex> lock(exchange, std::try_to_lock);
			if (lock) {
				pushed.insert(pushed.end(), unsent.begin(), unsent.end());
				unsent.clear();
			}
		}

		// The plug-in asked for on_main_thread (it has messages for the page).
		if (instance.host().callbackRequests.exchange(0) > 0) {
			const unsigned char wake = 1;
			[[maybe_unused]] const ssize_t n = ::write(wakeFd, &wake, 1); // a full pipe already wakes
		}

		// Real time: one block per period. After a stall (a debugger, a loaded
		// machine) start afresh instead of racing to catch up.
		due += period;
		const auto now = Clock::now();
		if (now > due + std::chrono::milliseconds(100)) due = now;
		std::this_thread::sleep_until(due);
	}
	instance.stopProcessing();
}

} // namespace lumbrel::bridge
