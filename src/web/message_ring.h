#pragma once
#include "web/message_slot.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <vector>

namespace quorl::web {

// The messages to the page: a fixed ring of 64 reusable buffers with any
// number of producers (the audio thread for host automation and spectra, the
// main thread for replies) and one consumer, the main thread's drain. No
// producer waits: a full ring drops everything queued and sends the whole
// state instead, since one whole state repairs any number of lost updates.
class MessageRing {
public:
	static constexpr std::size_t ringSize = 64;

	std::vector<MessageSlot> queue;
	// Written by the drain alone; producers read it, relaxed, only to decide
	// whether to wake the main thread.
	std::atomic<std::size_t> readIndex{0};
	std::atomic<bool> resendState{false};
	std::atomic<bool> overflowed{false}; // the ring was full; the drain says so, once
	std::atomic<std::size_t> writeIndex{0};

	MessageRing() : queue(ringSize) {}

	// [any thread] Claims the next slot, or returns null: while a whole state
	// is pending (it will carry the change), or when the ring is full, which
	// makes the whole state pending. The claimer sets `ready` when its message
	// is complete.
	MessageSlot *claim() {
		if (resendState.load()) return nullptr;
		MessageSlot &slot = queue[writeIndex.fetch_add(1) % ringSize];
		if (slot.ready.load()) {
			// Said by the drain: a producer may be the audio thread.
			overflowed = true;
			resendState = true;
			return nullptr;
		}
		slot.bytes.clear();
		return &slot;
	}

	// [any thread] An empty slot with the whole state pending: the drain
	// fills it.
	void requestWholeState() {
		if (resendState.load()) return;
		if (MessageSlot *slot = claim()) {
			resendState = true;
			slot->ready = true;
		}
	}

	// [main-thread] Hands each message to `send`, in order. A pending whole
	// state replaces everything queued: `writeWholeState(bytes)` writes it.
	template<class WriteWholeState, class Send>
	void drain(WriteWholeState &&writeWholeState, Send &&send) {
		std::size_t read = readIndex.load(std::memory_order_relaxed);
		MessageSlot *slot = &queue[read];
		while (slot->ready.load()) {
			read = (read + 1) % ringSize;
			readIndex.store(read, std::memory_order_relaxed);
			if (resendState.load()) {
				if (overflowed.exchange(false)) std::fputs("Web message queue full - sending entire state instead\n", stderr);
				for (auto &other : queue) {
					if (&other != slot) other.ready = false;
				}
				writeIndex = read;
				resendState = false;
				slot->bytes.clear();
				writeWholeState(slot->bytes);
			}
			send(slot->bytes);
			slot->ready = false;
			slot = &queue[read];
		}
	}

	// [any thread] True if a message waits for the drain.
	bool messageWaiting() const { return queue[readIndex.load(std::memory_order_relaxed)].ready.load(); }
};

} // namespace quorl::web
