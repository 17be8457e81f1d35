#include "bridge/param_list.h"

#include "bridge/json_text.h"
#include "storage/tagged_cbor_walker.h"

#include <map>
#include <string_view>

namespace lumbrel::bridge {

namespace {

using varkesh::cbor::CborType;
using varkesh::cbor::TaggedCborWalker;

// A state nests a few levels; anything deeper is not an effect's.
constexpr std::size_t maxDepth = 16;

bool isMap(const TaggedCborWalker &item) { return item.type == CborType::Map || item.type == CborType::IndefiniteMap; }

bool isParameter(const TaggedCborWalker &object) {
	int keys = 0;
	bool hasValue = false;
	object.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &) {
		++keys;
		hasValue = hasValue || key.textEquals("value");
	});
	return keys == 1 && hasValue;
}

std::string groupName(const TaggedCborWalker &object) {
	std::string name;
	object.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		if (key.textEquals("name") && value.type == CborType::Utf8 && value.contentFits()) name = std::string(value.stringView());
	});
	return name;
}

void walk(const TaggedCborWalker &object, KeyPath &path, std::vector<KeyPath> &out) {
	if (path.keys.size() >= maxDepth) return;
	object.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		if (key.type != CborType::Utf8 || !key.contentFits() || !isMap(value)) return;
		path.keys.emplace_back(key.stringView());
		if (isParameter(value)) {
			out.push_back(path);
		} else {
			path.groups.push_back(groupName(value));
			walk(value, path, out);
			path.groups.pop_back();
		}
		path.keys.pop_back();
	});
}

} // namespace

std::vector<KeyPath> keyPathsOfState(const std::uint8_t *bytes, std::size_t size) {
	std::vector<KeyPath> out;
	if (!bytes || size == 0) return out;
	const TaggedCborWalker root(bytes, bytes + size);
	if (!isMap(root)) return out;
	KeyPath path;
	walk(root, path, out);
	return out;
}

std::uint32_t keyPathId(const std::vector<std::string> &keys) {
	std::uint32_t crc = 0xFFFFFFFFu;
	auto add = [&crc](unsigned char byte) {
		crc ^= byte;
		for (int k = 0; k < 8; ++k) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
	};
	for (const auto &key : keys) {
		for (unsigned char c : key) add(c);
		add(0);
	}
	return ~crc;
}

std::string paramListJson(const host::Instance &instance) {
	std::map<std::uint32_t, KeyPath> paths;
	std::vector<std::uint8_t> state;
	if (instance.saveState(state)) {
		for (auto &path : keyPathsOfState(state.data(), state.size())) paths[keyPathId(path.keys)] = std::move(path);
	}

	JsonText json;
	json.beginArray();
	const std::uint32_t count = instance.paramCount();
	for (std::uint32_t i = 0; i < count; ++i) {
		clap_param_info info{};
		if (!instance.paramInfo(i, info)) continue;
		double value = 0;
		const bool hasValue = instance.paramValue(info.id, value);
		json.beginObject();
		json.key("id").value(std::uint32_t(info.id));
		json.key("name").value(std::string(info.name));
		json.key("stepped").value((info.flags & CLAP_PARAM_IS_STEPPED) != 0);
		json.key("min").value(info.min_value);
		json.key("max").value(info.max_value);
		json.key("default").value(info.default_value);
		if (hasValue) {
			json.key("value").value(value);
			json.key("text").value(instance.paramText(info.id, value));
		}
		const auto found = paths.find(info.id);
		json.key("keys").beginArray();
		if (found != paths.end()) {
			for (const auto &key : found->second.keys) json.value(key);
		}
		json.endArray();
		json.key("groups").beginArray();
		if (found != paths.end()) {
			for (const auto &group : found->second.groups) json.value(group);
		}
		json.endArray();
		json.endObject();
	}
	json.endArray();
	return json.str();
}

} // namespace lumbrel::bridge
