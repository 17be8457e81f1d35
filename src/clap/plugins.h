#pragma once
#include <clap/clap.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace quorl::clap {

template<template<class> class Wrapper>
struct Plugin;

// The bundle's registry of plug-ins: written by clap_init on the main thread
// before any factory exists, read-only afterwards.
struct Plugins {
	std::string bundleResourcePath;
	// One null-terminated feature list per plug-in; descriptors point into them.
	std::vector<std::vector<const char *>> featureLists;
	std::vector<clap_plugin_descriptor> descriptors;
	std::vector<std::function<const clap_plugin *(const clap_host *)>> creators;

	// The factory, with the registry it serves.
	struct PluginFactory : clap_plugin_factory {
		Plugins *plugins;
	};

	// Registers a plug-in whose effect wrapper is `Wrapper`; returns its index.
	template<template<class> class Wrapper>
	std::size_t add(clap_plugin_descriptor descriptor, std::initializer_list<const char *> features) {
		const std::size_t index = featureLists.size();
		featureLists.emplace_back(features);
		featureLists[index].push_back(nullptr);
		descriptor.features = featureLists[index].data();
		descriptors.push_back(descriptor);
		creators.push_back([this, index](const clap_host *host) -> const clap_plugin * {
			return Plugin<Wrapper>::create(this, index, host);
		});
		return index;
	}

	// Records the bundle's path, or its Contents/Resources folder if it has one.
	bool clap_init(const char *path);

	// The process-wide factory over `registry`.
	static const clap_plugin_factory *factory(Plugins &registry);

private:
	static std::uint32_t static_get_plugin_count(const clap_plugin_factory *factory);
	static const clap_plugin_descriptor *static_get_plugin_descriptor(const clap_plugin_factory *factory, std::uint32_t index);
	static const clap_plugin *static_create_plugin(const clap_plugin_factory *factory, const clap_host *host, const char *pluginId);
};

} // namespace quorl::clap
