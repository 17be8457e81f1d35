#pragma once
#include "storage/tagged_cbor_walker.h"

#include <string_view>
#include <vector>

namespace quorl::storage {

// True if `bytes` can be a saved state of the effect whose states carry the
// name `name`: a CBOR map whose "name", where it has a text one, is that name.
// A map with no name (a hand-made or older state) passes; what it holds is
// the reader's business.
inline bool isSavedStateOf(const std::vector<unsigned char> &bytes, std::string_view name) {
	const varkesh::cbor::TaggedCborWalker root(bytes.data(), bytes.data() + bytes.size());
	using varkesh::cbor::CborType;
	if (root.type != CborType::Map && root.type != CborType::IndefiniteMap) return false;
	bool otherName = false;
	root.forEachPair([&](const varkesh::cbor::TaggedCborWalker &key, const varkesh::cbor::TaggedCborWalker &value) {
		const bool isText = value.type == CborType::Utf8 || value.type == CborType::IndefiniteUtf8;
		if (key.textEquals("name") && isText && !value.textEquals(name)) otherName = true;
	});
	return !otherName;
}

} // namespace quorl::storage
