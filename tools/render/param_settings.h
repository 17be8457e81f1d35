#pragma once
#include "host/instance.h"
#include "render/automation.h"
#include "render/param_table.h"

#include <clap/clap.h>

#include <string>
#include <utility>
#include <vector>

namespace lumbrel::render {

// What the command line asks of a plug-in's parameters, as typed.
struct ParamSettings {
	std::vector<std::pair<std::string, std::string>> values; // --set KEY=VALUE
	std::vector<std::string> automation; // --automate KEY=TIME:VALUE,...
};

// The same, checked against one instance: host values by id, and lanes.
struct ResolvedSettings {
	std::vector<std::pair<clap_id, double>> values;
	std::vector<AutomationLane> lanes;
	std::vector<std::string> skipped; // each --set or --automate text that `skipUnknown` let pass, as typed
};

// Looks up every name and reads every value text through `table`; times
// count at `sampleRate`. An unknown name is an error, or, with `skipUnknown`,
// an entry in `skipped`; a bad value or time is always an error. False with
// a one-line `error` at the first fault.
bool resolveSettings(const ParamTable &table, const ParamSettings &settings, double sampleRate, bool skipUnknown,
	ResolvedSettings &out, std::string &error);

// Sets the values on the main thread through params_flush, as a host does
// before it activates a plug-in.
void sendValues(const host::Instance &instance, const std::vector<std::pair<clap_id, double>> &values);

} // namespace lumbrel::render
