#pragma once
#include "host/instance.h"

#include <clap/clap.h>

#include <string>
#include <vector>

namespace lumbrel::render {

// Levenshtein distance, for suggesting what a person may have meant.
std::size_t editDistance(const std::string &a, const std::string &b);

// One parameter as the host sees it, with the key path that the plug-in's
// saved state gives it (CLAP's own info carries no module path).
struct ParamEntry {
	clap_param_info info{};
	std::string keyPath; // "engineConfig.latencyMs"; empty if the saved state doesn't name this id
	std::string groupNames; // titles of the groups on the way, e.g. "Engine"; " / " between levels

	bool stepped() const { return (info.flags & CLAP_PARAM_IS_STEPPED) != 0; }
	// How messages name it: the key path, else the display name.
	std::string label() const { return keyPath.empty() ? std::string(info.name) : keyPath; }
};

// The parameters of one instance, found by the names a person types and set
// by the texts the plug-in prints. Main thread, like the calls it makes. The
// instance must outlive the table.
class ParamTable {
public:
	explicit ParamTable(const host::Instance &instance);

	const std::vector<ParamEntry> &entries() const { return list; }

	// Finds a parameter by key path ("peakShifterConfig.semitones"), else by
	// display name or by the last key of its path, in any case. Null, with a
	// one-line `error` that lists close matches, if no parameter or more than
	// one fits.
	const ParamEntry *find(const std::string &name, std::string &error) const;

	// Turns `text` into the host value of `entry` through the plug-in's
	// params_text_to_value, and checks what the plug-in can't say, since it
	// reads bad text as the default: that the text held a number, bare or with
	// a unit the parameter prints, or one of the words it prints (the labels
	// of a stepped parameter, in any case), and that the value lies in the
	// parameter's range. A leading "+" and a decimal comma are accepted. False
	// with a one-line `error` otherwise.
	bool readValue(const ParamEntry &entry, const std::string &text, double &value, std::string &error) const;

	// The plug-in's text for a host value, and for the value it holds now.
	std::string text(const ParamEntry &entry, double value) const;
	std::string currentText(const ParamEntry &entry) const;
	// "2 ms to 15 ms", or the labels of a short stepped range: "off, on".
	std::string rangeText(const ParamEntry &entry) const;

private:
	const host::Instance &instance;
	std::string pluginName;
	std::vector<ParamEntry> list;

	bool readStepped(const ParamEntry &entry, const std::string &text, double &value, std::string &error) const;
	bool readRanged(const ParamEntry &entry, const std::string &text, double &value, std::string &error) const;
	std::vector<std::string> steppedTexts(const ParamEntry &entry) const;
	std::string closeMatches(const std::string &name) const;
};

} // namespace lumbrel::render
