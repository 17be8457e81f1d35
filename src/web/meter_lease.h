#pragma once
#include <atomic>
#include <cstdint>

namespace quorl::web {

// The page's lease on spectra: it asks for one every `intervalSamples` for
// the next `remainingSamples`, and asks again before the lease runs out, so a
// page that has gone away stops the spectra by itself.
struct MeterLease {
	std::atomic<std::int32_t> intervalSamples{0}, remainingSamples{0};
	std::int32_t counter = 0; // samples since the last spectrum was asked for; audio thread only

	// [main-thread] Renews the lease, from the page's figures in seconds.
	void grant(double sampleRate, double intervalSeconds, double durationSeconds) {
		intervalSamples = samples(sampleRate * intervalSeconds);
		remainingSamples = samples(sampleRate * durationSeconds);
	}

	// [audio-thread] Runs the lease on by `length` samples; true when the
	// next spectrum is due.
	bool advance(std::int32_t length) {
		if (remainingSamples.load() <= 0) return false;
		remainingSamples -= length;
		counter += length;
		if (counter <= intervalSamples.load()) return false;
		counter = 0;
		return true;
	}

private:
	// Truncated towards zero; saturating (and NaN as 0), since the numbers come
	// from the page.
	static std::int32_t samples(double value) {
		if (!(value == value)) return 0;
		if (value >= 2147483647.0) return 2147483647;
		if (value <= -2147483648.0) return -2147483647 - 1;
		return std::int32_t(value);
	}
};

} // namespace quorl::web
