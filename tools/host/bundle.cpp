#include "host/bundle.h"

#include <dlfcn.h>

#include <cstring>
#include <utility>

namespace lumbrel::host {

std::unique_ptr<Bundle> Bundle::load(const std::string &path, std::string &error) {
	std::unique_ptr<Bundle> bundle(new Bundle());
	bundle->path_ = path;
	bundle->library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
	if (!bundle->library) {
		const char *why = dlerror();
		error = "cannot load " + path + ": " + (why ? why : "unknown error");
		return nullptr;
	}
	bundle->entry_ = static_cast<const clap_plugin_entry *>(dlsym(bundle->library, "clap_entry"));
	if (!bundle->entry_) {
		error = path + " is not a CLAP bundle: it has no clap_entry";
		return nullptr;
	}
	return start(std::move(bundle), error);
}

std::unique_ptr<Bundle> Bundle::linked(const clap_plugin_entry &entry, const std::string &path, std::string &error) {
	std::unique_ptr<Bundle> bundle(new Bundle());
	bundle->path_ = path;
	bundle->entry_ = &entry;
	return start(std::move(bundle), error);
}

std::unique_ptr<Bundle> Bundle::start(std::unique_ptr<Bundle> bundle, std::string &error) {
	const std::string &path = bundle->path_;
	if (!clap_version_is_compatible(bundle->entry_->clap_version)) {
		error = path + " has an incompatible CLAP version";
		bundle->entry_ = nullptr;
		return nullptr;
	}
	if (!bundle->entry_->init(path.c_str())) {
		error = path + ": its entry refused to initialise";
		bundle->entry_ = nullptr;
		return nullptr;
	}
	bundle->factory_ = static_cast<const clap_plugin_factory *>(bundle->entry_->get_factory(CLAP_PLUGIN_FACTORY_ID));
	if (!bundle->factory_) {
		error = path + " offers no plug-in factory";
		return nullptr;
	}
	return bundle;
}

Bundle::~Bundle() {
	if (entry_) entry_->deinit();
	if (library) dlclose(library);
}

std::uint32_t Bundle::count() const { return factory_->get_plugin_count(factory_); }

const clap_plugin_descriptor *Bundle::descriptor(std::uint32_t index) const {
	return factory_->get_plugin_descriptor(factory_, index);
}

const clap_plugin_descriptor *Bundle::find(const std::string &key) const {
	for (std::uint32_t i = 0; i < count(); ++i) {
		const auto *d = descriptor(i);
		if (!d) continue;
		const std::string id = d->id, name = d->name ? d->name : "";
		if (id == key || name == key) return d;
	}
	// Short forms: the id's last part, or that part without a "-suffix".
	for (std::uint32_t i = 0; i < count(); ++i) {
		const auto *d = descriptor(i);
		if (!d) continue;
		const std::string id = d->id;
		const std::string last = id.substr(id.rfind('.') + 1);
		if (last == key || (last.size() > key.size() && last.compare(0, key.size(), key) == 0 && last[key.size()] == '-')) {
			return d;
		}
	}
	return nullptr;
}

} // namespace lumbrel::host
