#pragma once
#include "storage/tagged_cbor_walker.h"

#include <cstddef>

namespace quorl::web {

// Reads one message from the page and calls the handler that it asks for:
// "ready" (also as ["ready"]) calls `ready()`; ["meters", interval, duration]
// calls `meters(intervalSeconds, durationSeconds)`, numbers of any CBOR kind
// read by their value and anything else as 0; a map, or ["state", map], calls
// `merge(walker)` at the map. Anything else is dropped.
template<class Ready, class Meters, class Merge>
void readPageMessage(const void *bytes, std::size_t length, Ready &&ready, Meters &&meters, Merge &&merge) {
	namespace cbor = varkesh::cbor;
	const auto isMap = [](const cbor::TaggedCborWalker &item) {
		return item.type == cbor::CborType::Map || item.type == cbor::CborType::IndefiniteMap;
	};
	const auto seconds = [](const cbor::TaggedCborWalker &item) {
		switch (item.type) {
		case cbor::CborType::Unsigned:
		case cbor::CborType::Negative:
		case cbor::CborType::Float32:
		case cbor::CborType::Float64:
			return item.asDouble();
		default:
			return 0.0;
		}
	};
	const auto *begin = static_cast<const unsigned char *>(bytes);
	cbor::TaggedCborWalker walker(begin, begin + length);
	if (walker.type == cbor::CborType::Array || walker.type == cbor::CborType::IndefiniteArray) {
		if (walker.type == cbor::CborType::Array && walker.value == 0) return;
		cbor::TaggedCborWalker element(walker.data, walker.end);
		if (element.type != cbor::CborType::Utf8) return;
		if (element.textEquals("ready")) {
			ready();
		} else if (element.textEquals("meters")) {
			const cbor::TaggedCborWalker interval(element.next());
			const cbor::TaggedCborWalker duration(interval.next());
			meters(seconds(interval), seconds(duration));
		} else if (element.textEquals("state")) {
			const cbor::TaggedCborWalker map(element.next());
			if (isMap(map)) merge(map);
		}
	} else if (isMap(walker)) {
		merge(walker);
	} else if (walker.type == cbor::CborType::Utf8 && walker.textEquals("ready")) {
		ready();
	}
}

} // namespace quorl::web
