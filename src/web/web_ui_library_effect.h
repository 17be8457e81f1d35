#pragma once
#include "frame/library_effect.h"
#include "frame/library_effect_base.h"
#include "storage/cbor_writer.h"
#include "storage/quorl_storage.h"
#include "storage/tagged_cbor_walker.h"
#include "web/message_ring.h"
#include "web/meter_lease.h"
#include "web/page_messages.h"
#include "web/web_state.h"
#include "web/web_ui_helper.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
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
// Messages to the page go through `ring`; spectra go while the page's
// `meterLease` runs.
template<class Sample, template<class> class Wrapper>
class WebUILibraryEffect : public LibraryEffect<Sample, WebQUORL<Sample, Wrapper>> {
	using Library = LibraryEffect<Sample, WebQUORL<Sample, Wrapper>>;
	using Helper = WebUIHelper<Wrapper, WebUILibraryEffect>;
	using Base = typename Helper::template WebBase<LibraryEffectBase<Sample>>;

public:
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	std::string webPagePath = "html/index.html";
	// Editor size in logical pixels.
	std::uint32_t webWidth = 500, webHeight = 300;

	// The road from the page to the host (set by the CLAP layer): a page edit
	// of a value or a gesture.
	std::function<void(ParamContext, double)> paramValueChanged;
	std::function<void(ParamContext, bool)> paramGestureChanged;
	std::function<void(ParamContext, int)> paramSteppedChanged;

	MeterLease meterLease;
	MessageRing ring;
	// Set by the drain after a whole state: the page may have started afresh,
	// so the next spectrum goes out whole (the effect's uiStateRestart()).
	std::atomic<bool> uiStateRestartDue{false};

	WebUILibraryEffect() {
		typename Base::WebParamScanner scanner{this, {}};
		this->state(scanner);
		// The first drain sends the whole state, to a page that may or may not exist yet.
		ring.requestWholeState();
	}

	// [audio-thread] Runs the effect; then, if the block answered a meter
	// request, queues the spectrum, and keeps the page's lease running.
	void process(const float *const *inputs, float *const *outputs, std::size_t length) {
		Library::process(inputs, outputs, length);
		if (this->hasMeters.load()) {
			if (MessageSlot *slot = ring.claim()) {
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
		if (meterLease.advance(std::int32_t(length))) {
			this->hasMeters = false;
			this->wantsMeters = true;
		}
	}

	// [any thread] Queues an update of one parameter: single-key maps down its
	// path, then the parameter whole.
	template<class Param>
	void sendParamUpdate(Param &param) {
		MessageSlot *slot = ring.claim();
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
		readPageMessage(
			bytes, length, [this] { ring.requestWholeState(); },
			[this](double interval, double duration) { meterLease.grant(this->config.sampleRate, interval, duration); },
			[this](const varkesh::cbor::TaggedCborWalker &merge) { readWebCborAndReply(merge); });
	}

	// [main-thread] Applies a merge from the page and replies with what changed.
	void readWebCborAndReply(cbor::TaggedCborWalker walker) {
		varkesh::storage::DirtySet dirty;
		WebStateReader reader(walker, &dirty, true);
		reader.readObject(*this);
		if (dirty.empty() || ring.resendState.load()) return;
		if (MessageSlot *slot = ring.claim()) {
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
		ring.requestWholeState();
	}

	// [main-thread] Writes the saved state.
	void saveState(std::vector<unsigned char> &bytes) {
		bytes.clear();
		quorl::storage::StateWriter writer(bytes);
		writer.writeObject(*this);
	}

	// [main-thread] Drains the ring in order, handing each message to `send`.
	template<class Send>
	void drainMessages(Send &&send) {
		ring.drain(
			[this](std::vector<unsigned char> &bytes) {
				// Without the uiState: the audio thread owns it and may be
				// writing it now. The next meters message carries it whole.
				WebStateWriter writer(bytes, nullptr, false);
				writer.writeObject(*this);
				uiStateRestartDue = true;
			},
			send);
	}
};

} // namespace quorl::web
