#pragma once
#include <clap/clap.h>

#include <cstdint>
#include <memory>
#include <string>

namespace lumbrel::host {

// A loaded .clap file: its entry, initialised, and its plug-in factory.
class Bundle {
public:
	// Loads the bundle at `path` and calls its entry's init. On failure returns
	// null and says why in `error`, in one line.
	static std::unique_ptr<Bundle> load(const std::string &path, std::string &error);
	// A bundle linked into this program: `entry` is its clap_entry, and
	// `path` what its init is told.
	static std::unique_ptr<Bundle> linked(const clap_plugin_entry &entry, const std::string &path, std::string &error);
	~Bundle(); // deinit, then unload

	Bundle(const Bundle &) = delete;
	Bundle &operator=(const Bundle &) = delete;

	const clap_plugin_entry &entry() const { return *entry_; }
	const clap_plugin_factory &factory() const { return *factory_; }
	const std::string &path() const { return path_; }

	std::uint32_t count() const;
	const clap_plugin_descriptor *descriptor(std::uint32_t index) const;
	// The descriptor whose id or name equals `key`; failing that, the first whose
	// id's last part is `key` or begins with `key` + "-" (so "octaver" finds
	// "varkesh.lumbrel.octaver"); null if none.
	const clap_plugin_descriptor *find(const std::string &key) const;

private:
	Bundle() = default;
	// Checks the version, calls init and finds the factory.
	static std::unique_ptr<Bundle> start(std::unique_ptr<Bundle> bundle, std::string &error);
	void *library = nullptr;
	const clap_plugin_entry *entry_ = nullptr;
	const clap_plugin_factory *factory_ = nullptr;
	std::string path_;
};

} // namespace lumbrel::host
