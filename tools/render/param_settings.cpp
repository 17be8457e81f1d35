#include "render/param_settings.h"

#include "host/events.h"

namespace lumbrel::render {

bool resolveSettings(const ParamTable &table, const ParamSettings &settings, double sampleRate, bool skipUnknown,
	ResolvedSettings &out, std::string &error) {
	out = {};
	for (const auto &[key, text] : settings.values) {
		const ParamEntry *entry = table.find(key, error);
		if (!entry && skipUnknown) {
			out.skipped.push_back(key + "=" + text);
			continue;
		}
		if (!entry) return false;
		double value = 0;
		if (!table.readValue(*entry, text, value, error)) return false;
		out.values.emplace_back(entry->info.id, value);
	}
	for (const auto &option : settings.automation) {
		AutomationText parsed;
		if (!parseAutomation(option, sampleRate, parsed, error)) return false;
		const ParamEntry *entry = table.find(parsed.key, error);
		if (!entry && skipUnknown) {
			out.skipped.push_back(option);
			continue;
		}
		if (!entry) return false;
		AutomationLane lane;
		lane.id = entry->info.id;
		lane.stepped = entry->stepped();
		for (const auto &[frame, text] : parsed.points) {
			double value = 0;
			if (!table.readValue(*entry, text, value, error)) return false;
			lane.points.push_back({frame, value});
		}
		out.lanes.push_back(std::move(lane));
	}
	return true;
}

void sendValues(const host::Instance &instance, const std::vector<std::pair<clap_id, double>> &values) {
	if (values.empty()) return;
	host::InputEvents in;
	host::OutputEvents out;
	for (const auto &[id, value] : values) in.paramValue(0, id, value);
	instance.paramsFlush(in, out);
}

} // namespace lumbrel::render
