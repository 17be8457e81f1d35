#pragma once
#include <clap/clap.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace lumbrel::host {

// Events for one block, as the host hands them to `process`: kept sorted by
// time, events of equal time in the order they were added. Storage is reserved
// up front so that a reused list doesn't allocate while audio runs.
class InputEvents {
public:
	InputEvents();
	InputEvents(const InputEvents &) = delete;
	InputEvents &operator=(const InputEvents &) = delete;

	// Copies any event (header.size bytes).
	void add(const clap_event_header &event);
	void clear();
	std::uint32_t size() const { return std::uint32_t(offsets.size()); }
	const clap_event_header *get(std::uint32_t index) const;
	const clap_input_events *list() const { return &events; }

	// Builders for the common core events.
	void paramValue(std::uint32_t time, clap_id id, double value, void *cookie = nullptr, std::uint16_t spaceId = 0);
	void paramGesture(std::uint32_t time, clap_id id, bool begin);
	void note(std::uint32_t time, std::uint16_t type, std::int16_t key, double velocity, std::int32_t noteId = -1,
		std::int16_t channel = 0);
	void midi(std::uint32_t time, std::uint8_t status, std::uint8_t data1, std::uint8_t data2);

private:
	clap_input_events events;
	std::vector<std::uint64_t> storage; // 8-byte aligned event bytes
	std::vector<std::size_t> offsets; // in units of uint64, sorted by event time

	static std::uint32_t list_size(const clap_input_events *list);
	static const clap_event_header *list_get(const clap_input_events *list, std::uint32_t index);
};

// What the plug-in pushes: copies of its events, up to `capacity` of them
// (pushes beyond it fail, as a full host queue does).
class OutputEvents {
public:
	OutputEvents();
	OutputEvents(const OutputEvents &) = delete;
	OutputEvents &operator=(const OutputEvents &) = delete;

	std::size_t capacity = 1024;
	std::vector<std::vector<std::uint8_t>> pushed;

	const clap_output_events *list() const { return &events; }
	void clear() { pushed.clear(); }
	const clap_event_header &header(std::size_t index) const {
		return *reinterpret_cast<const clap_event_header *>(pushed[index].data());
	}
	template<class Event>
	Event as(std::size_t index) const {
		Event event;
		std::memcpy(&event, pushed[index].data(), sizeof(Event) < pushed[index].size() ? sizeof(Event) : pushed[index].size());
		return event;
	}

private:
	clap_output_events events;
	static bool try_push(const clap_output_events *list, const clap_event_header *event);
};

} // namespace lumbrel::host
