#include "bridge/param_list.h"

#include "bridge/json_text.h"
#include "host/key_paths.h"

#include <map>

namespace lumbrel::bridge {

std::string paramListJson(const host::Instance &instance) {
	std::map<std::uint32_t, host::StateKeyPath> paths;
	std::vector<std::uint8_t> state;
	if (instance.saveState(state)) {
		for (auto &path : host::stateKeyPaths(state.data(), state.size())) paths[path.id] = std::move(path);
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
			for (const auto &group : found->second.groupNames) json.value(group);
		}
		json.endArray();
		json.endObject();
	}
	json.endArray();
	return json.str();
}

} // namespace lumbrel::bridge
