#include "bridge/editor_host.h"

#include "bridge/json_text.h"
#include "bridge/param_list.h"
#include "host/streams.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace lumbrel::bridge {

EditorHost::EditorHost(host::Instance &instance, int inFd, int outFd, double sampleRate, std::uint32_t blockSize)
	: instance(instance), inFd(inFd), outFd(outFd), sampleRate(sampleRate), blockSize(blockSize) {
	if (::pipe(wakePipe) == 0) {
		for (int fd : wakePipe) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
	}
	webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
}

EditorHost::~EditorHost() {
	for (int fd : wakePipe) {
		if (fd >= 0) ::close(fd);
	}
}

void EditorHost::send(const std::vector<std::uint8_t> &frame) {
	if (!outputGone && !writeAll(outFd, frame)) outputGone = true;
}

void EditorHost::answer(std::uint32_t request, const std::string &json) {
	send(FrameWriter('j').u32(request).text(json).finish());
}

void EditorHost::sendHello() {
	const clap_plugin *plugin = instance.clapPlugin();
	JsonText json;
	json.beginObject();
	json.key("id").value(plugin->desc->id);
	json.key("name").value(plugin->desc->name ? plugin->desc->name : "");
	json.key("sampleRate").value(sampleRate);
	json.key("blockSize").value(blockSize);
	json.key("latency").value(instance.latency());
	char uri[1024] = {};
	if (webview && webview->get_uri(plugin, uri, sizeof(uri) - 1) > 0) json.key("uri").value(std::string(uri));
	json.endObject();
	send(FrameWriter('h').text(json.str()).finish());
}

void EditorHost::forwardPageMessages() {
	// The host's send runs on this thread only (it is [main-thread]), so the
	// list is ours to take between calls into the plug-in.
	auto &sent = instance.host().sentMessages;
	for (const auto &message : sent) send(FrameWriter('s').bytes(message.data(), message.size()).finish());
	sent.clear();
}

void EditorHost::serveResource(std::uint32_t request, const std::string &path) {
	host::MemoryOStream stream;
	char mediaType[256] = {};
	const bool found = webview
		&& webview->get_resource(instance.clapPlugin(), path.c_str(), mediaType, sizeof(mediaType) - 1, &stream.stream);
	const std::string type(mediaType);
	send(FrameWriter('r')
			.u32(request)
			.u8(found ? 1 : 0)
			.u8(std::uint8_t(type.size()))
			.text(type)
			.bytes(stream.bytes.data(), found ? stream.bytes.size() : 0)
			.finish());
}

bool EditorHost::handle(const Frame &frame, AudioLoop &audio) {
	PayloadReader in(frame.payload);
	switch (frame.kind) {
	case 'g': {
		const std::uint32_t request = in.u32();
		serveResource(request, in.restText());
		break;
	}
	case 'm': {
		std::size_t size = 0;
		const std::uint8_t *bytes = in.rest(size);
		if (webview) webview->receive(instance.clapPlugin(), bytes, std::uint32_t(size));
		forwardPageMessages();
		break;
	}
	case 'p': {
		const std::uint32_t request = in.u32();
		answer(request, paramListJson(instance));
		break;
	}
	case 'v':
	case 't': {
		const std::uint32_t request = in.u32();
		const clap_id id = in.u32();
		double value = frame.kind == 't' ? in.f64() : 0;
		const bool ok = !in.tooShort() && (frame.kind == 't' || instance.paramValue(id, value));
		JsonText json;
		json.beginObject().key("ok").value(ok);
		if (ok) json.key("value").value(value).key("text").value(instance.paramText(id, value));
		json.endObject();
		answer(request, json.str());
		break;
	}
	case 'a': {
		const std::uint32_t request = in.u32();
		const clap_id id = in.u32();
		const double value = in.f64();
		if (!in.tooShort()) audio.automate(id, value);
		answer(request, in.tooShort() ? "{\"ok\":false}" : "{\"ok\":true}");
		break;
	}
	case 'e': {
		const std::uint32_t request = in.u32();
		JsonText json;
		json.beginArray();
		for (const auto &event : audio.takeParamEvents()) {
			json.beginObject();
			json.key("type").value(event.type == CLAP_EVENT_PARAM_VALUE ? "value"
					: event.type == CLAP_EVENT_PARAM_GESTURE_BEGIN    ? "begin"
																		 : "end");
			json.key("id").value(std::uint32_t(event.id));
			if (event.type == CLAP_EVENT_PARAM_VALUE) json.key("value").value(event.value);
			json.endObject();
		}
		json.endArray();
		answer(request, json.str());
		break;
	}
	case 'R': {
		const std::uint32_t request = in.u32();
		const bool ok = restart(audio);
		JsonText json;
		json.beginObject().key("ok").value(ok).key("latency").value(instance.latency()).endObject();
		answer(request, json.str());
		return ok;
	}
	case 'q':
		return false;
	default:
		std::fprintf(stderr, "lumbrel-editor-host: unknown frame kind 0x%02x ignored\n", unsigned(std::uint8_t(frame.kind)));
		break;
	}
	return true;
}

bool EditorHost::restart(AudioLoop &audio) {
	audio.stop();
	instance.deactivate();
	if (!instance.activate(sampleRate, 1, blockSize)) {
		std::fprintf(stderr, "lumbrel-editor-host: %s would not activate again\n", instance.clapPlugin()->desc->id);
		failed = true;
		return false;
	}
	audio.start();
	return true;
}

int EditorHost::run() {
	if (wakePipe[0] < 0) {
		std::fprintf(stderr, "lumbrel-editor-host: cannot make a pipe\n");
		return 1;
	}
	if (!instance.activate(sampleRate, 1, blockSize)) {
		std::fprintf(stderr, "lumbrel-editor-host: %s would not activate\n", instance.clapPlugin()->desc->id);
		return 1;
	}
	sendHello();
	AudioLoop audio(instance, sampleRate, blockSize, wakePipe[1]);
	audio.start();

	FrameReader reader;
	std::vector<std::uint8_t> chunk(1 << 16);
	int status = 0;
	bool going = true;
	while (going && !outputGone) {
		pollfd fds[2] = {{inFd, POLLIN, 0}, {wakePipe[0], POLLIN, 0}};
		// The timeout is only a fallback: the audio thread wakes us when asked.
		const int ready = ::poll(fds, 2, 100);
		if (ready < 0 && errno != EINTR) break;

		if (fds[1].revents & POLLIN) {
			// One callback answers any number of requests made since the last.
			unsigned char drained[64];
			while (::read(wakePipe[0], drained, sizeof drained) > 0) {
			}
			instance.onMainThread();
			forwardPageMessages();
		}

		if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
			const ssize_t n = ::read(inFd, chunk.data(), chunk.size());
			if (n < 0 && errno == EINTR) continue;
			if (n <= 0) break; // the driving program has gone
			reader.append(chunk.data(), std::size_t(n));
			Frame frame;
			while (going && reader.next(frame)) going = handle(frame, audio);
			if (reader.broken()) {
				std::fprintf(stderr, "lumbrel-editor-host: broken frame stream on input\n");
				status = 1;
				going = false;
			}
		}
	}
	audio.stop();
	if (instance.active()) instance.deactivate();
	return failed ? 1 : status;
}

} // namespace lumbrel::bridge
