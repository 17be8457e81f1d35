#include "host/key_paths.h"

#include "clap/crc32.h"
#include "storage/tagged_cbor_walker.h"

#include <string_view>

namespace lumbrel::host {

namespace {

using varkesh::cbor::CborType;
using varkesh::cbor::TaggedCborWalker;

// Saved states nest a few levels; anything deeper is not one of ours.
constexpr std::size_t maxDepth = 16;

bool isMap(const TaggedCborWalker &item) { return item.type == CborType::Map || item.type == CborType::IndefiniteMap; }

bool isObjectField(std::string_view key) { return key == "name" || key == "desc" || key == "version"; }

// A parameter's object holds "value" and nothing else.
bool isParameter(const TaggedCborWalker &object) {
	int keys = 0;
	bool hasValue = false;
	object.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &) {
		++keys;
		hasValue = hasValue || key.textEquals("value");
	});
	return keys == 1 && hasValue;
}

std::string objectName(const TaggedCborWalker &object) {
	std::string name;
	object.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		if (key.textEquals("name") && value.type == CborType::Utf8) name = std::string(value.stringView());
	});
	return name;
}

void walk(const TaggedCborWalker &object, StateKeyPath &path, std::vector<StateKeyPath> &out) {
	if (path.keys.size() >= maxDepth) return;
	object.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		if (key.type != CborType::Utf8 || !key.contentFits() || !isMap(value)) return;
		const std::string_view text = key.stringView();
		if (isObjectField(text)) return;
		path.keys.emplace_back(text);
		if (isParameter(value)) {
			StateKeyPath leaf = path;
			leaf.id = keyPathId(leaf.keys);
			out.push_back(std::move(leaf));
		} else {
			path.groupNames.push_back(objectName(value));
			walk(value, path, out);
			path.groupNames.pop_back();
		}
		path.keys.pop_back();
	});
}

} // namespace

std::string StateKeyPath::dotted() const {
	std::string text;
	for (const auto &key : keys) text += (text.empty() ? "" : ".") + key;
	return text;
}

std::vector<StateKeyPath> stateKeyPaths(const std::uint8_t *bytes, std::size_t size) {
	std::vector<StateKeyPath> out;
	if (!bytes || size == 0) return out;
	const TaggedCborWalker root(bytes, bytes + size);
	if (!isMap(root)) return out;
	StateKeyPath path;
	walk(root, path, out);
	return out;
}

std::uint32_t keyPathId(const std::vector<std::string> &keys) {
	quorl::clap::Crc32 crc;
	for (const auto &key : keys) {
		for (const char c : key) crc.addByte(static_cast<unsigned char>(c));
		crc.addByte(0);
	}
	return ~crc.value;
}

} // namespace lumbrel::host
