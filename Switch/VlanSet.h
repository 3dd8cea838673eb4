/// Sets of VLANs, written as "2,100-199".
#pragma once

#include "State/Codec.h"
#include "Switch/Ranged.h"

#include <bitset>
#include <optional>
#include <string>
#include <string_view>

/// One bit for each VLAN, at its number.  A trunk may well have all of them.
using VlanSet = std::bitset<VlanId::max + 1>;

/// Numbers and ranges in ascending order; empty for the empty set.
std::string vlanText(const VlanSet& vlans);
/// Numbers and ranges in any order; nothing for what is no such list.
std::optional<VlanSet> parseVlans(std::string_view text);

/// Calls `visit(VlanId)` for each, in ascending order.
template <class F>
void eachVlan(const VlanSet& vlans, F&& visit) {
    if (vlans.none()) return;
    for (unsigned id = VlanId::min; id <= VlanId::max; ++id) {
        if (vlans.test(id)) visit(VlanId{id});
    }
}

template <>
struct State::Codec<VlanSet> {
    static constexpr std::string_view typeName = "vlans";
    static Value encode(const VlanSet& v) { return Value{vlanText(v)}; }
    static std::optional<VlanSet> decode(const Value& v) {
        const auto* text = std::get_if<std::string>(&v.data);
        return text == nullptr ? std::nullopt : parseVlans(*text);
    }
    static std::string expected() { return "VLANs like \"2,100-199\", each from 1 to 4094"; }
    static Schema schema();
};
