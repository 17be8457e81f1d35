#pragma once
#include "storage/storage_cbor_reader.h"
#include "storage/storage_cbor_writer.h"

namespace quorl::storage {

// The saved-state format's kinds: state() methods tell them apart from the
// page's, since a parameter saves only its value.
template<class = void>
struct QUORLStorageWriter {};
template<class = void>
struct QUORLStorageReader {};

using StateWriter = varkesh::storage::StorageCborWriter<QUORLStorageWriter<void>>;
using StateReader = varkesh::storage::StorageCborReader<QUORLStorageReader<void>>;

template<class Storage>
constexpr bool isSavedState = std::is_same_v<typename Storage::StorageKind, QUORLStorageWriter<void>>
	|| std::is_same_v<typename Storage::StorageKind, QUORLStorageReader<void>>;

} // namespace quorl::storage
