#pragma once
#include "storage/discard_param_info.h"
#include "storage/has_state.h"
#include "storage/dirty_set.h"
#include "storage/storage_cbor_writer.h"
#include "storage/tagged_cbor_walker.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace varkesh::storage {

// Reads CBOR into an object tree through its state() methods. For each pair of
// a map the object's state() is walked, and the field whose key matches takes
// the value; fields the input doesn't name keep their values, and keys no
// field claims are skipped. Bad input is never an error: a wrong kind of value
// gets the walker's numeric reading, and after a malformed item every further
// field returns at once, keeping what was read so far.
//
// Parameter classes decide for themselves whether a read changed them: they
// set `changed` and put `currentObject` in `dirty->whole`. Allocates (the
// dirty set, vectors), so main thread only.
template<class Kind>
class StorageCborReader {
public:
	static constexpr bool isWriter = false;
	using StorageKind = Kind;

	DirtySet *dirty;
	const void *currentObject = nullptr;
	bool changed = false;
	cbor::TaggedCborWalker walker;
	bool readUiState;
	const char *keyName = nullptr; // the key being looked for, in the input's bytes
	std::size_t keyLength = 0;

	StorageCborReader(cbor::TaggedCborWalker walker, DirtySet *dirty = nullptr, bool readUiState = false)
		: dirty(dirty), walker(walker), readUiState(readUiState) {}

	// Reads a map into `object`; false (and the walker unmoved) if the item
	// isn't a map.
	template<class Object>
	bool readObject(Object &object) {
		if (walker.type != cbor::CborType::Map && walker.type != cbor::CborType::IndefiniteMap) return false;
		bool anyChange = false;
		const void *outerObject = currentObject;
		currentObject = &object;
		const bool root = depth++ == 0;

		// The walk runs on a copy: the callback moves `walker` itself.
		const cbor::TaggedCborWalker map = walker;
		const cbor::CborWalker after = map.forEachPair([&](const cbor::TaggedCborWalker &key, const cbor::TaggedCborWalker &) {
			// Keys are definite text; a chunked key counts as empty text.
			if (key.type == cbor::CborType::Utf8 ? !key.contentFits() : key.type != cbor::CborType::IndefiniteUtf8) return;
			const char *outerName = keyName;
			const std::size_t outerLength = keyLength;
			keyName = reinterpret_cast<const char *>(key.data);
			keyLength = key.type == cbor::CborType::Utf8 ? std::size_t(key.value) : 0;
			walker = key;
			changed = false;
			object.state(*this);
			if constexpr (detail::HasUiState<Object, StorageCborReader>::value) {
				if (root && readUiState) object.uiState(*this);
			}
			if (changed) anyChange = true;
			keyName = outerName;
			keyLength = outerLength;
		});

		walker = cbor::TaggedCborWalker(after);
		--depth;
		currentObject = outerObject;
		changed = anyChange;
		if (changed && dirty) dirty->partial.insert(&object);
		return true;
	}

	template<class V>
	void operator()(const char *key, V &value) {
		if (!atKey(key)) return;
		using T = std::remove_cv_t<V>;
		if constexpr (std::is_same_v<T, bool>) {
			value = walker.value == 21;
			skip();
		} else if constexpr (std::is_same_v<T, int>) {
			value = static_cast<int>(static_cast<std::uint32_t>(walker.asInteger()));
			skip();
		} else if constexpr (std::is_same_v<T, double>) {
			value = walker.asDouble();
			skip();
		} else if constexpr (std::is_same_v<T, std::vector<float>>) {
			readValue(value);
		} else if constexpr (std::is_same_v<T, std::vector<std::vector<float>>>) {
			readVector(value);
		} else {
			static_assert(quorl::detail::HasState<T, StorageCborReader>::value, "no way to read this field");
			if (!readObject(value)) skip();
		}
	}

	// Texts written for the other side; never read back.
	template<class V>
	void extra(const char *, V &&) {}

	template<class Param>
	quorl::DiscardParamInfo &range(const char *key, Param &param) {
		(*this)(key, param);
		return discard;
	}
	template<class Param>
	quorl::DiscardParamInfo &stepped(const char *key, Param &param) {
		(*this)(key, param);
		return discard;
	}

	// A row of floats: a typed array sizes the row to its element count;
	// anything else reads as numbers.
	void readValue(std::vector<float> &row) {
		const bool bytes = walker.type == cbor::CborType::Bytes || walker.type == cbor::CborType::IndefiniteBytes;
		if (bytes && walker.typedArrayTag) {
			const unsigned tag = walker.typedArrayTag;
			const unsigned shift = (tag & 24) == 16 ? (tag & 3) + 1 : tag & 3;
			const std::uint64_t length = walker.type == cbor::CborType::Bytes ? walker.value : 0;
			// A length that passes the end of the buffer stores nothing, so the
			// row needs no room beyond what the buffer can hold.
			const std::uint64_t available = std::uint64_t(walker.end - walker.begin);
			const std::size_t count = std::size_t(std::min(length, available) >> shift);
			row.resize(count);
			walker.readTypedArray(row, 0, count);
			return;
		}
		readVector(row);
	}

	// An array replaces the vector; a map patches it by index ("3" or 3), and
	// an index one past the end appends.
	template<class T>
	void readVector(std::vector<T> &vector) {
		auto readElement = [this](T &element) {
			if constexpr (std::is_same_v<T, float>) {
				element = float(walker.asDouble());
				skip();
			} else {
				readValue(element);
			}
		};
		if (walker.type == cbor::CborType::Array || walker.type == cbor::CborType::IndefiniteArray) {
			if (walker.type == cbor::CborType::Array) {
				// Never larger than the items the buffer can hold.
				vector.resize(std::size_t(std::min<std::uint64_t>(walker.value, std::uint64_t(walker.end - walker.begin))));
			} else {
				vector.clear();
			}
			bool anyChange = false;
			const cbor::TaggedCborWalker array = walker;
			const cbor::CborWalker after = array.forEach([&](const cbor::TaggedCborWalker &item, std::size_t i) {
				walker = item;
				changed = false;
				if (i < vector.size()) readElement(vector[i]);
				if (changed) anyChange = true;
			}, true);
			walker = cbor::TaggedCborWalker(after);
			changed = anyChange;
			if (changed && dirty) dirty->whole.insert(&vector);
			return;
		}
		if (walker.type == cbor::CborType::Map || walker.type == cbor::CborType::IndefiniteMap) {
			bool anyChange = false;
			const cbor::TaggedCborWalker map = walker;
			const cbor::CborWalker after = map.forEachPair([&](const cbor::TaggedCborWalker &key, const cbor::TaggedCborWalker &value) {
				std::size_t index;
				if (!indexOf(key, index) || index > vector.size()) return;
				walker = value;
				changed = false;
				if (index == vector.size()) {
					vector.emplace_back();
					changed = true;
					if (dirty) dirty->whole.insert(currentObject);
				}
				readElement(vector[index]);
				if (changed) anyChange = true;
			});
			walker = cbor::TaggedCborWalker(after);
			if (anyChange) {
				changed = true;
				if (dirty) dirty->partial.insert(&vector);
			}
			return;
		}
		skip();
	}

private:
	int depth = 0;
	quorl::DiscardParamInfo discard;

	static bool keyMatches(const char *key, const char *name, std::size_t length) {
		return strnlen(key, length + 1) == length && std::memcmp(key, name, length) == 0;
	}

	// True when the walker stands on `key` (and the key being looked for, if
	// any, is `key`); then moves it onto the value.
	bool atKey(const char *key) {
		if (keyName && !keyMatches(key, keyName, keyLength)) return false;
		if (walker.type == cbor::CborType::Utf8) {
			const std::string_view text = walker.stringView();
			if (!walker.contentFits() || !keyMatches(key, text.data(), text.size())) return false;
		} else if (walker.type != cbor::CborType::IndefiniteUtf8 || key[0] != '\0') {
			return false;
		}
		walker = cbor::TaggedCborWalker(walker.next());
		return true;
	}

	void skip() { walker = cbor::TaggedCborWalker(walker.next()); }

	static bool indexOf(const cbor::TaggedCborWalker &key, std::size_t &index) {
		switch (key.type) {
		case cbor::CborType::Unsigned:
			index = std::size_t(key.value);
			return true;
		case cbor::CborType::Negative:
			index = std::size_t(key.asInteger());
			return true;
		case cbor::CborType::Utf8: {
			const std::string_view text = key.stringView();
			if (text.empty() || !key.contentFits()) return false;
			std::size_t n = 0;
			for (char c : text) {
				if (c < '0' || c > '9') return false;
				if (n > (std::size_t(-1) - 9) / 10) return false; // beyond any vector
				n = n * 10 + std::size_t(c - '0');
			}
			index = n;
			return true;
		}
		default:
			return false;
		}
	}
};

} // namespace varkesh::storage
