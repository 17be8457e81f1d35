#pragma once
// What the effect tests share: the built bundle per test, parameters set by their text.
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
class BundleTest : public ::testing::Test {
protected:
	void SetUp() override {
		bundle = lumbrel_test::bundle();
		ASSERT_TRUE(bundle);
	}
	std::unique_ptr<lumbrel::host::Bundle> bundle;
};
#endif

// The host value (a position, or a stepped parameter's integer) that `text` shows.
inline double valueOf(PluginRunner &runner, clap_id id, const std::string &text) {
	double value = -1;
	EXPECT_TRUE(runner.instance->paramFromText(id, text, value)) << text;
	return value;
}

inline void setText(PluginRunner &runner, clap_id id, const std::string &text) { runner.set(id, valueOf(runner, id, text)); }
inline void setText(PluginRunner &runner, std::initializer_list<const char *> path, const std::string &text) {
	setText(runner, paramId(path), text);
}

inline bool allFinite(const std::vector<float> &x) {
	return std::all_of(x.begin(), x.end(), [](float v) { return std::isfinite(v); });
}

} // namespace lumbrel_test
