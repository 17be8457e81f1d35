#pragma once
// A private copy of a bundle file: dlopen shares one image per path, so a test that needs the bundle's static state
// fresh loads its own copy.
#include <cstdio>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace lumbrel_test {

class BundleCopy {
public:
	explicit BundleCopy(const std::string &source) {
		static int serial = 0;
		path = (std::filesystem::temp_directory_path()
			/ ("lumbrel-copy-" + std::to_string(::getpid()) + "-" + std::to_string(serial++) + ".clap"))
			.string();
		std::filesystem::copy_file(source, path, std::filesystem::copy_options::overwrite_existing);
	}
	~BundleCopy() {
		std::error_code ignored;
		std::filesystem::remove(path, ignored);
	}
	std::string path;
};

} // namespace lumbrel_test
