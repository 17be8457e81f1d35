#pragma once
#include "frame/library_effect.h"
#include "frame/library_effect_base.h"
#include "storage/cbor_writer.h"
#include "storage/quorl_storage.h"
#include "storage/tagged_cbor_walker.h"
#include "web/message_slot.h"
#include "web/web_state.h"
#include "web/web_ui_helper.h"

#include <atomic>
#include <type_traits>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace quorl::web {

namespace cbor = varkesh::cbor;

namespace detail {
template<class V, class Storage, class = void>
struct HasUiState : std::false_type {};
template<class V, class Storage>
struct HasUiState<V, Storage, std::void_t<decltype(std::declval<V &>().uiState(std::declval<Storage &>()))>>
	: std::true_type {};
} // namespace detail

template<class Sample, template<class> class Wrapper>
class WebUILibraryEffect;

// The wrapper as the web effect instantiates it: over the web-aware base.
template<class Sample, template<class> class Wrapper>
using WebQUORL = Wrapper<typename WebUIHelper<Wrapper, WebUILibraryEffect<Sample, Wrapper>>::template WebBase<
	LibraryEffectBase<Sample>>>;

// The top of an effect's class stack: the library effect with the link to the
// editor page. `Wrapper` is the effect's wrapper template (e.g. SwellQUORL).
//
// Messages to the page go through a fixed ring of 64 reusable buffers with
// any number of producers (the audio thread for host automation and spectra,
// the main thread for replies) and one consumer, the main thread's drain. No
// producer waits: a full ring drops everything queued and sends the whole
// state instead, since one whole state repairs any number of lost updates.
template<class Sample, template<class> class Wrapper>
class WebUILibraryEffect : public LibraryEffect<Sample, WebQUORL<Sample, Wrapper>> {
	using Library = LibraryEffect<Sample, WebQUORL<Sample, Wrapper>>;
	using Helper = WebUIHelper<Wrapper, WebUILibraryEffect>;
	using Base = typename Helper::template WebBase<LibraryEffectBase<Sample>>;

public:
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;
	static constexpr std::size_t ringSize = 64;

	std::string webPagePath = "html/index.html";
	// Editor size in logical pixels.
	std::uint32_t webWidth = 500, webHeight = 300;

	// The road from the page to the host (set by the CLAP layer): a page edit
	// of a value or a gesture.
	std::function<void(ParamContext, double)> paramValueChanged;
	std::function<void(ParamContext, bool)> paramGestureChanged;
	std::function<void(ParamContext, int)> paramSteppedChanged;

	// The page's lease on spectra: one every `meterIntervalSamples` while
	// `meterRemainingSamples` lasts.
	std::atomic<std::int32_t> meterIntervalSamples{0}, meterRemainingSamples{0};
	std::int32_t meterCounter = 0; // audio thread only

	std::vector<MessageSlot> queue;
	// Written by the main thread alone; the audio thread reads it, relaxed, only
	// to decide whether to wake the main thread.
	std::atomic<std::size_t> readIndex{0};
	std::atomic<bool> resendState{false};
	std::atomic<bool> overflowed{false}; // the ring was full; the drain says so, once
	// Set by the drain after a whole state: the page may have started afresh,
	// so the next spectrum goes out whole (the effect's uiStateRestart()).
	std::atomic<bool> uiStateRestartDue{false};
	std::atomic<std::size_t> writeIndex{0};

	WebUILibraryEffect() : queue(ringSize) {
		typename Base::WebParamScanner scanner{this, {}};
		this->state(scanner);
		// The first drain sends the whole state, to a page that may or may not exist yet.
		requestWholeState();
	}

	// [audio-thread] Runs the effect; then, if the block answered a meter
	// request, queues the spectrum, and keeps the page's lease running.
	void process(const float *const *inputs, float *const *outputs, std::size_t length) {
		Library::process(inputs, outputs, length);
		if (this->hasMeters.load()) {
			if (MessageSlot *slot = claimSlot()) {
				WebStateWriter writer(slot->bytes, nullptr, false);
				writer.writer.writeHead(4, 2);
				writer.writer.addText("meters");
				writer.writer.openMap();
				if constexpr (detail::HasUiState<Library, WebStateWriter>::value) {
					if (uiStateRestartDue.exchange(false)) this->uiStateRestart();
					this->uiState(writer);
				}
				writer.writer.addBreak();
				slot->ready = true;
			}
			this->hasMeters = false;
			this->wantsMeters = false;
		}
		if (meterRemainingSamples.load() > 0) {
			meterRemainingSamples -= std::int32_t(length);
			meterCounter += std::int32_t(length);
			if (meterCounter > meterIntervalSamples.load()) {
				this->hasMeters = false;
				this->wantsMeters = true;
				meterCounter = 0;
			}
		}
	}

	// [any thread] Queues an update of one parameter: single-key maps down its
	// path, then the parameter whole.
	template<class Param>
	void sendParamUpdate(Param &param) {
		MessageSlot *slot = claimSlot();
		if (!slot) return;
		cbor::CborWriter path(slot->bytes);
		for (const auto &key : param.path) {
			path.writeHead(5, 1);
			path.addText(key);
		}
		WebStateWriter writer(slot->bytes, nullptr, true);
		writer.writeObject(param);
		slot->ready = true;
	}

	// [main-thread] One message from the page: "ready", ["meters", interval,
	// duration], a merge, or ["state", merge]. Anything else is dropped.
	void webReceive(const void *bytes, std::size_t length) {
		const auto *begin = static_cast<const unsigned char *>(bytes);
		cbor::TaggedCborWalker walker(begin, begin + length);
		if (walker.type == cbor::CborType::Array || walker.type == cbor::CborType::IndefiniteArray) {
			cbor::TaggedCborWalker element(walker.data, walker.end);
			if (walker.type == cbor::CborType::Array && walker.value == 0) return;
			if (element.type != cbor::CborType::Utf8) return;
			if (element.textEquals("ready")) {
				pageReady();
			} else if (element.textEquals("meters")) {
				const cbor::TaggedCborWalker interval(element.next());
				const cbor::TaggedCborWalker duration(interval.next());
				const double rate = this->config.sampleRate;
				meterIntervalSamples = samples(rate * meterSeconds(interval));
				meterRemainingSamples = samples(rate * meterSeconds(duration));
			} else if (element.textEquals("state")) {
				const cbor::TaggedCborWalker merge(element.next());
				if (merge.type == cbor::CborType::Map || merge.type == cbor::CborType::IndefiniteMap) {
					readWebCborAndReply(merge);
				}
			}
			return;
		}
		if (walker.type == cbor::CborType::Map || walker.type == cbor::CborType::IndefiniteMap) {
			readWebCborAndReply(walker);
		} else if (walker.type == cbor::CborType::Utf8 && walker.textEquals("ready")) {
			pageReady();
		}
	}

	// [main-thread] Applies a merge from the page and replies with what changed.
	void readWebCborAndReply(cbor::TaggedCborWalker walker) {
		varkesh::storage::DirtySet dirty;
		WebStateReader reader(walker, &dirty, true);
		reader.readObject(*this);
		if (dirty.empty() || resendState.load()) return;
		if (MessageSlot *slot = claimSlot()) {
			cbor::CborWriter head(slot->bytes);
			head.writeHead(4, 2);
			head.addText("state");
			WebStateWriter writer(slot->bytes, &dirty, true);
			writer.writeObject(*this);
			slot->ready = true;
		}
	}

	// [main-thread] Reads a saved state into the parameters; the page then
	// gets the whole state.
	void loadState(const std::vector<unsigned char> &bytes) {
		quorl::storage::StateReader reader(cbor::TaggedCborWalker(bytes.data(), bytes.data() + bytes.size()));
		reader.readObject(*this);
		requestWholeState();
	}

	// [main-thread] Writes the saved state.
	void saveState(std::vector<unsigned char> &bytes) {
		bytes.clear();
		quorl::storage::StateWriter writer(bytes);
		writer.writeObject(*this);
	}

	// [main-thread] Drains the ring in order, handing each message to `send`.
	// A pending whole state replaces everything queued.
	template<class Send>
	void drainMessages(Send &&send) {
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
				// Without the uiState: the audio thread owns it and may be
				// writing it now. The next meters message carries it whole.
				slot->bytes.clear();
				WebStateWriter writer(slot->bytes, nullptr, false);
				writer.writeObject(*this);
				uiStateRestartDue = true;
			}
			send(slot->bytes);
			slot->ready = false;
			slot = &queue[read];
		}
	}

	// [audio-thread] True if a message waits for the drain.
	bool messageWaiting() const { return queue[readIndex.load(std::memory_order_relaxed)].ready.load(); }

private:
	// Claims the next slot, or returns null: while a whole state is pending
	// (it will carry the change), or when the ring is full, which makes the
	// whole state pending.
	MessageSlot *claimSlot() {
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

	// An empty slot with the whole state pending: the drain fills it.
	void requestWholeState() {
		if (resendState.load()) return;
		if (MessageSlot *slot = claimSlot()) {
			resendState = true;
			slot->ready = true;
		}
	}

	void pageReady() { requestWholeState(); }

	// Truncated towards zero; saturating (and NaN as 0), since the numbers come
	// from the page.
	static std::int32_t samples(double value) {
		if (!(value == value)) return 0;
		if (value >= 2147483647.0) return 2147483647;
		if (value <= -2147483648.0) return -2147483647 - 1;
		return std::int32_t(value);
	}

	static double meterSeconds(const cbor::TaggedCborWalker &item) {
		switch (item.type) {
		case cbor::CborType::Unsigned:
		case cbor::CborType::Negative:
		case cbor::CborType::Float32:
		case cbor::CborType::Float64:
			return item.asDouble();
		default:
			return 0;
		}
	}
};

} // namespace quorl::web
