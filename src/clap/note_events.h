#pragma once
#include <clap/clap.h>

#include <cstdint>
#include <cstdio>
#include <type_traits>

namespace quorl::detail {
// A wrapper that declares `noteInputId` takes note events: noteStart(offset,
// id, note, strength) and noteEnd(id, offset), and names its note input port
// by `noteInputId` and `noteInputName`.
template<class T, class = void>
struct TakesNotes : std::false_type {};
template<class T>
struct TakesNotes<T, std::void_t<decltype(T::noteInputId)>> : std::true_type {};
} // namespace quorl::detail

namespace quorl::clap {

inline bool isNoteEvent(const clap_event_header *event) {
	if (event->space_id != CLAP_CORE_EVENT_SPACE_ID) return false;
	switch (event->type) {
	case CLAP_EVENT_NOTE_ON:
	case CLAP_EVENT_NOTE_OFF:
	case CLAP_EVENT_NOTE_CHOKE:
	case CLAP_EVENT_NOTE_EXPRESSION:
	case CLAP_EVENT_MIDI:
		return true;
	default:
		return false;
	}
}

// [audio-thread] Hands a note event to an effect that takes notes, its time
// counted from `start`, where the coming chunk begins. A note without an id
// is known by key and channel, as raw MIDI notes are. A MIDI note-on of
// velocity 0 starts a note like any other; expressions are not used.
template<class Effect>
void takeNote(Effect &effect, const clap_event_header *header, std::uint32_t start) {
	if constexpr (detail::TakesNotes<Effect>::value) {
		const std::uint64_t offset = header->time > start ? header->time - start : 0;
		if (header->type == CLAP_EVENT_MIDI) {
			const auto *midi = reinterpret_cast<const clap_event_midi *>(header);
			const int status = midi->data[0] & 0xF0, channel = midi->data[0] & 0x0F;
			const std::int64_t id = -1 - std::int64_t(midi->data[1]) - channel * 128;
			if (status == 0x90) effect.noteStart(offset, id, float(midi->data[1]), float(midi->data[2]) * 0.007874016f);
			if (status == 0x80) effect.noteEnd(id, std::int64_t(offset));
			return;
		}
		if (header->type != CLAP_EVENT_NOTE_ON && header->type != CLAP_EVENT_NOTE_OFF
			&& header->type != CLAP_EVENT_NOTE_CHOKE) {
			return;
		}
		const auto *note = reinterpret_cast<const clap_event_note *>(header);
		const std::int64_t id = note->note_id >= 0 ? std::int64_t(note->note_id)
			: -1 - std::int64_t(note->key) - std::int64_t(note->channel) * 128;
		if (header->type == CLAP_EVENT_NOTE_ON) {
			effect.noteStart(offset, id, float(note->key), float(note->velocity));
		} else {
			effect.noteEnd(id, std::int64_t(offset));
		}
	}
}

// "clap.note-ports": none, except one input for an effect that takes notes.
template<class Effect>
struct NotePortsExtension {
	static constexpr bool takesNotes = detail::TakesNotes<Effect>::value;

	static std::uint32_t note_ports_count(const clap_plugin *, bool isInput) { return takesNotes && isInput ? 1 : 0; }
	static bool note_ports_get(const clap_plugin *, std::uint32_t index, bool isInput, clap_note_port_info *info) {
		if constexpr (takesNotes) {
			if (isInput && index == 0 && info) {
				info->id = Effect::noteInputId;
				info->supported_dialects = CLAP_NOTE_DIALECT_CLAP | CLAP_NOTE_DIALECT_MIDI | CLAP_NOTE_DIALECT_MIDI_MPE;
				info->preferred_dialect = CLAP_NOTE_DIALECT_CLAP;
				std::snprintf(info->name, sizeof(info->name), "%s", Effect::noteInputName);
				return true;
			}
		}
		return false;
	}
	static constexpr clap_plugin_note_ports table{note_ports_count, note_ports_get};
};

} // namespace quorl::clap
