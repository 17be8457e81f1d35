#pragma once
// What the effect tests share: the built bundle per test and setting
// parameters by their text.
#include "support/param_ids.h"
#include "support/plugin_runner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

// True where every sample is a finite number.
inline bool allFinite(const std::vector<float> &x) {
	return std::all_of(x.begin(), x.end(), [](float v) { return std::isfinite(v); });
}

} // namespace lumbrel_test
