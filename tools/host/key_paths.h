#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::host {

// One parameter named by a saved state: the keys from the root object down to
// the parameter's own object, and the "name" of each group on the way.
struct StateKeyPath {
	std::vector<std::string> keys; // e.g. {"engineConfig", "latencyMs"}
	std::vector<std::string> groupNames; // e.g. {"Engine"}; one per key but the last, empty where a group has none
	std::uint32_t id = 0; // keyPathId(keys)

	// The keys joined by ".", e.g. "engineConfig.latencyMs".
	std::string dotted() const;
};

// The parameters that a plug-in's saved state ("clap.state") names, in the
// order the state holds them. The state is one CBOR map whose keys are the
// declaration's keys: a map whose only key is "value" is a parameter, any
// other map is a group, and the "name", "desc" and "version" entries of each
// object aren't parameters. Bytes that aren't such a map give what could be
// read before the fault (possibly nothing); never fails, never reads past
// `size`.
std::vector<StateKeyPath> stateKeyPaths(const std::uint8_t *bytes, std::size_t size);

// A parameter's CLAP id: the standard CRC-32 of each key followed by a zero
// byte, so ("engineConfig", "latencyMs") gives 0x06A04C69.
std::uint32_t keyPathId(const std::vector<std::string> &keys);

} // namespace lumbrel::host
