#pragma once
// The script every native web view runs at document start in the main frame,
// and the text around a message sent to the page. The page speaks only to
// `window.parent`; in the top frame that is the window itself, and this script
// catches those posts and hands them to the native side as base64 text.
//
// 1. `Uint8Array.prototype.toBase64` if missing, through `btoa`.
// 2. `Uint8Array.fromBase64` if missing, through `atob`. The array takes the
//    length of the base64 text, not of the bytes, so it ends in zeros: the
//    page's CBOR decoder stops after one item, so nothing reads them.
// 3. A capturing "message" listener on `window`: an event whose source is the
//    window itself is stopped and its bytes posted to the script message
//    handler "webviewGui_receive" as base64. Other events (ours from `send`,
//    which have no source) pass.

namespace webview_gui {

inline constexpr const char *injectedScript = R"js((function () {
	if (!Uint8Array.prototype.toBase64) {
		Uint8Array.prototype.toBase64 = function () {
			let text = '';
			for (let i = 0; i < this.length; ++i) text += String.fromCharCode(this[i]);
			return btoa(text);
		};
	}
	if (!Uint8Array.fromBase64) {
		Uint8Array.fromBase64 = function (base64) {
			const text = atob(base64);
			const bytes = new Uint8Array(base64.length);
			for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
			return bytes;
		};
	}
	window.addEventListener('message', function (e) {
		if (e.source == window) {
			e.stopImmediatePropagation();
			const data = new Uint8Array(e.data);
			window.webkit.messageHandlers.webviewGui_receive.postMessage(data.toBase64());
		}
	}, true);
})();)js";

// The name under which the page reaches the native side.
inline constexpr const char *scriptMessageName = "webviewGui_receive";

// A message to the page is this, the bytes in base64, and `sendScriptEnd`:
// a MessageEvent with no source carrying an ArrayBuffer, as a host sends to
// an iframe.
inline constexpr const char *sendScriptStart
	= "window.dispatchEvent(new MessageEvent('message',{data:Uint8Array.fromBase64('";
inline constexpr const char *sendScriptEnd = "').buffer}))";

// The scheme of pages served from memory, and the base their paths resolve against.
inline constexpr const char *schemeName = "webview-gui";
inline constexpr const char *schemeBase = "webview-gui://";

} // namespace webview_gui
