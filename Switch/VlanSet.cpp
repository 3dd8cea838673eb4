#include "Switch/VlanSet.h"

std::string vlanText(const VlanSet& vlans) {
    std::string out;
    for (unsigned first = VlanId::min; first <= VlanId::max; ++first) {
        if (!vlans.test(first)) continue;
        unsigned last = first;
        while (last < VlanId::max && vlans.test(last + 1)) ++last;
        if (!out.empty()) out += ',';
        out += std::to_string(first);
        if (last > first) out.append(last == first + 1 ? "," : "-").append(std::to_string(last));
        first = last;
    }
    return out;
}

State::Schema State::Codec<VlanSet>::schema() {
    const std::string vlan = numberPattern(VlanId::min, VlanId::max);
    const std::string piece = vlan + "(-" + vlan + ")?";
    return {.type = "string", .pattern = "^(" + piece + "(," + piece + ")*)?$"};
}

std::optional<VlanSet> parseVlans(std::string_view text) {
    VlanSet out;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        const std::string_view piece = text.substr(0, comma);
        const std::size_t dash = piece.find('-');
        const auto first = State::parseDecimal(piece.substr(0, dash), VlanId::max);
        const auto last =
            dash == std::string_view::npos ? first : State::parseDecimal(piece.substr(dash + 1), VlanId::max);
        if (!first || !last || !VlanId::inRange(*first) || *last < *first) return std::nullopt;
        for (std::uint64_t id = *first; id <= *last; ++id) out.set(id);
        if (comma == std::string_view::npos) return out;
        text.remove_prefix(comma + 1);
        if (text.empty()) return std::nullopt;
    }
    return out;
}
