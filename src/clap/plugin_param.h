#pragma once
#include "clap/crc32.h"
#include "frame/range_param_info.h"
#include "frame/stepped_param_info.h"
#include "storage/has_state.h"

#include <clap/clap.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace quorl::clap {

// One host-visible parameter of an effect (`Plugin<T>::Param`). The three
// flags are true when nothing is pending and false when that event is due to
// the host.
template<class Effect>
struct PluginParam {
	using ParamRange = typename Effect::ParamRange;
	using ParamStepped = typename Effect::ParamStepped;

	clap_param_info info;
	ParamRange *rangeParam = nullptr;
	RangeParamInfo rangeInfo;
	ParamStepped *steppedParam = nullptr;
	SteppedParamInfo steppedInfo;
	std::atomic<bool> valueSent{true}, gestureBeginSent{true}, gestureEndSent{true};

	PluginParam(ParamRange *param) : info(), rangeParam(param), rangeInfo(param->value), steppedInfo(0) {}
	PluginParam(ParamStepped *param) : info(), rangeInfo(0.0), steppedParam(param), steppedInfo(param->value) {}
	// Moves happen only while the list is being built, before any flag is shared.
	PluginParam(PluginParam &&other) noexcept
		: info(other.info), rangeParam(other.rangeParam), rangeInfo(std::move(other.rangeInfo)),
		  steppedParam(other.steppedParam), steppedInfo(std::move(other.steppedInfo)),
		  valueSent(other.valueSent.load()), gestureBeginSent(other.gestureBeginSent.load()),
		  gestureEndSent(other.gestureEndSent.load()) {}

	// The module, the path of group names, is set by the scan.
	void setClapInfo() {
		info.cookie = this;
		if (rangeParam) {
			info.flags = CLAP_PARAM_IS_AUTOMATABLE;
			std::snprintf(info.name, sizeof(info.name), "%s", rangeInfo.name.c_str());
			// The host sees every ranged parameter as a position from 0 to 1.
			info.min_value = 0;
			info.max_value = 1;
			info.default_value = rangeInfo.toPosition(rangeInfo.defaultValue);
		} else {
			info.flags = CLAP_PARAM_IS_AUTOMATABLE | CLAP_PARAM_IS_STEPPED;
			std::snprintf(info.name, sizeof(info.name), "%s", steppedInfo.name.c_str());
			info.min_value = steppedInfo.low;
			info.max_value = steppedInfo.high;
			info.default_value = steppedInfo.defaultValue;
		}
		valueSent = gestureBeginSent = gestureEndSent = true;
	}

	// What the host sees: the position of a ranged value, a stepped value as it is.
	double hostValue() const {
		return rangeParam ? rangeInfo.toPosition(rangeParam->value) : double(steppedParam->value);
	}
};

// Walks an effect's state() to make the host-visible list
// (`Plugin<T>::ParamScanner`). Ids are the CRC-32 of the keys on the path, so
// they depend on keys alone, never on the order. Hosts list a parameter under
// its module: the display names of the groups above it ("Engine", "Output
// gains/..."), so that two parameters of one name in different groups stay
// apart.
template<class Effect>
struct PluginParamScanner {
	using Param = PluginParam<Effect>;

	std::vector<Param> &params;
	Crc32 crc;
	std::string &rootName; // the root's display name, as saved states carry it
	std::string module;
	int depth = 0;

	template<class V>
	void operator()(const char *key, V &group) {
		if constexpr (detail::HasState<V, PluginParamScanner>::value) {
			const Crc32 outer = crc;
			const std::size_t outerModule = module.size();
			crc.addString(key, true);
			++depth;
			group.state(*this);
			--depth;
			crc = outer;
			module.resize(outerModule);
		}
	}
	RangeParamInfo &range(const char *key, typename Param::ParamRange &param) { return add(key, &param).rangeInfo; }
	SteppedParamInfo &stepped(const char *key, typename Param::ParamStepped &param) {
		return add(key, &param).steppedInfo;
	}
	template<class V>
	void extra(const char *key, V &&value) {
		if constexpr (std::is_convertible_v<V, std::string_view>) {
			if (std::strcmp(key, "name") != 0) return;
			if (depth == 0) {
				rootName = std::string_view(value);
			} else {
				if (!module.empty()) module += '/';
				module += std::string_view(value);
			}
		}
	}

private:
	template<class P>
	Param &add(const char *key, P *param) {
		Crc32 leaf = crc;
		leaf.addString(key, true);
		params.emplace_back(param);
		Param &added = params.back();
		added.info.id = ~leaf.value;
		std::snprintf(added.info.module, sizeof(added.info.module), "%s", module.c_str());
		param->context = params.size() - 1;
		return added;
	}
};

} // namespace quorl::clap
