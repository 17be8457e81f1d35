// The host-visible parameter list through clap.params: ids from key paths,
// infos, values as positions, text both ways, and how value events land.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"

#include <gtest/gtest.h>

#include <clap/clap.h>

#include <cmath>
#include <cstring>
#include <memory>

using namespace lumbrel::host;

namespace {

constexpr clap_id latencyId = 0x06A04C69; // "engineConfig\0latencyMs\0"
constexpr clap_id channelModeId = 0x9321A3CB; // "channelMode\0"

class Params : public ::testing::Test {
protected:
	void SetUp() override {
		std::string error;
		bundle = Bundle::load(LUMBREL_PROBE_PATH, error);
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<Instance>(*bundle, "lumbrel.test.chunk-probe", host);
		ASSERT_TRUE(instance->valid());
		ASSERT_TRUE(instance->init());
		params = instance->extension<clap_plugin_params>(CLAP_EXT_PARAMS);
		ASSERT_NE(params, nullptr);
	}

	clap_param_info info(std::uint32_t index) {
		clap_param_info result{};
		EXPECT_TRUE(params->get_info(instance->clapPlugin(), index, &result));
		return result;
	}
	double value(clap_id id) {
		double v = -999;
		EXPECT_TRUE(instance->paramValue(id, v));
		return v;
	}
	// Sends one value event in a 16-frame block.
	void send(clap_id id, double v, void *cookie = nullptr) {
		InputEvents events;
		events.paramValue(0, id, v, cookie);
		OutputEvents out;
		std::vector<float> buffer(16);
		float *channels[2] = {buffer.data(), buffer.data()};
		instance->process(channels, 2, channels, 2, 16, events, out);
	}

	Host host;
	std::unique_ptr<Bundle> bundle;
	std::unique_ptr<Instance> instance;
	const clap_plugin_params *params = nullptr;
};

} // namespace

TEST_F(Params, ListFollowsTheDeclarationWithPathIds) {
	ASSERT_EQ(instance->paramCount(), 4u);
	const clap_param_info latency = info(0), time = info(1), mode = info(2), shift = info(3);
	EXPECT_EQ(latency.id, latencyId);
	EXPECT_EQ(mode.id, channelModeId);
	EXPECT_STREQ(latency.name, "latency");
	EXPECT_STREQ(time.name, "time");
	EXPECT_STREQ(shift.name, "shift");
	for (const auto &i : {latency, time, mode, shift}) {
		EXPECT_EQ(i.module[0], '\0');
		EXPECT_EQ(std::memcmp(i.module, std::string(sizeof(i.module), '\0').data(), sizeof(i.module)), 0);
		EXPECT_NE(i.cookie, nullptr);
	}

	// Ranged: the host sees positions; the default is the position of 0.5 on
	// range(0.05, 0.5, 2), which is its midpoint.
	EXPECT_EQ(time.flags, std::uint32_t(CLAP_PARAM_IS_AUTOMATABLE));
	EXPECT_EQ(time.min_value, 0.0);
	EXPECT_EQ(time.max_value, 1.0);
	EXPECT_DOUBLE_EQ(time.default_value, 0.5);

	// Stepped: its own integers.
	EXPECT_EQ(mode.flags, std::uint32_t(CLAP_PARAM_IS_AUTOMATABLE | CLAP_PARAM_IS_STEPPED));
	EXPECT_EQ(mode.min_value, 0.0);
	EXPECT_EQ(mode.max_value, 1.0);
	EXPECT_EQ(mode.default_value, 1.0);
	EXPECT_EQ(shift.min_value, -24.0);
	EXPECT_EQ(shift.max_value, 24.0);

	clap_param_info none{};
	EXPECT_FALSE(params->get_info(instance->clapPlugin(), 4, &none));

	// Another instance has the same ids.
	Instance other(*bundle, "lumbrel.test.chunk-probe", host);
	ASSERT_TRUE(other.init());
	clap_param_info again{};
	ASSERT_TRUE(other.paramInfo(0, again));
	EXPECT_EQ(again.id, latencyId);
}

TEST_F(Params, TextBothWaysRoundTrips) {
	EXPECT_EQ(instance->paramText(channelModeId, 0), "mono");
	EXPECT_EQ(instance->paramText(channelModeId, 1), "full");
	EXPECT_EQ(instance->paramText(info(1).id, 0.5), "0.5 sec");
	EXPECT_EQ(instance->paramText(latencyId, 0.5), "10ms");

	double v = -1;
	ASSERT_TRUE(instance->paramFromText(channelModeId, "mono", v));
	EXPECT_EQ(v, 0.0);
	ASSERT_TRUE(instance->paramFromText(info(1).id, "2 sec", v));
	EXPECT_NEAR(v, 1.0, 1e-12);

	for (std::uint32_t index = 0; index < instance->paramCount(); ++index) {
		const clap_param_info i = info(index);
		for (int step = 0; step <= 20; ++step) {
			const double x = i.min_value + (i.max_value - i.min_value) * step / 20.0;
			double back = -1;
			ASSERT_TRUE(instance->paramFromText(i.id, instance->paramText(i.id, x), back)) << i.name;
			if (i.flags & CLAP_PARAM_IS_STEPPED) {
				// Labels read back exactly; bare numbers are no labels.
				if (i.id == channelModeId) EXPECT_EQ(back, std::round(x)) << i.name;
			} else {
				// Two decimals of the value: the position comes back to about that.
				EXPECT_NEAR(back, x, 0.02) << i.name << " at " << x;
			}
		}
	}

	// Unknown ids, and numbers beyond a double, are refused without a throw.
	char text[16];
	EXPECT_FALSE(params->value_to_text(instance->clapPlugin(), 0xDEAD, 0.5, text, sizeof(text)));
	EXPECT_FALSE(instance->paramFromText(0xDEAD, "1", v));
	EXPECT_FALSE(instance->paramFromText(info(1).id, "1e999 sec", v));
	EXPECT_FALSE(instance->paramFromText(info(3).id, "99999999999999 st", v));

	// A short buffer gets the first bytes, with no terminator.
	std::memset(text, 'x', sizeof(text));
	ASSERT_TRUE(params->value_to_text(instance->clapPlugin(), info(1).id, 0.5, text, 4));
	EXPECT_EQ(std::string(text, 5), "0.5 x");
}

TEST_F(Params, ValueEventsStoreWithoutClamping) {
	ASSERT_TRUE(instance->activate(48000, 1, 256));
	const clap_id time = info(1).id, shift = info(3).id;

	send(time, 0.5);
	EXPECT_EQ(instance->paramText(time, value(time)), "0.5 sec");
	// Beyond the range the curve is taken as it stands: position 1.5 is past
	// its pole (at 1/0.7) and maps to 0.875 / -0.05.
	send(time, 1.5);
	EXPECT_NEAR(value(time), 1.5, 1e-9);
	EXPECT_EQ(instance->paramText(time, value(time)), "-17.5 sec");

	// Stepped values round halves away from zero.
	send(shift, 1.5);
	EXPECT_EQ(value(shift), 2.0);
	send(shift, 2.5);
	EXPECT_EQ(value(shift), 3.0);
	send(shift, -0.5);
	EXPECT_EQ(value(shift), -1.0);
	send(shift, 40); // out of range, kept
	EXPECT_EQ(value(shift), 40.0);

	// The cookie is honoured only when it belongs to the id.
	const clap_param_info modeInfo = info(2), latencyInfo = info(0);
	send(channelModeId, 0, modeInfo.cookie);
	EXPECT_EQ(value(channelModeId), 0.0);
	send(channelModeId, 1, latencyInfo.cookie); // wrong cookie: dropped
	EXPECT_EQ(value(channelModeId), 0.0);
	send(0xDEAD, 1); // unknown id: nothing
	EXPECT_EQ(value(channelModeId), 0.0);
}

TEST_F(Params, FlushAppliesEventsWithoutAudio) {
	InputEvents events;
	events.paramValue(0, channelModeId, 0);
	OutputEvents out;
	instance->paramsFlush(events, out);
	EXPECT_EQ(value(channelModeId), 0.0);
	EXPECT_TRUE(out.pushed.empty()) << "host values are not echoed";
}
