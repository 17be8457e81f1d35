#include "render/param_table.h"

#include "host/key_paths.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace lumbrel::render {

using host::StateKeyPath;
using host::stateKeyPaths;

namespace {

// Stepped ranges longer than this aren't listed value by value.
constexpr double maxListedSteps = 512;

std::string trimmed(const std::string &text) {
	const auto first = text.find_first_not_of(" \t");
	if (first == std::string::npos) return "";
	const auto last = text.find_last_not_of(" \t");
	return text.substr(first, last - first + 1);
}

std::string lower(std::string text) {
	for (auto &c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
	return text;
}

bool equalsIgnoringCase(const std::string &a, const std::string &b) { return lower(a) == lower(b); }

std::string quoted(const std::string &text) { return "\"" + text + "\""; }

// A value text split the way the plug-in reads it: an optional "-", digits
// with at most one "." or ",", then the unit.
struct NumberAndUnit {
	std::string number, unit;
	bool hasDigits = false;
};

NumberAndUnit splitNumber(const std::string &text) {
	NumberAndUnit out;
	std::size_t p = 0;
	if (p < text.size() && text[p] == '-') ++p;
	bool separator = false;
	for (; p < text.size(); ++p) {
		const char c = text[p];
		if (std::isdigit(static_cast<unsigned char>(c))) {
			out.hasDigits = true;
		} else if ((c == '.' || c == ',') && !separator) {
			separator = true;
		} else {
			break;
		}
	}
	out.number = text.substr(0, p);
	out.unit = trimmed(text.substr(p));
	return out;
}

bool parseWholeNumber(const std::string &text, long &number) {
	if (text.empty()) return false;
	errno = 0;
	char *end = nullptr;
	number = std::strtol(text.c_str(), &end, 10);
	return errno == 0 && end && *end == '\0' && end != text.c_str();
}

// A unit as people type it: which quantity, and its size in that
// quantity's base unit ("500ms" is 0.5 of seconds).
struct UnitMeaning {
	const char *quantity = nullptr;
	double scale = 1;
};

UnitMeaning unitMeaning(const std::string &typed) {
	static const struct {
		const char *quantity;
		double scale;
		std::vector<const char *> spellings;
	} units[] = {
		{"seconds", 1, {"s", "sec", "secs", "sec.", "second", "seconds"}},
		{"seconds", 0.001, {"ms", "msec", "msecs", "millisecond", "milliseconds"}},
		{"decibels", 1, {"db", "decibel", "decibels"}},
		{"semitones", 1, {"st", "s.t.", "semi", "semis", "semitone", "semitones"}},
		{"semitones", 0.01, {"ct", "cent", "cents"}},
		{"semitones", 12, {"oct", "oct.", "octave", "octaves"}},
		{"hertz", 1, {"hz", "hertz"}},
		{"hertz", 1000, {"khz", "kilohertz"}},
		{"percent", 1, {"%", "pct", "percent"}},
	};
	const std::string key = lower(trimmed(typed));
	for (const auto &unit : units) {
		for (const char *spelling : unit.spellings) {
			if (key == spelling) return {unit.quantity, unit.scale};
		}
	}
	return {};
}

// The number of `text` written with a point, times `factor`, in the
// shortest form that keeps it.
std::string scaledNumber(std::string number, double factor) {
	std::replace(number.begin(), number.end(), ',', '.');
	if (factor == 1) return number;
	char text[64];
	std::snprintf(text, sizeof text, "%.12g", std::strtod(number.c_str(), nullptr) * factor);
	return text;
}

std::string lastKey(const std::string &keyPath) { return keyPath.substr(keyPath.rfind('.') + 1); }

std::string joined(const std::vector<std::string> &items, const char *separator) {
	std::string text;
	for (const auto &item : items) text += (text.empty() ? "" : separator) + item;
	return text;
}

} // namespace

std::size_t editDistance(const std::string &a, const std::string &b) {
	std::vector<std::size_t> row(b.size() + 1);
	for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
	for (std::size_t i = 1; i <= a.size(); ++i) {
		std::size_t diagonal = row[0];
		row[0] = i;
		for (std::size_t j = 1; j <= b.size(); ++j) {
			const std::size_t above = row[j];
			row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
			diagonal = above;
		}
	}
	return row[b.size()];
}

ParamTable::ParamTable(const host::Instance &instance) : instance(instance) {
	pluginName = instance.clapPlugin()->desc->name;
	std::vector<std::uint8_t> state;
	std::vector<StateKeyPath> paths;
	if (instance.saveState(state)) paths = stateKeyPaths(state.data(), state.size());

	const std::uint32_t count = instance.paramCount();
	for (std::uint32_t i = 0; i < count; ++i) {
		ParamEntry entry;
		if (!instance.paramInfo(i, entry.info)) continue;
		entry.info.name[sizeof(entry.info.name) - 1] = '\0';
		for (const auto &path : paths) {
			if (path.id != entry.info.id) continue;
			entry.keyPath = path.dotted();
			std::vector<std::string> titles;
			for (const auto &title : path.groupNames) {
				if (!title.empty()) titles.push_back(title);
			}
			entry.groupNames = joined(titles, " / ");
			break;
		}
		list.push_back(std::move(entry));
	}
}

const ParamEntry *ParamTable::find(const std::string &name, std::string &error) const {
	for (const auto &entry : list) {
		if (!entry.keyPath.empty() && entry.keyPath == name) return &entry;
	}
	std::vector<const ParamEntry *> found;
	for (const auto &entry : list) {
		const bool fits = equalsIgnoringCase(entry.info.name, name)
			|| (!entry.keyPath.empty()
				&& (equalsIgnoringCase(entry.keyPath, name) || equalsIgnoringCase(lastKey(entry.keyPath), name)));
		if (fits) found.push_back(&entry);
	}
	if (found.size() == 1) return found[0];
	if (found.size() > 1) {
		std::vector<std::string> labels;
		for (const auto *entry : found) labels.push_back(entry->label());
		error = quoted(name) + " names " + std::to_string(found.size()) + " parameters of " + quoted(pluginName)
			+ ": give the key path, one of " + joined(labels, ", ");
		return nullptr;
	}
	error = "no parameter " + quoted(name) + " in " + quoted(pluginName);
	if (list.empty()) {
		error += ": it has no parameters";
	} else {
		const std::string close = closeMatches(name);
		const std::string id = instance.clapPlugin()->desc->id;
		error += close.empty() ? " (see --list --plugin " + id.substr(id.rfind('.') + 1) + ")" : "; close matches: " + close;
	}
	return nullptr;
}

std::string ParamTable::closeMatches(const std::string &name) const {
	const std::string wanted = lower(name);
	std::vector<std::pair<std::size_t, std::string>> scored;
	for (const auto &entry : list) {
		std::size_t best = std::string::npos;
		for (const std::string &candidate : {entry.keyPath, lastKey(entry.keyPath), std::string(entry.info.name)}) {
			if (candidate.empty()) continue;
			const std::string text = lower(candidate);
			std::size_t distance = editDistance(wanted, text);
			// A part of the name, or the name in a part, is close whatever its length.
			if (wanted.size() >= 3 && (text.find(wanted) != std::string::npos || wanted.find(text) != std::string::npos)) {
				distance = std::min<std::size_t>(distance, 1);
			}
			best = std::min(best, distance);
		}
		if (best <= std::max<std::size_t>(2, wanted.size() / 3)) scored.emplace_back(best, entry.label());
	}
	std::stable_sort(scored.begin(), scored.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
	std::vector<std::string> labels;
	for (std::size_t i = 0; i < scored.size() && i < 4; ++i) labels.push_back(scored[i].second);
	return joined(labels, ", ");
}

std::string ParamTable::text(const ParamEntry &entry, double value) const {
	return instance.paramText(entry.info.id, value);
}

std::string ParamTable::currentText(const ParamEntry &entry) const {
	double value = entry.info.default_value;
	instance.paramValue(entry.info.id, value);
	return text(entry, value);
}

std::vector<std::string> ParamTable::steppedTexts(const ParamEntry &entry) const {
	std::vector<std::string> texts;
	const double low = std::ceil(entry.info.min_value), high = std::floor(entry.info.max_value);
	if (!(high - low < maxListedSteps)) return texts;
	for (double v = low; v <= high; ++v) texts.push_back(text(entry, v));
	return texts;
}

std::string ParamTable::rangeText(const ParamEntry &entry) const {
	if (entry.stepped()) {
		const auto texts = steppedTexts(entry);
		if (!texts.empty() && texts.size() <= 16) return joined(texts, ", ");
	}
	return text(entry, entry.info.min_value) + " to " + text(entry, entry.info.max_value);
}

bool ParamTable::readValue(const ParamEntry &entry, const std::string &text, double &value, std::string &error) const {
	std::string t = trimmed(text);
	if (t.size() > 1 && t[0] == '+' && (std::isdigit(static_cast<unsigned char>(t[1])) || t[1] == '.')) t.erase(0, 1);
	if (t.empty()) {
		error = "no value given for " + entry.label();
		return false;
	}
	const bool ok = entry.stepped() ? readStepped(entry, t, value, error) : readRanged(entry, t, value, error);
	if (!ok) return false;
	const double tolerance = 1e-9 * std::max(1.0, std::abs(entry.info.max_value - entry.info.min_value));
	if (!std::isfinite(value) || value < entry.info.min_value - tolerance || value > entry.info.max_value + tolerance) {
		error = quoted(text) + " is outside the range of " + entry.label() + " (" + rangeText(entry) + ")";
		return false;
	}
	return true;
}

bool ParamTable::readStepped(const ParamEntry &entry, const std::string &t, double &value, std::string &error) const {
	// The plug-in knows its labels; a round trip tells a label from its
	// fallback to the default.
	double v = 0;
	if (instance.paramFromText(entry.info.id, t, v) && text(entry, v) == t) {
		value = v;
		return true;
	}
	const auto texts = steppedTexts(entry);
	// Plain numbers are the host's own units for a stepped parameter; the
	// plug-in reads only labels, so the tool takes a number that prints as
	// itself, or as a word ("none" for 0 semitones) when no other step prints
	// as that number. A unit may follow where the parameter's name is the
	// unit's quantity ("-12st" for semitones).
	auto parts = splitNumber(t);
	const UnitMeaning unit = unitMeaning(parts.unit);
	const bool unitFits = parts.unit.empty()
		|| (unit.quantity && unit.scale == 1 && lower(entry.label()).find(std::string(unit.quantity).substr(0, 6)) != std::string::npos);
	long number = 0;
	if (unitFits && parseWholeNumber(parts.number, number) && double(number) >= entry.info.min_value
		&& double(number) <= entry.info.max_value) {
		const std::string printed = text(entry, double(number)), wanted = std::to_string(number);
		const bool printsAsWord = !splitNumber(printed).hasDigits && std::find(texts.begin(), texts.end(), wanted) == texts.end();
		if (printed == wanted || splitNumber(printed).number == wanted || printsAsWord) {
			value = double(number);
			return true;
		}
	}
	// Labels in any case, and either name of a note: "C#" or "db" for "C#/Db".
	for (std::size_t i = 0; i < texts.size(); ++i) {
		bool fits = equalsIgnoringCase(texts[i], t);
		for (std::size_t from = 0; !fits && texts[i].find('/') != std::string::npos && from <= texts[i].size();) {
			const auto to = std::min(texts[i].find('/', from), texts[i].size());
			fits = equalsIgnoringCase(texts[i].substr(from, to - from), t);
			from = to + 1;
		}
		if (fits) {
			value = std::ceil(entry.info.min_value) + double(i);
			return true;
		}
	}
	error = quoted(t) + " is not a value of " + entry.label() + ": ";
	if (!texts.empty() && texts.size() <= 16) {
		error += "use one of " + joined(texts, ", ");
	} else {
		std::vector<std::string> words;
		for (std::size_t i = 0; i < texts.size(); ++i) {
			const auto n = long(std::ceil(entry.info.min_value)) + long(i);
			if (texts[i] != std::to_string(n)) words.push_back(texts[i]);
		}
		error += "use a whole number from " + std::to_string(long(entry.info.min_value)) + " to "
			+ std::to_string(long(entry.info.max_value));
		if (!words.empty()) error += " or " + joined(words, ", ");
	}
	return false;
}

bool ParamTable::readRanged(const ParamEntry &entry, const std::string &t, double &value, std::string &error) const {
	// What the parameter prints across its range: its units, and any words
	// that stand for a value.
	std::set<std::string> units, words;
	const double low = entry.info.min_value, high = entry.info.max_value;
	for (int k = 0; k <= 16; ++k) {
		const std::string printed = text(entry, low + (high - low) * k / 16.0);
		const auto parts = splitNumber(printed);
		(parts.hasDigits ? units : words).insert(parts.hasDigits ? parts.unit : printed);
	}
	const std::string example = text(entry, entry.info.default_value);

	auto parts = splitNumber(t);
	std::string understood = t;
	if (parts.hasDigits && !parts.unit.empty() && !units.count(parts.unit)) {
		// A unit as people type it ("1s", "500ms", "6db") in the one the
		// parameter prints ("sec", "dB"), converted where it is another size.
		const UnitMeaning typed = unitMeaning(parts.unit);
		for (const auto &printed : units) {
			const UnitMeaning own = printed.empty() ? UnitMeaning{} : unitMeaning(printed);
			if (typed.quantity && own.quantity && std::string(typed.quantity) == own.quantity) {
				parts.number = scaledNumber(parts.number, typed.scale / own.scale);
				parts.unit = printed;
				break;
			}
		}
	}
	if (parts.hasDigits) {
		// A bare number is in the unit the parameter prints, which is how the
		// plug-in reads it too; another unit would be taken as that one.
		if (!parts.unit.empty() && !units.count(parts.unit)) {
			error = quoted(t) + " is not a value of " + entry.label() + ": ";
			if (units.size() == 1 && units.count("")) {
				error += "it takes a plain number, e.g. " + quoted(example);
			} else {
				std::vector<std::string> named;
				for (const auto &unit : units) named.push_back(unit.empty() ? "no unit" : quoted(unit));
				error += "its unit is " + joined(named, " or ") + ", e.g. " + quoted(example);
			}
			return false;
		}
		// The plug-in's reading stops at a comma; the tool reads it as a point.
		std::replace(parts.number.begin(), parts.number.end(), ',', '.');
		understood = parts.number + (parts.unit.empty() ? "" : " " + parts.unit);
	} else if (!words.count(t)) {
		error = quoted(t) + " is not a value of " + entry.label() + ": give a number, e.g. " + quoted(example);
		return false;
	}
	if (!instance.paramFromText(entry.info.id, understood, value)) {
		error = entry.label() + " did not take " + quoted(t);
		return false;
	}
	// The plug-in clamps what it reads into the range, so a number beyond the
	// end it landed on was out of range.
	if (parts.hasDigits && (value <= low || value >= high)) {
		const double typed = std::strtod(parts.number.c_str(), nullptr);
		const double end = std::strtod(splitNumber(text(entry, value)).number.c_str(), nullptr);
		const double step = 1e-9 * std::max(1.0, std::abs(end));
		if ((value >= high && typed > end + step) || (value <= low && typed < end - step)) {
			error = quoted(t) + " is outside the range of " + entry.label() + " (" + rangeText(entry) + ")";
			return false;
		}
	}
	return true;
}

} // namespace lumbrel::render
