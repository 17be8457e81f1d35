// What a CLAP host relies on, tried on all ten plug-ins the way a DAW calls
// them: the entry and factory; a state load asks the host to read the values
// again; every value's text reads back to it; bad text and foreign states are
// refused; parameters are listed under their group, and every host is offered
// the editor. (The silent audio thread: realtime_test.cpp.)
#include "support/plugin_runner.h"

#include <gtest/gtest.h>

#include <clap/clap.h>

#include <cctype>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace lumbrel::host;

namespace {

std::vector<clap_param_info> infos(const Instance &instance) {
	std::vector<clap_param_info> list(instance.paramCount());
	for (std::uint32_t i = 0; i < list.size(); ++i) EXPECT_TRUE(instance.paramInfo(i, list[i]));
	return list;
}

// Moves every parameter away from its default, through the host's flush.
void editEverything(Instance &instance) {
	InputEvents events;
	for (const auto &info : infos(instance)) {
		const double span = info.max_value - info.min_value;
		double value = info.min_value + (info.flags & CLAP_PARAM_IS_STEPPED ? std::round(span / 3) : span * 0.37);
		if (value == info.default_value) value = info.max_value;
		events.paramValue(0, info.id, value);
	}
	OutputEvents out;
	instance.paramsFlush(events, out);
}

struct HostContract : ::testing::Test {
	std::unique_ptr<Bundle> bundle = lumbrel_test::bundle();
};

} // namespace

TEST_F(HostContract, TheEntryAndFactoryOfferTenPlugInsByIdAndNothingElse) {
	const auto is127 = [](const clap_version &v) { return v.major == 1 && v.minor == 2 && v.revision == 7; };
	EXPECT_TRUE(is127(bundle->entry().clap_version));
	for (const char *id : {"clap.plugin-factory2", "clap.plugin-factor", ""}) EXPECT_FALSE(bundle->entry().get_factory(id)) << id;
	ASSERT_EQ(bundle->count(), 10u);
	EXPECT_EQ(bundle->descriptor(10), nullptr);
	Host host;
	std::set<std::string> ids;
	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const clap_plugin_descriptor *d = bundle->descriptor(p);
		SCOPED_TRACE(d->id);
		EXPECT_TRUE(is127(d->clap_version) && ids.insert(d->id).second && !std::strncmp(d->id, "varkesh.lumbrel.", 16)
			&& !std::strncmp(d->name, "Lumbrel", 7) && d->vendor && d->url && d->manual_url && d->support_url
			&& d->version && d->description && !std::strcmp(d->features[0], CLAP_PLUGIN_FEATURE_AUDIO_EFFECT));
		Instance instance(*bundle, d->id, host);
		ASSERT_TRUE(instance.valid() && instance.init());
		const clap_plugin *plugin = instance.clapPlugin();
		EXPECT_EQ(plugin->desc, d);
		EXPECT_FALSE(plugin->get_extension(plugin, "clap.audio-ports.x"));
		EXPECT_TRUE(plugin->get_extension(plugin, CLAP_EXT_AUDIO_PORTS));
	}
	for (const char *id : {"varkesh.lumbrel.octave", ""}) EXPECT_FALSE(Instance(*bundle, id, host).valid()) << id;
}

TEST_F(HostContract, StatesAndTextsReadBackAndWhatIsNoneOfThisPlugInsIsRefused) {
	std::vector<std::uint8_t> previous; // the last plug-in's state: a foreign one
	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const char *id = bundle->descriptor(p)->id;
		SCOPED_TRACE(id);
		Host host, recording;
		Instance edited(*bundle, id, host), fresh(*bundle, id, recording);
		ASSERT_TRUE(edited.init() && fresh.init());
		editEverything(edited);
		std::vector<std::uint8_t> saved, again;
		ASSERT_TRUE(edited.saveState(saved) && fresh.loadState(saved) && fresh.saveState(again));
		EXPECT_EQ(recording.rescanCalls.load(), 1) << "one rescan per load";
		EXPECT_EQ(recording.lastRescanFlags.load(), std::uint32_t(CLAP_PARAM_RESCAN_VALUES));
		EXPECT_EQ(again, saved);
		// Bytes that are no saved state of this plug-in: false, nothing changes,
		// no rescan. A map that reads in part still loads.
		std::mt19937 random(p);
		std::vector<std::uint8_t> noise(200);
		for (auto &b : noise) b = std::uint8_t(random() & 0x7F); // never a map head
		for (const auto &bad : {std::vector<std::uint8_t>{}, std::vector<std::uint8_t>{0x01}, noise, previous})
			EXPECT_FALSE(fresh.loadState(bad)) << bad.size() << " bytes";
		EXPECT_EQ(recording.rescanCalls.load(), 1);
		ASSERT_TRUE(fresh.saveState(again));
		EXPECT_EQ(again, saved) << "refused blobs change nothing";
		EXPECT_TRUE(fresh.loadState(std::vector<std::uint8_t>(saved.begin(), saved.begin() + saved.size() / 2)));
		EXPECT_EQ(recording.rescanCalls.load(), 2);
		previous = saved;

		std::set<std::string> listed;
		for (const auto &info : infos(edited)) {
			const std::string where = std::string(info.module) + "/" + info.name;
			SCOPED_TRACE(where);
			EXPECT_TRUE(listed.insert(where).second) << "module and name tell parameters apart";
			double a = 0, b = 1;
			EXPECT_TRUE(edited.paramValue(info.id, a) && fresh.paramValue(info.id, b) && a == b) << "loaded";
			// Every value's text reads back to it, also as users type it: any
			// case, a blank before the unit or none.
			const bool stepped = info.flags & CLAP_PARAM_IS_STEPPED;
			for (int k = -1; k <= 16; ++k) {
				double v = k < 0 ? info.default_value : info.min_value + (info.max_value - info.min_value) * k / 16.0;
				if (stepped) v = std::round(v);
				const std::string text = edited.paramText(info.id, v);
				double back = -1;
				ASSERT_TRUE(edited.paramFromText(info.id, text, back)) << text;
				EXPECT_TRUE(edited.paramText(info.id, back) == text && (!stepped || back == v)) << text;
				const std::size_t split = text.find_last_of("0123456789") + 1;
				std::string upper = text, number = text.substr(0, split), unit = text.substr(split);
				for (auto &c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
				for (const std::string &typed : {upper, number, number + " " + unit, " " + number + unit + " "}) {
					if (split == 0 && typed != upper) continue; // a label
					double read = -1;
					ASSERT_TRUE(edited.paramFromText(info.id, typed, read)) << '"' << typed << '"';
					EXPECT_EQ(edited.paramText(info.id, read), text) << '"' << typed << '"';
				}
			}
			// Nothing else reads, a refusal leaves the value alone, and results lie within the range.
			for (const char *bad : {"", "garbage", "1 furlong", "nan", "inf", "--3", "1 2"}) {
				double untouched = 12345;
				EXPECT_TRUE(!edited.paramFromText(info.id, bad, untouched) && untouched == 12345) << '"' << bad << '"';
			}
			double high = 0, low = 0;
			EXPECT_TRUE(edited.paramFromText(info.id, "1e9", high) && edited.paramFromText(info.id, "-1e9", low));
			EXPECT_TRUE(high == info.max_value && low == info.min_value) << low << " " << high;
		}
	}
}

TEST_F(HostContract, GroupsAreModulesAndTheEditorIsOfferedToEveryHost) {
	Host host;
	Instance shifter(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", host);
	ASSERT_TRUE(shifter.init());
	std::set<std::string> modules;
	for (const auto &info : infos(shifter)) modules.insert(info.module);
	EXPECT_EQ(modules, (std::set<std::string>{"", "Engine", "Spectral peaks", "Output gains", "Transpose", "Timbre"}));

	// A scanner without timers (or a web view) still learns there is an
	// editor; only creating one needs what runs it.
	Host bare;
	bare.offerTimers = bare.offerFds = bare.offerWebview = false;
	Instance scanned(*bundle, "varkesh.lumbrel.swell", bare);
	ASSERT_TRUE(scanned.init());
	const auto *gui = scanned.extension<clap_plugin_gui>(CLAP_EXT_GUI);
	ASSERT_NE(gui, nullptr);
	const char *api = nullptr;
	bool floating = true;
	EXPECT_TRUE(gui->is_api_supported(scanned.clapPlugin(), CLAP_WINDOW_API_X11, false));
	ASSERT_TRUE(gui->get_preferred_api(scanned.clapPlugin(), &api, &floating));
	EXPECT_STREQ(api, CLAP_WINDOW_API_X11) << "no webview extension, so the platform's own";
	EXPECT_FALSE(floating);
	EXPECT_FALSE(gui->create(scanned.clapPlugin(), CLAP_WINDOW_API_X11, false)) << "nothing would run the page";
	ASSERT_TRUE(gui->get_preferred_api(shifter.clapPlugin(), &api, &floating));
	EXPECT_STREQ(api, CLAP_WINDOW_API_WEBVIEW) << "a host with a web view shows the page itself";
}
