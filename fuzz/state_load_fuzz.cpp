// libFuzzer target for a plug-in's clap.state load. The first byte picks one
// of the bundle's plug-ins, the rest is the state blob it is asked to load.
// Whatever the blob, the load must not fault; afterwards the plug-in must
// still play (finite, bounded output), show its page (the whole state, as a
// page's "ready" asks for it, formats every loaded value), and save a state
// that loads back and saves to the same bytes.
//
// Built by scripts/fuzz.sh with clang and -fsanitize=fuzzer,address,undefined.
#include "plugin_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
	if (size < 1) return 0;
	auto &plugin = lumbrel_fuzz::FuzzedPlugin::pick(data[0]);
	const std::vector<std::uint8_t> blob(data + 1, data + size);

	plugin.process();
	plugin.instance->loadState(blob);
	const std::uint8_t ready[] = {0x65, 'r', 'e', 'a', 'd', 'y'};
	FUZZ_CHECK(plugin.receive(ready, sizeof(ready)));
	for (int block = 0; block < 4; ++block) {
		plugin.process(block % 2 ? 1 : lumbrel_fuzz::FuzzedPlugin::maxFrames);
		plugin.mainThread();
	}
	plugin.checkStateRoundTrip();

	// Loaded again while it plays: the same, whether or not it loaded before.
	plugin.instance->loadState(blob);
	plugin.process();
	plugin.mainThread();
	plugin.checkStateRoundTrip();
	return 0;
}
