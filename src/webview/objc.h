#pragma once
// Thin helpers over the Objective-C runtime, so that the macOS web view is
// written in C++ alone: no Objective-C source, only runtime calls. Apple only.
#include <objc/message.h>
#include <objc/runtime.h>

#include <type_traits>

namespace webview_gui::_objc {

// The class of that name as a receiver for class messages; nil if the class
// isn't loaded.
inline id classNamed(const char *name) { return reinterpret_cast<id>(objc_lookUpClass(name)); }

// A guarded message: a nil receiver, or one whose class doesn't respond to
// `selector`, counts as a nil (zero) result and the program goes on. The
// argument types must be exactly those of the method (BOOL, NSInteger as
// long, structures of doubles for rectangles): they are what the call passes.
template<class Result = id, class... Args>
Result send(id receiver, const char *selector, Args... args) {
	SEL name = sel_registerName(selector);
	if (!receiver || !class_respondsToSelector(object_getClass(receiver), name)) {
		if constexpr (std::is_void_v<Result>) {
			return;
		} else {
			return Result{};
		}
	}
	return reinterpret_cast<Result (*)(id, SEL, Args...)>(objc_msgSend)(receiver, name, args...);
}

// An autoreleased NSString of UTF-8 text.
inline id nsString(const char *text) { return send(classNamed("NSString"), "stringWithUTF8String:", text); }

// Whether `object` is of the named class or one derived from it; false for nil.
inline bool instanceOf(id object, const char *className) {
	Class type = objc_lookUpClass(className);
	return type && send<BOOL>(object, "isKindOfClass:", type);
}

// Releases an object that we own when the scope ends.
class ScopedRelease {
public:
	explicit ScopedRelease(id object) : object(object) {}
	~ScopedRelease() { send<void>(object, "release"); }
	ScopedRelease(const ScopedRelease &) = delete;
	ScopedRelease &operator=(const ScopedRelease &) = delete;
	id get() const { return object; }

private:
	id object;
};

// CGRect as the runtime passes it: four doubles (CGFloat on 64-bit targets).
struct Rect {
	double x, y, width, height;
};

} // namespace webview_gui::_objc
