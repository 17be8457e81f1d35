#pragma once
// What the effect tests share: the built bundle per test, the host's view of
// the parameter list, the saved state, setting parameters by their text, the
// page's spectra, and blocks of random length for hostile automation.
#include "host/bundle.h"
#include "host/instance.h"
#include "storage/cbor_diagnostic.h"
#include "storage/cbor_writer.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace lumbrel_test {

#ifdef LUMBREL_BUNDLE_PATH
// A test on the built Lumbrel.clap, loaded afresh for each test.
class BundleTest : public ::testing::Test {
protected:
	void SetUp() override {
		bundle = lumbrel_test::bundle();
		ASSERT_TRUE(bundle);
	}
	std::unique_ptr<lumbrel::host::Bundle> bundle;
};
#endif

// A parameter as the host lists it: key path, name, text of the default.
struct ExpectedParam {
	std::initializer_list<const char *> path;
	const char *name, *defaultText;
};

// Checks the host's parameter list in order, and that it holds no more: the
// engine group every effect lists first, then `own`; ids, names, defaults.
inline void expectParams(const lumbrel::host::Instance &instance, std::initializer_list<ExpectedParam> own) {
	const ExpectedParam engine[] = {
		{{"engineConfig", "latencyMs"}, "latency", "10ms"},
		{{"engineConfig", "overlap"}, "overlap", "4"},
		{{"engineConfig", "resolution"}, "resolution", "20"},
		{{"engineConfig", "iterationsLog2"}, "iterations", "4"},
		{{"engineConfig", "directCopy"}, "direct", "on"},
	};
	ASSERT_EQ(instance.paramCount(), std::size(engine) + own.size());
	std::uint32_t index = 0;
	auto check = [&](const ExpectedParam &expected) {
		SCOPED_TRACE(expected.name);
		clap_param_info info{};
		ASSERT_TRUE(instance.paramInfo(index++, info));
		EXPECT_EQ(info.id, paramId(expected.path));
		EXPECT_STREQ(info.name, expected.name);
		EXPECT_EQ(instance.paramText(info.id, info.default_value), expected.defaultText);
	};
	for (const ExpectedParam &expected : engine) check(expected);
	for (const ExpectedParam &expected : own) check(expected);
}

// A stepped parameter and the integers it runs over.
struct SteppedParam {
	std::initializer_list<const char *> path;
	double low, high;
};

// Checks every parameter's flags and range: those in `stepped` are stepped
// over their integers; all others run from 0 to 1, and the text of any
// position reads back to a value with the same text. All are automatable.
inline void expectRanges(const lumbrel::host::Instance &instance, std::initializer_list<SteppedParam> stepped) {
	std::size_t steppedFound = 0;
	for (std::uint32_t i = 0; i < instance.paramCount(); ++i) {
		clap_param_info info{};
		ASSERT_TRUE(instance.paramInfo(i, info));
		SCOPED_TRACE(info.name);
		const auto found = std::find_if(
			stepped.begin(), stepped.end(), [&](const SteppedParam &s) { return paramId(s.path) == info.id; });
		if (found != stepped.end()) {
			++steppedFound;
			EXPECT_EQ(info.flags, std::uint32_t(CLAP_PARAM_IS_AUTOMATABLE | CLAP_PARAM_IS_STEPPED));
			EXPECT_EQ(info.min_value, found->low);
			EXPECT_EQ(info.max_value, found->high);
			continue;
		}
		EXPECT_EQ(info.flags, std::uint32_t(CLAP_PARAM_IS_AUTOMATABLE));
		EXPECT_EQ(info.min_value, 0.0);
		EXPECT_EQ(info.max_value, 1.0);
		for (int step = 0; step <= 40; ++step) {
			const std::string text = instance.paramText(info.id, step / 40.0);
			double back = -1;
			ASSERT_TRUE(instance.paramFromText(info.id, text, back)) << text;
			EXPECT_EQ(instance.paramText(info.id, back), text) << step / 40.0;
		}
	}
	EXPECT_EQ(steppedFound, stepped.size()) << "stepped parameters listed";
}

// The host value (a position, or a stepped parameter's integer) that the
// plug-in reads from `text`.
inline double valueOf(PluginRunner &runner, clap_id id, const std::string &text) {
	double value = -1;
	EXPECT_TRUE(runner.instance->paramFromText(id, text, value)) << text;
	return value;
}

// Sets a parameter to the value that `text` shows.
inline void setText(PluginRunner &runner, clap_id id, const std::string &text) { runner.set(id, valueOf(runner, id, text)); }
inline void setText(PluginRunner &runner, std::initializer_list<const char *> path, const std::string &text) {
	setText(runner, paramId(path), text);
}

// The saved state in CBOR diagnostic notation.
inline std::string savedDiagnostic(const lumbrel::host::Instance &instance) {
	std::vector<std::uint8_t> saved;
	EXPECT_TRUE(instance.saveState(saved));
	return diagnostic(std::vector<unsigned char>(saved.begin(), saved.end()));
}

// Checks the saved state to the letter: the top map names the effect `name`,
// holds the engine group at its defaults, then `own` (diagnostic notation).
inline void expectSavedState(const lumbrel::host::Instance &instance, const std::string &name, const std::string &own) {
	EXPECT_EQ(savedDiagnostic(instance),
		"{_ \"name\": \"" + name + "\", \"desc\": \"\", \"version\": 0, "
		"\"engineConfig\": {_ \"name\": \"Engine\", \"desc\": \"\", \"version\": 0, \"latencyMs\": {_ \"value\": 10.0}, "
		"\"overlap\": {_ \"value\": 4.0}, \"resolution\": {_ \"value\": 20.0}, \"iterationsLog2\": {_ \"value\": 2}, "
		"\"directCopy\": {_ \"value\": 1}}, " + own + "}");
}

// Position of the head of the CBOR text `key` (definite length, below 256
// bytes) in `bytes`; -1 where it is not.
inline std::ptrdiff_t keyAt(const std::vector<std::uint8_t> &bytes, const std::string &key) {
	std::vector<std::uint8_t> item;
	if (key.size() < 24) {
		item = {std::uint8_t(0x60 + key.size())};
	} else {
		item = {0x78, std::uint8_t(key.size())};
	}
	item.insert(item.end(), key.begin(), key.end());
	const auto found = std::search(bytes.begin(), bytes.end(), item.begin(), item.end());
	return found == bytes.end() ? -1 : found - bytes.begin();
}

// Checks a saved state's head and key order: a map of indefinite length whose
// first entry is "name": `name`, with `keys` after it in this order.
inline void expectKeyOrder(const std::vector<std::uint8_t> &saved, const std::string &name,
	std::initializer_list<const char *> keys) {
	ASSERT_GT(saved.size(), 30u);
	EXPECT_EQ(saved[0], 0xBF);
	EXPECT_EQ(keyAt(saved, "name"), 1);
	EXPECT_EQ(keyAt(saved, name), 6);
	std::ptrdiff_t previous = 0;
	for (const char *key : keys) {
		const std::ptrdiff_t at = keyAt(saved, key);
		EXPECT_GT(at, previous) << key;
		previous = at;
	}
}

// True where every sample is a finite number.
inline bool allFinite(const std::vector<float> &x) {
	return std::all_of(x.begin(), x.end(), [](float v) { return std::isfinite(v); });
}

} // namespace lumbrel_test
