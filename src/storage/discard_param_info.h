#pragma once

namespace quorl {

// What a visitor that has no use for parameter descriptions hands back to the
// declaration in state(): it takes the whole chain (name, range, units,
// labels) and keeps nothing, so walking state() costs no allocation.
struct DiscardParamInfo {
	template<class... Args>
	DiscardParamInfo &info(Args &&...) { return *this; }
	template<class... Args>
	DiscardParamInfo &range(Args &&...) { return *this; }
	template<class... Args>
	DiscardParamInfo &unit(Args &&...) { return *this; }
	template<class... Args>
	DiscardParamInfo &label(Args &&...) { return *this; }
	template<class... Args>
	DiscardParamInfo &labelsFrom(Args &&...) { return *this; }
};

} // namespace quorl
