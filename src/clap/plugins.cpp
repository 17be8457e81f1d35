#include "clap/plugins.h"

#include <sys/stat.h>

namespace quorl::clap {

bool Plugins::clap_init(const char *path) {
	bundleResourcePath = path;
	std::string resources = bundleResourcePath + "/Contents/Resources";
	// stat rather than std::filesystem, which macOS's libc++ has only from 10.15 on:
	// any entry that resolves, of whatever type, counts.
	struct stat entry;
	if (::stat(resources.c_str(), &entry) == 0) bundleResourcePath = resources;
	return true;
}

const clap_plugin_factory *Plugins::factory(Plugins &registry) {
	static const PluginFactory factory{
		{static_get_plugin_count, static_get_plugin_descriptor, static_create_plugin}, &registry};
	return &factory;
}

static Plugins &registryOf(const clap_plugin_factory *factory) {
	return *static_cast<const Plugins::PluginFactory *>(factory)->plugins;
}

std::uint32_t Plugins::static_get_plugin_count(const clap_plugin_factory *factory) {
	return static_cast<std::uint32_t>(registryOf(factory).creators.size());
}

const clap_plugin_descriptor *Plugins::static_get_plugin_descriptor(const clap_plugin_factory *factory, std::uint32_t index) {
	auto &plugins = registryOf(factory);
	if (index >= plugins.descriptors.size()) return nullptr;
	return &plugins.descriptors[index];
}

const clap_plugin *Plugins::static_create_plugin(const clap_plugin_factory *factory, const clap_host *host, const char *pluginId) {
	auto &plugins = registryOf(factory);
	if (!pluginId) return nullptr;
	for (std::size_t i = 0; i < plugins.descriptors.size(); ++i) {
		if (std::strcmp(plugins.descriptors[i].id, pluginId) == 0) return plugins.creators[i](host);
	}
	return nullptr;
}

} // namespace quorl::clap
