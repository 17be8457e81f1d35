// libFuzzer target for the messages a plug-in's page sends it through
// clap.webview/3 `receive`. The first byte picks one of the bundle's plug-ins;
// the rest is a sequence of messages, each a two-byte big-endian length and
// that many bytes (the last takes what is left). Between messages the
// plug-in plays a block and takes its main-thread turn, as it would in a host,
// so page edits reach the audio thread and replies reach the page. Nothing may
// fault, the output must stay finite and bounded, and the state the messages
// leave must save, load back and save to the same bytes.
//
// Built by scripts/fuzz.sh with clang and -fsanitize=fuzzer,address,undefined.
#include "plugin_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
	if (size < 1) return 0;
	auto &plugin = lumbrel_fuzz::FuzzedPlugin::pick(data[0]);
	std::size_t at = 1;
	while (at < size) {
		std::size_t length = size - at;
		if (length >= 2) {
			const std::size_t stated = std::size_t(data[at]) << 8 | data[at + 1];
			at += 2;
			length = std::min(stated, size - at);
		} else {
			at += length;
			length = 0;
		}
		// An exact-size copy, so that a read past the message is caught.
		const std::vector<std::uint8_t> message(data + at, data + at + length);
		at += length;
		plugin.receive(message.data(), message.size());
		plugin.process(64);
		plugin.mainThread();
	}
	plugin.process();
	plugin.mainThread();
	plugin.checkStateRoundTrip();
	return 0;
}
