#pragma once
#include "clap/note_events.h"

#include <clap/clap.h>

#include <cstdint>

namespace quorl::clap {

// [audio-thread] Walks one block's events in order and cuts the block at
// every event that isn't a note event, so that audio before an event's time
// runs with the old values: `chunk(length)` runs the audio up to the event,
// then `event(header)` applies it. Note events cut nothing; `note(header,
// start)` gets them with `start`, where the chunk that follows begins. An
// event dated before the cut so far applies at once. A time past the block's
// end is not clamped: the chunk runs up to it, so hosts must date events
// within the block, as CLAP asks.
template<class Chunk, class Note, class Event>
void cutBlock(const clap_process *process, Chunk &&chunk, Note &&note, Event &&event) {
	const std::uint32_t frames = process->frames_count;
	if (frames == 0) return;
	const std::uint32_t eventCount = process->in_events->size(process->in_events);
	std::uint32_t start = 0, eventIndex = 0;
	while (start < frames) {
		const clap_event_header *header = nullptr;
		std::uint32_t end = frames;
		if (eventIndex < eventCount) {
			header = process->in_events->get(process->in_events, eventIndex++);
			if (isNoteEvent(header)) {
				note(header, start);
				continue;
			}
			end = header->time > start ? header->time : start; // not clamped to the block
		}
		if (end > start) {
			chunk(end - start);
			start = end;
		}
		if (header) event(header);
	}
}

} // namespace quorl::clap
