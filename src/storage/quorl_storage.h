#pragma once
#include "storage/storage_cbor_reader.h"
#include "storage/storage_cbor_writer.h"

#include <type_traits>

namespace quorl::storage {

// The saved-state format's kinds: state() methods tell them apart from the
// page's, since a parameter saves only its value.
template<class = void>
struct QUORLStorageWriter {};
template<class = void>
struct QUORLStorageReader {};

using StateWriter = varkesh::storage::StorageCborWriter<QUORLStorageWriter<void>>;
using StateReader = varkesh::storage::StorageCborReader<QUORLStorageReader<void>>;

// The kind of a storage visitor; void for visitors that only scan (parameter
// lists, the page's scanner).
template<class Storage, class = void>
struct KindOf {
	using type = void;
};
template<class Storage>
struct KindOf<Storage, std::void_t<typename Storage::StorageKind>> {
	using type = typename Storage::StorageKind;
};

template<class Storage>
constexpr bool isSavedState = std::is_same_v<typename KindOf<Storage>::type, QUORLStorageWriter<void>>
	|| std::is_same_v<typename KindOf<Storage>::type, QUORLStorageReader<void>>;

} // namespace quorl::storage
