#include "host/events.h"

#include <algorithm>
#include <cstring>

namespace lumbrel::host {

InputEvents::InputEvents() : events{this, list_size, list_get} {
	storage.reserve(4096);
	offsets.reserve(256);
}

void InputEvents::add(const clap_event_header &event) {
	const std::size_t words = (std::max<std::size_t>(event.size, sizeof(clap_event_header)) + 7) / 8;
	const std::size_t offset = storage.size();
	storage.resize(offset + words, 0);
	std::memcpy(storage.data() + offset, &event, std::max<std::size_t>(event.size, sizeof(clap_event_header)));
	// After every event of the same or earlier time.
	auto at = std::upper_bound(offsets.begin(), offsets.end(), event.time, [this](std::uint32_t time, std::size_t o) {
		return time < reinterpret_cast<const clap_event_header *>(storage.data() + o)->time;
	});
	offsets.insert(at, offset);
}

void InputEvents::clear() {
	storage.clear();
	offsets.clear();
}

const clap_event_header *InputEvents::get(std::uint32_t index) const {
	if (index >= offsets.size()) return nullptr;
	return reinterpret_cast<const clap_event_header *>(storage.data() + offsets[index]);
}

void InputEvents::paramValue(std::uint32_t time, clap_id id, double value, void *cookie, std::uint16_t spaceId) {
	clap_event_param_value event{};
	event.header = {sizeof(event), time, spaceId, CLAP_EVENT_PARAM_VALUE, 0};
	event.param_id = id;
	event.cookie = cookie;
	event.note_id = -1;
	event.port_index = -1;
	event.channel = -1;
	event.key = -1;
	event.value = value;
	add(event.header);
}

void InputEvents::paramGesture(std::uint32_t time, clap_id id, bool begin) {
	clap_event_param_gesture event{};
	event.header = {sizeof(event), time, CLAP_CORE_EVENT_SPACE_ID,
		std::uint16_t(begin ? CLAP_EVENT_PARAM_GESTURE_BEGIN : CLAP_EVENT_PARAM_GESTURE_END), 0};
	event.param_id = id;
	add(event.header);
}

void InputEvents::note(std::uint32_t time, std::uint16_t type, std::int16_t key, double velocity, std::int32_t noteId,
	std::int16_t channel) {
	clap_event_note event{};
	event.header = {sizeof(event), time, CLAP_CORE_EVENT_SPACE_ID, type, 0};
	event.note_id = noteId;
	event.port_index = 0;
	event.channel = channel;
	event.key = key;
	event.velocity = velocity;
	add(event.header);
}

void InputEvents::midi(std::uint32_t time, std::uint8_t status, std::uint8_t data1, std::uint8_t data2) {
	clap_event_midi event{};
	event.header = {sizeof(event), time, CLAP_CORE_EVENT_SPACE_ID, CLAP_EVENT_MIDI, 0};
	event.port_index = 0;
	event.data[0] = status;
	event.data[1] = data1;
	event.data[2] = data2;
	add(event.header);
}

std::uint32_t InputEvents::list_size(const clap_input_events *list) {
	return static_cast<const InputEvents *>(list->ctx)->size();
}

const clap_event_header *InputEvents::list_get(const clap_input_events *list, std::uint32_t index) {
	return static_cast<const InputEvents *>(list->ctx)->get(index);
}

OutputEvents::OutputEvents() : events{this, try_push} { pushed.reserve(1024); }

bool OutputEvents::try_push(const clap_output_events *list, const clap_event_header *event) {
	auto *self = static_cast<OutputEvents *>(list->ctx);
	if (!event || self->pushed.size() >= self->capacity) return false;
	auto *bytes = reinterpret_cast<const std::uint8_t *>(event);
	self->pushed.emplace_back(bytes, bytes + event->size);
	return true;
}

} // namespace lumbrel::host
