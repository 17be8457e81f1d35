#pragma once
#include "clap/host_streams.h"
#include "storage/saved_state_name.h"

#include <clap/clap.h>

namespace quorl::clap {

// "clap.state" of a `Plugin`: the effect's parameters as one CBOR map,
// carried through the host's streams in the plug-in's reused `stateBuffer`.
template<class Plugin>
struct StateExtension {
	// [main-thread]
	static bool state_save(const clap_plugin *plugin, const clap_ostream *stream) {
		auto *p = Plugin::self(plugin);
		p->effect.saveState(p->stateBuffer);
		return writeWhole(stream, p->stateBuffer.data(), p->stateBuffer.size());
	}

	// [main-thread] False, changing nothing, for bytes that are no saved state
	// of this plug-in: empty, not a map, or another plug-in's (by its "name").
	// Otherwise what the bytes hold is read as far as it makes sense, the rest
	// keeps its values, and the host is asked to read the values again.
	static bool state_load(const clap_plugin *plugin, const clap_istream *stream) {
		auto *p = Plugin::self(plugin);
		if (!readWhole(stream, p->stateBuffer)) return false;
		if (!::quorl::storage::isSavedStateOf(p->stateBuffer, p->stateName)) return false;
		p->effect.loadState(p->stateBuffer);
		p->sendWebMessages();
		if (p->hostParams) p->hostParams->rescan(p->host, CLAP_PARAM_RESCAN_VALUES);
		return true;
	}

	static constexpr clap_plugin_state table{state_save, state_load};
};

} // namespace quorl::clap
