// The bundle's entry and factory, seen as a host sees them.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "support/bundle_copy.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstring>
#include <string>
#include <vector>

using lumbrel::host::Bundle;
using lumbrel::host::Host;
using lumbrel::host::Instance;

namespace {

struct Expected {
	const char *id, *name;
	std::vector<std::string> features;
};

const Expected plugins[] = {
	{"varkesh.lumbrel.pitch-shifter-layer1", "Lumbrel: Pitch Shifter", {"audio-effect", "pitch-shifter"}},
	{"varkesh.lumbrel.octaver", "Lumbrel: Octaver", {"audio-effect", "pitch-shifter"}},
	{"varkesh.lumbrel.cleanup", "Lumbrel (WIP): Cleanup", {"audio-effect", "restoration"}},
	{"varkesh.lumbrel.chorus", "Lumbrel: Chorus (Spectral)", {"audio-effect", "chorus"}},
	{"varkesh.lumbrel.chorus-detune", "Lumbrel: Chorus (Pitch-Shifter)", {"audio-effect", "chorus"}},
	{"varkesh.lumbrel.transients", "Lumbrel: Transients", {"audio-effect", "transient-shaper"}},
	{"varkesh.lumbrel.swell", "Lumbrel: Swell", {"audio-effect"}},
	{"varkesh.lumbrel.decay-scale", "Lumbrel (Bespoke Effect Example): Decay Scale", {"audio-effect"}},
	{"varkesh.lumbrel.frequency-snap", "Lumbrel (Bespoke Effect Example): Frequency Snap", {"audio-effect"}},
	{"varkesh.lumbrel.shepard-drop", "Lumbrel (Bespoke Effect Example): Shepard Drop", {"audio-effect"}},
};

std::unique_ptr<Bundle> loadBundle(const std::string &path = LUMBREL_BUNDLE_PATH) {
	std::string error;
	auto bundle = Bundle::load(path, error);
	EXPECT_TRUE(bundle) << error;
	return bundle;
}

} // namespace

TEST(Factory, EntryAndDescriptorsMatchTheTable) {
	auto bundle = loadBundle();
	ASSERT_TRUE(bundle);
	const auto &version = bundle->entry().clap_version;
	EXPECT_EQ(version.major, 1u);
	EXPECT_EQ(version.minor, 2u);
	EXPECT_EQ(version.revision, 7u);

	ASSERT_EQ(bundle->count(), 10u);
	for (std::uint32_t i = 0; i < 10; ++i) {
		SCOPED_TRACE(plugins[i].id);
		const auto *d = bundle->descriptor(i);
		ASSERT_NE(d, nullptr);
		EXPECT_EQ(d->clap_version.major, 1u);
		EXPECT_EQ(d->clap_version.minor, 2u);
		EXPECT_EQ(d->clap_version.revision, 7u);
		EXPECT_STREQ(d->id, plugins[i].id);
		EXPECT_STREQ(d->name, plugins[i].name);
		EXPECT_STREQ(d->vendor, "Varkesh Audio");
		EXPECT_STREQ(d->version, "1.0.0");
		EXPECT_STREQ(d->url, "");
		EXPECT_STREQ(d->manual_url, "");
		EXPECT_STREQ(d->support_url, "");
		EXPECT_STREQ(d->description, "");
		std::vector<std::string> features;
		for (const char *const *f = d->features; *f; ++f) features.push_back(*f);
		EXPECT_EQ(features, plugins[i].features);
	}
	EXPECT_EQ(bundle->descriptor(10), nullptr);
	EXPECT_STREQ(bundle->descriptor(9)->id, "varkesh.lumbrel.shepard-drop");
}

TEST(Factory, OnlyThePluginFactoryIdAnswers) {
	auto bundle = loadBundle();
	ASSERT_TRUE(bundle);
	const auto &entry = bundle->entry();
	EXPECT_NE(entry.get_factory("clap.plugin-factory"), nullptr);
	EXPECT_EQ(entry.get_factory("clap.plugin-factory2"), nullptr);
	EXPECT_EQ(entry.get_factory("clap.plugin-factor"), nullptr);
	EXPECT_EQ(entry.get_factory("clap.preset-discovery-factory/2"), nullptr);
	EXPECT_EQ(entry.get_factory(""), nullptr);
}

TEST(Factory, CreatesEveryPluginByIdAndNothingElse) {
	auto bundle = loadBundle();
	ASSERT_TRUE(bundle);
	Host host;
	for (const auto &expected : plugins) {
		Instance instance(*bundle, expected.id, host);
		ASSERT_TRUE(instance.valid()) << expected.id;
		EXPECT_STREQ(instance.clapPlugin()->desc->id, expected.id);
		EXPECT_EQ(instance.clapPlugin()->plugin_data, nullptr);
		EXPECT_TRUE(instance.init());
		const auto *plugin = instance.clapPlugin();
		EXPECT_EQ(plugin->get_extension(plugin, "clap.unknown"), nullptr);
		EXPECT_EQ(plugin->get_extension(plugin, "clap.audio-ports.x"), nullptr);
	}
	EXPECT_FALSE(Instance(*bundle, "varkesh.lumbrel.unknown", host).valid());
	EXPECT_FALSE(Instance(*bundle, "varkesh.lumbrel.octave", host).valid());
	EXPECT_FALSE(Instance(*bundle, "", host).valid());
}

// clap_init registers without a guard: a second call doubles the list, and
// creation by id still finds the first entry. Done on a private copy so the
// other tests see a normal bundle.
TEST(Factory, SecondInitRegistersTwenty) {
	lumbrel_test::BundleCopy copy(LUMBREL_BUNDLE_PATH);
	void *library = dlopen(copy.path.c_str(), RTLD_NOW | RTLD_LOCAL);
	ASSERT_NE(library, nullptr) << dlerror();
	auto *entry = static_cast<const clap_plugin_entry *>(dlsym(library, "clap_entry"));
	ASSERT_NE(entry, nullptr);

	auto *factory = static_cast<const clap_plugin_factory *>(entry->get_factory(CLAP_PLUGIN_FACTORY_ID));
	ASSERT_NE(factory, nullptr);
	Host host;
	// Before init the registry is empty.
	EXPECT_EQ(factory->get_plugin_count(factory), 0u);
	EXPECT_EQ(factory->create_plugin(factory, host.clapHost(), "varkesh.lumbrel.octaver"), nullptr);

	ASSERT_TRUE(entry->init(copy.path.c_str()));
	EXPECT_EQ(factory->get_plugin_count(factory), 10u);
	ASSERT_TRUE(entry->init(copy.path.c_str()));
	EXPECT_EQ(factory->get_plugin_count(factory), 20u);
	EXPECT_STREQ(factory->get_plugin_descriptor(factory, 19)->id, "varkesh.lumbrel.shepard-drop");
	EXPECT_EQ(factory->get_plugin_descriptor(factory, 20), nullptr);

	const clap_plugin *plugin = factory->create_plugin(factory, host.clapHost(), "varkesh.lumbrel.swell");
	ASSERT_NE(plugin, nullptr);
	EXPECT_EQ(plugin->desc, factory->get_plugin_descriptor(factory, 6));
	plugin->destroy(plugin);

	entry->deinit();
	// deinit leaves the registry in place.
	EXPECT_EQ(factory->get_plugin_count(factory), 20u);
	dlclose(library);
}
