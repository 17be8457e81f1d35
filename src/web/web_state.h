#pragma once
#include "storage/quorl_storage.h"
#include "storage/storage_cbor_reader.h"
#include "storage/storage_cbor_writer.h"

#include <type_traits>

namespace quorl::web {

// The page's kinds of writer and reader: the storage visitors, told apart by
// state() so that a parameter shows the page its texts, range and gesture.
struct WebStateWriterKind {};
struct WebStateReaderKind {};
using WebStateWriter = varkesh::storage::StorageCborWriter<WebStateWriterKind>;
using WebStateReader = varkesh::storage::StorageCborReader<WebStateReaderKind>;

template<class Storage>
constexpr bool isWebState = std::is_same_v<typename quorl::storage::KindOf<Storage>::type, WebStateWriterKind>
	|| std::is_same_v<typename quorl::storage::KindOf<Storage>::type, WebStateReaderKind>;

} // namespace quorl::web
