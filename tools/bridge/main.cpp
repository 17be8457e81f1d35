// lumbrel-editor-host: one plug-in of a Lumbrel bundle, running on a test
// signal in real time, with its editor's webview/3 side carried over frames on
// stdin and stdout (editor_host.h). editor-bridge.mjs drives it and shows the
// page in a browser; anything else that speaks the frames can too.
#include "bridge/editor_host.h"
#include "bridge/json_text.h"
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

using namespace lumbrel;

namespace {

const char usage[] =
	"usage: lumbrel-editor-host [--bundle PATH] [--plugin ID] [--rate HZ] [--block FRAMES]\n"
	"       lumbrel-editor-host [--bundle PATH] --list\n"
	"Runs one plug-in on a test signal and serves its editor over framed stdin/stdout.\n"
	"  --bundle PATH    the .clap file (default: the one of this build)\n"
	"  --plugin ID      a plug-in id, name, or the id's last part, e.g. swell (default: the first)\n"
	"  --rate HZ        sample rate (default 48000)\n"
	"  --block FRAMES   block size (default 256)\n"
	"  --list           print the bundle's plug-ins as JSON and stop\n";

int fail(const std::string &message) {
	std::fprintf(stderr, "lumbrel-editor-host: %s\n", message.c_str());
	return 1;
}

} // namespace

int main(int argc, char **argv) {
	std::string bundlePath, pluginKey;
	double sampleRate = 48000;
	long blockSize = 256;
	bool list = false;
#ifdef LUMBREL_BUILD_BUNDLE
	bundlePath = LUMBREL_BUILD_BUNDLE;
#endif
	for (int i = 1; i < argc; ++i) {
		const std::string arg = argv[i];
		const bool hasValue = i + 1 < argc;
		if (arg == "--bundle" && hasValue) bundlePath = argv[++i];
		else if (arg == "--plugin" && hasValue) pluginKey = argv[++i];
		else if (arg == "--rate" && hasValue) sampleRate = std::atof(argv[++i]);
		else if (arg == "--block" && hasValue) blockSize = std::atol(argv[++i]);
		else if (arg == "--list") list = true;
		else if (arg == "--help" || arg == "-h") {
			std::fputs(usage, stdout);
			return 0;
		} else {
			std::fputs(usage, stderr);
			return fail("unknown or incomplete argument " + arg);
		}
	}
	if (!(sampleRate >= 8000 && sampleRate <= 384000)) return fail("--rate must be from 8000 to 384000");
	if (blockSize < 16 || blockSize > 8192) return fail("--block must be from 16 to 8192");
	if (bundlePath.empty()) return fail("no bundle: name one with --bundle");

	std::string error;
	auto bundle = host::Bundle::load(bundlePath, error);
	if (!bundle) return fail(error);

	if (list) {
		bridge::JsonText json;
		json.beginArray();
		for (std::uint32_t i = 0; i < bundle->count(); ++i) {
			const auto *d = bundle->descriptor(i);
			if (!d) continue;
			json.beginObject().key("id").value(d->id).key("name").value(d->name ? d->name : "").endObject();
		}
		json.endArray();
		std::printf("%s\n", json.str().c_str());
		return 0;
	}

	const clap_plugin_descriptor *descriptor = pluginKey.empty() ? bundle->descriptor(0) : bundle->find(pluginKey);
	if (!descriptor) return fail("no plug-in \"" + pluginKey + "\" in " + bundlePath + " (--list shows them)");

	// A driver that has gone shows as a failed write, and the host winds down in order.
	std::signal(SIGPIPE, SIG_IGN);
	// Frames own standard output; anything the plug-in prints goes to the error stream.
	const int frameOut = ::dup(STDOUT_FILENO);
	if (frameOut < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) return fail("cannot set up standard output");

	host::Host host;
	auto instance = std::make_unique<host::Instance>(*bundle, descriptor->id, host);
	if (!instance->valid()) return fail(std::string("cannot create ") + descriptor->id);
	if (!instance->init()) return fail(std::string(descriptor->id) + " failed to initialise");

	int status = 0;
	{
		bridge::EditorHost editor(*instance, STDIN_FILENO, frameOut, sampleRate, std::uint32_t(blockSize));
		status = editor.run();
	}
	instance.reset();
	::close(frameOut);
	return status;
}
