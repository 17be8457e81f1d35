#pragma once
// For test programs that run GTK and WebKit, under LeakSanitizer (the
// sanitizer builds): those libraries keep allocations for the life of the
// process, and the checker's scan of WebKit's thread-local storage faults.
// So thread-local storage isn't scanned, and leaks whose stack passes through
// those libraries (or the loader, which grows its tables for them) are
// suppressed; a leak in our own code is still reported. Include in one source
// file of the program. Without LeakSanitizer nothing calls these.

extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_options() { return "use_tls=0"; }

extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_suppressions() {
	return "leak:libgtk-3.so\n"
		   "leak:libgdk-3.so\n"
		   "leak:libglib-2.0.so\n"
		   "leak:libgobject-2.0.so\n"
		   "leak:libgio-2.0.so\n"
		   "leak:libwebkit2gtk-4.1.so\n"
		   "leak:libjavascriptcoregtk-4.1.so\n"
		   "leak:libfontconfig.so\n"
		   "leak:libpango\n"
		   "leak:libcairo.so\n"
		   "leak:libX11.so\n"
		   "leak:libsoup-3.0.so\n"
		   "leak:libdbus-1.so\n"
		   "leak:_dl_resize_dtv\n"
		   "leak:add_to_global_resize\n";
}
