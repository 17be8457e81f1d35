#pragma once
// lumbrel-editor-host's main thread: one plug-in of a bundle, created,
// activated and kept running on the test signal by an AudioLoop, with its
// editor's side of clap.webview/3 carried over frames (frames.h) on a pair of
// file descriptors, so that another program can show the page in a browser.
//
// Frames to the host (kind, payload):
//   'g'  u32 request, path         a page file, through webview/3 get_resource
//   'm'  bytes                     a message from the page (webview/3 receive)
//   'p'  u32 request               the parameter list (param_list.h)
//   'v'  u32 request, u32 id       params_get_value and its value_to_text; "ok" false for an unknown id.
//                                  Like any host's read, it spares the plug-in sending that value as an event.
//   't'  u32 request, u32 id, f64  value_to_text of a value (empty text for an unknown id)
//   'a'  u32 request, u32 id, f64  a value event for the next block, as automation
//   'e'  u32 request               parameter events the plug-in sent the host since the last 'e'
//   'R'  u32 request               deactivate and activate again, as on a host's restart
//   'q'                            stop
// Frames from the host:
//   'h'  JSON                      first of all: {"id", "name", "sampleRate",
//                                  "blockSize", "latency", "uri"}
//   's'  bytes                     a message for the page (the host's webview/3 send)
//   'r'  u32 request, u8 found, u8 type length, media type, bytes
//   'j'  u32 request, JSON         the answer to 'p', 'v', 't', 'a', 'e' and 'R'
// Numbers are little-endian; f64 is an IEEE double. Requests are answered in
// the order they come. A broken stream or its end stops the host.
#include "bridge/audio_loop.h"
#include "bridge/frames.h"
#include "host/host.h"
#include "host/instance.h"

#include <clap/ext/draft/webview.h>

#include <cstdint>
#include <string>

namespace lumbrel::bridge {

class EditorHost {
public:
	// `instance` is created and initialised, not yet active. Frames come in on
	// `inFd` and go out on `outFd`.
	EditorHost(host::Instance &instance, int inFd, int outFd, double sampleRate = 48000, std::uint32_t blockSize = 256);
	~EditorHost();

	// Activates the plug-in, starts the audio and serves frames until told to
	// stop or the input ends. Returns the process's exit status: 0 after 'q' or
	// the end of the input, 1 if the plug-in wouldn't activate (at the start or
	// on 'R') or the stream broke.
	int run();

private:
	host::Instance &instance;
	int inFd, outFd;
	double sampleRate;
	std::uint32_t blockSize;
	int wakePipe[2] = {-1, -1};
	const clap_plugin_webview *webview = nullptr;
	bool outputGone = false;
	bool failed = false; // the plug-in wouldn't activate again

	void send(const std::vector<std::uint8_t> &frame);
	void sendHello();
	void answer(std::uint32_t request, const std::string &json);
	// Forwards what the plug-in has sent the page since the last call.
	void forwardPageMessages();
	// Handles one frame; false for 'q'.
	bool handle(const Frame &frame, AudioLoop &audio);
	void serveResource(std::uint32_t request, const std::string &path);
	// Stops the audio, deactivates, activates and starts the audio again.
	bool restart(AudioLoop &audio);
};

} // namespace lumbrel::bridge
