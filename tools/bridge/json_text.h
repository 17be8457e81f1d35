#pragma once
// Just enough JSON writing for the editor host's answers: objects, arrays,
// numbers, booleans and escaped text, appended to one string.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

namespace lumbrel::bridge {

class JsonText {
public:
	JsonText &beginObject() { return open('{'); }
	JsonText &endObject() { return close('}'); }
	JsonText &beginArray() { return open('['); }
	JsonText &endArray() { return close(']'); }

	// A key inside an object; the value follows with one of the calls below.
	JsonText &key(const std::string &name) {
		comma();
		quoted(name);
		text += ':';
		afterKey = true;
		return *this;
	}

	JsonText &value(const std::string &s) {
		comma();
		quoted(s);
		return *this;
	}
	JsonText &value(const char *s) { return value(std::string(s)); }
	JsonText &value(bool b) {
		comma();
		text += b ? "true" : "false";
		return *this;
	}
	JsonText &value(std::uint32_t n) {
		comma();
		text += std::to_string(n);
		return *this;
	}
	JsonText &value(std::int64_t n) {
		comma();
		text += std::to_string(n);
		return *this;
	}
	// Enough digits to read back the same double; JSON has no NaN or infinity,
	// so those become null.
	JsonText &value(double d) {
		comma();
		if (!std::isfinite(d)) {
			text += "null";
			return *this;
		}
		char buffer[32];
		std::snprintf(buffer, sizeof buffer, "%.17g", d);
		text += buffer;
		return *this;
	}

	const std::string &str() const { return text; }

private:
	std::string text;
	bool first = true, afterKey = false;

	JsonText &open(char c) {
		comma();
		text += c;
		first = true;
		return *this;
	}
	JsonText &close(char c) {
		text += c;
		first = false;
		return *this;
	}
	void comma() {
		if (afterKey) {
			afterKey = false;
			return;
		}
		if (!first) text += ',';
		first = false;
	}
	void quoted(const std::string &s) {
		text += '"';
		for (unsigned char c : s) {
			if (c == '"' || c == '\\') {
				text += '\\';
				text += char(c);
			} else if (c < 0x20) {
				char escaped[8];
				std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
				text += escaped;
			} else {
				text += char(c);
			}
		}
		text += '"';
	}
};

} // namespace lumbrel::bridge
