#pragma once
// Hex input, diagnostic notation of what the walker sees, and a re-encoder (tests and fuzz target).
#include "storage/cbor_walker.h"
#include "storage/cbor_writer.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace lumbrel_test {

// "83 01 02" or "830102" to bytes; anything but hex digits is ignored.
inline std::vector<unsigned char> hexBytes(std::string_view hex) {
	std::vector<unsigned char> bytes;
	std::string digits;
	for (char c : hex)
		if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
	for (std::size_t i = 0; i + 1 < digits.size(); i += 2) bytes.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
	return bytes;
}

inline varkesh::cbor::CborWalker walkerOn(const std::vector<unsigned char> &bytes) {
	return {bytes.data(), bytes.data() + bytes.size()};
}

// The shortest decimal that reads back as the same double, whole ones as "10.0".
inline std::string diagnosticNumber(double v) {
	if (std::isnan(v) || std::isinf(v)) return std::isnan(v) ? "NaN" : v > 0 ? "Infinity" : "-Infinity";
	char text[40];
	if (v == std::floor(v) && std::fabs(v) < 1e15) std::snprintf(text, sizeof text, "%.1f", v);
	for (int precision = 1; precision <= 17 && !(v == std::floor(v) && std::fabs(v) < 1e15); ++precision) {
		std::snprintf(text, sizeof text, "%.*g", precision, v);
		if (std::strtod(text, nullptr) == v) break;
	}
	const std::string s = text;
	return s.find_first_of(".e") == std::string::npos ? s + ".0" : s;
}

// Containers nested deeper than this print as "..." and don't re-encode.
constexpr unsigned diagnosticDepth = 64;

// RFC 8949 diagnostic notation: a 16-bit float shows as simple(0), an error as error(code), also after
// a container whose walk ended in one.
inline std::string diagnostic(const varkesh::cbor::CborWalker &item, unsigned depth = 0) {
	using varkesh::cbor::CborType;
	using varkesh::cbor::CborWalker;
	if (depth > diagnosticDepth) return "...";
	switch (item.type) {
	case CborType::Unsigned:
		return std::to_string(item.value);
	case CborType::Negative:
		return item.value == UINT64_MAX ? "-18446744073709551616" : "-" + std::to_string(item.value + 1);
	case CborType::Bytes: {
		if (!item.contentFits()) return "error(1)";
		std::string s = "h'";
		static const char digits[] = "0123456789abcdef";
		for (unsigned char c : item.stringView()) {
			s += digits[c >> 4];
			s += digits[c & 15];
		}
		return s + "'";
	}
	case CborType::Utf8:
		if (!item.contentFits()) return "error(1)";
		return "\"" + std::string(item.stringView()) + "\"";
	case CborType::Tag:
		return std::to_string(item.value) + "(" + diagnostic(CborWalker(item.data, item.end), depth + 1) + ")";
	case CborType::Simple: {
		static const char *const named[] = {"false", "true", "null", "undefined"};
		return item.value >= 20 && item.value <= 23 ? named[item.value - 20] : "simple(" + std::to_string(item.value) + ")";
	}
	case CborType::Float32:
	case CborType::Float64:
		return diagnosticNumber(item.asDouble());
	case CborType::Error:
		return "error(" + std::to_string(item.value) + ")";
	case CborType::Break:
		return "break";
	default:
		break;
	}
	const bool map = item.type == CborType::Map || item.type == CborType::IndefiniteMap;
	const bool indefinite = item.type != CborType::Array && item.type != CborType::Map;
	const bool array = item.type == CborType::Array || item.type == CborType::IndefiniteArray;
	std::string body, s = std::string(map ? "{" : array ? "[" : "(") + (indefinite ? "_ " : "");
	const CborWalker after = map ? item.forEachPair([&](const CborWalker &key, const CborWalker &value) {
		body += (body.empty() ? "" : ", ") + diagnostic(key, depth + 1) + ": " + diagnostic(value, depth + 1);
	}) : item.forEach([&](const CborWalker &child, std::size_t) { body += (body.empty() ? "" : ", ") + diagnostic(child, depth + 1); });
	s += body + (map ? "}" : array ? "]" : ")");
	if (after.isError() && !after.atBufferEnd()) s += " error(" + std::to_string(after.value) + ")";
	return s;
}

inline std::string diagnostic(const std::vector<unsigned char> &bytes) { return diagnostic(walkerOn(bytes)); }

// Writes `item` again: shortest heads, 64-bit floats, indefinite kept indefinite. False (part written)
// on an error or nesting too deep.
inline bool reencode(const varkesh::cbor::CborWalker &item, varkesh::cbor::CborWriter &writer, unsigned depth = 0) {
	using varkesh::cbor::CborType;
	using varkesh::cbor::CborWalker;
	if (depth > diagnosticDepth) return false;
	bool ok = true;
	auto child = [&](const CborWalker &c, std::size_t = 0) { ok = ok && reencode(c, writer, depth + 1); };
	auto pair = [&](const CborWalker &key, const CborWalker &value) { child(key), child(value); };
	// A walk ends cleanly on the item after the container or at the end of the buffer.
	auto clean = [](const CborWalker &after) { return !after.isError() || after.atBufferEnd(); };
	const unsigned char major = static_cast<unsigned char>(item.type);
	switch (item.type) {
	case CborType::Unsigned:
	case CborType::Negative:
	case CborType::Simple:
		writer.writeHead(major, item.value);
		return true;
	case CborType::Bytes:
	case CborType::Utf8:
		if (!item.contentFits()) return false;
		writer.writeHead(major, item.value);
		writer.writeRaw(item.data, item.value);
		return true;
	case CborType::Tag:
		writer.addTag(item.value);
		return reencode(CborWalker(item.data, item.end), writer, depth + 1);
	case CborType::Float32:
	case CborType::Float64:
		writer.addFloat(item.asDouble());
		return true;
	case CborType::Break:
		writer.addBreak();
		return true;
	case CborType::Array:
		writer.writeHead(4, item.value);
		return clean(item.forEach(child)) && ok;
	case CborType::Map:
		writer.writeHead(5, item.value);
		return clean(item.forEachPair(pair)) && ok;
	case CborType::IndefiniteBytes:
	case CborType::IndefiniteUtf8:
	case CborType::IndefiniteArray:
		writer.writeByte(*item.begin);
		ok = clean(item.forEach(child)) && ok;
		writer.addBreak();
		return ok;
	case CborType::IndefiniteMap:
		writer.openMap();
		ok = clean(item.forEachPair(pair)) && ok;
		writer.addBreak();
		return ok;
	default:
		return false;
	}
}

} // namespace lumbrel_test
