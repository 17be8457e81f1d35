#pragma once
#include "storage/discard_param_info.h"
#include "storage/has_state.h"
#include "storage/cbor_writer.h"
#include "storage/dirty_set.h"

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace varkesh::storage {

namespace detail {
template<class V, class Storage, class = void>
struct HasUiState : std::false_type {};
template<class V, class Storage>
struct HasUiState<V, Storage, std::void_t<decltype(std::declval<V &>().uiState(std::declval<Storage &>()))>>
	: std::true_type {};
} // namespace detail

// Writes an object tree to CBOR through its state() methods: every object is
// an indefinite-length map, keys are definite text. With a DirtySet, only the
// dirty part is written (a patch the reader applies as a merge); without one,
// everything. `Kind` tells state() which format it is writing (saved state or
// page message), since a parameter shows different fields to each.
//
// With `dirty` null nothing allocates but the byte vector's growth, so the
// audio thread may write with a reserved vector.
template<class Kind>
class StorageCborWriter {
public:
	static constexpr bool isWriter = true;
	using StorageKind = Kind;

	DirtySet *dirty;
	cbor::CborWriter writer;
	bool writeUiState;

	StorageCborWriter(std::vector<unsigned char> &bytes, DirtySet *dirty = nullptr, bool writeUiState = false)
		: dirty(dirty), writer(bytes), writeUiState(writeUiState) {}

	// Writes one map: the object's state(), and at the root its uiState() too
	// if `writeUiState`. An object in `whole` is written in full, unless the
	// address in `whole` is that of its first member: an object and its first
	// member share an address, and readers mark the innermost object that
	// changed, so a group whose first parameter changed stays partial.
	template<class Object>
	void writeObject(Object &object) {
		DirtySet *outer = dirty;
		if (dirty && dirty->whole.count(&object) && !markedMemberAt(object)) dirty = nullptr;
		const bool root = depth++ == 0;
		writer.openMap();
		object.state(*this);
		if constexpr (detail::HasUiState<Object, StorageCborWriter>::value) {
			if (root && writeUiState) object.uiState(*this);
		}
		writer.addBreak();
		--depth;
		dirty = outer;
	}

	template<class V>
	void operator()(const char *key, V &value) {
		using T = std::remove_cv_t<V>;
		if (probe) {
			if constexpr (!std::is_arithmetic_v<T>) probe->found |= static_cast<const void *>(&value) == probe->address;
			return;
		}
		if (dirty && !dirty->includes(&value)) return;
		writer.addText(key);
		if constexpr (std::is_same_v<T, bool>) {
			writer.addBool(value);
		} else if constexpr (std::is_same_v<T, int>) {
			writer.addInt(value);
		} else if constexpr (std::is_same_v<T, double>) {
			writer.addFloat(value);
		} else if constexpr (std::is_same_v<T, std::vector<float>>) {
			writer.addTypedArray(value.data(), value.size(), false);
		} else if constexpr (std::is_same_v<T, std::vector<std::vector<float>>>) {
			writeValue(value);
		} else {
			static_assert(quorl::detail::HasState<T, StorageCborWriter>::value, "no way to write this field");
			writeObject(value);
		}
	}

	// A text for the reader at the other end, which this system never reads
	// back. Texts belong to a full write only: a partial write (the reply to
	// an edit) carries the changed values and nothing else, whatever the
	// address of the text.
	void extra(const char *key, const char *value) { writeExtra(key, value); }
	void extra(const char *key, const std::string &value) { writeExtra(key, value.c_str()); }

	// A parameter is an object with its own state().
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

	// Rows of floats: the whole array, or with a dirty set that doesn't hold it
	// whole, a map of the dirty rows by index.
	void writeValue(std::vector<std::vector<float>> &rows) {
		if (!dirty || dirty->whole.count(&rows)) {
			DirtySet *outer = dirty;
			dirty = nullptr;
			writer.writeHead(4, rows.size());
			for (auto &row : rows) writer.addTypedArray(row.data(), row.size(), false);
			dirty = outer;
			return;
		}
		writer.openMap();
		for (std::size_t i = 0; i < rows.size(); ++i) {
			if (!dirty->includes(&rows[i])) continue;
			writer.addInt(std::int64_t(i));
			writer.addTypedArray(rows[i].data(), rows[i].size(), false);
		}
		writer.addBreak();
	}

private:
	// Looking for a member at `address` that a reader can mark (an object or
	// an array; plain numbers are never marked): state() is walked with
	// nothing written.
	struct Probe {
		const void *address;
		bool found;
	};
	Probe *probe = nullptr;
	int depth = 0;
	quorl::DiscardParamInfo discard;

	template<class Object>
	bool markedMemberAt(Object &object) {
		Probe here{&object, false};
		probe = &here;
		object.state(*this);
		probe = nullptr;
		return here.found;
	}

	void writeExtra(const char *key, const char *text) {
		if (probe || dirty) return;
		writer.addText(key);
		writer.addText(text);
	}
};

} // namespace varkesh::storage
