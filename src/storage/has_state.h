#pragma once
#include <type_traits>
#include <utility>

namespace quorl::detail {

// True if `V` declares itself to `Storage` through a state() member: a group,
// as opposed to a plain value.
template<class V, class Storage, class = void>
struct HasState : std::false_type {};
template<class V, class Storage>
struct HasState<V, Storage, std::void_t<decltype(std::declval<V &>().state(std::declval<Storage &>()))>>
	: std::true_type {};

} // namespace quorl::detail
