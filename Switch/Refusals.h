/// "switch/refusals": what the agents that carry out the switch's records could not do, and why.
///
/// Whoever promises something on the strength of those records reads it here, takes the promise back, and
/// tries again when the entry goes.  Nothing is held back where nobody writes such entries.
#pragma once

#include "State/Record.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <compare>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Switch {

/// Names a forwarding group: its address in its VLAN.
struct GroupId {
    VlanId vlan{1};
    EthAddr addr;
    auto operator<=>(const GroupId&) const = default;
};

/// One thing that could not be done.
class Refusal : public State::Record<Refusal> {
public:
    static constexpr std::string_view type = "Switch::Refusal";
    template <class Key>
    explicit Refusal(const Key&) {}

    /// In words, for people.
    [[nodiscard]] const std::string& why() const { return why_; }
    void whyIs(const std::string& v) { assign(why_, v, "why"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("why", &Refusal::why_));
    }

private:
    std::string why_;
};

class Refusals : public State::Record<Refusals> {
public:
    static constexpr std::string_view type = "Switch::Refusals";

    /// Groups that listeners want and that cannot be forwarded.  An entry stays after the listeners were
    /// given up for it, until there is room for the group or the group itself is gone.
    [[nodiscard]] const State::Collection<GroupId, Refusal>& group() const { return group_; }
    [[nodiscard]] std::shared_ptr<const Refusal> group(const GroupId& id) const { return group_.get(id); }
    void groupIs(const GroupId& id, const std::string& why) { put(group_, id, why, "group"); }
    void groupDel(const GroupId& id) { delChild(group_, id, "group"); }

    /// Ports that cannot give the SR classes their bandwidth.
    [[nodiscard]] const State::Collection<IntfId, Refusal>& port() const { return port_; }
    [[nodiscard]] std::shared_ptr<const Refusal> port(IntfId id) const { return port_.get(id); }
    void portIs(IntfId id, const std::string& why) { put(port_, id, why, "port"); }
    void portDel(IntfId id) { delChild(port_, id, "port"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("group", &Refusals::group_));
        each(State::collection("port", &Refusals::port_));
    }

private:
    template <class K>
    void put(State::Collection<K, Refusal>& refusals, const K& id, const std::string& why,
             std::string_view field) {
        if (const auto held = refusals.get(id)) return held->whyIs(why);
        auto fresh = std::make_shared<Refusal>(id);
        fresh->whyIs(why);
        putChild(refusals, id, std::move(fresh), field);
    }

    State::Collection<GroupId, Refusal> group_;
    State::Collection<IntfId, Refusal> port_;
};

}  // namespace Switch

/// "2-91:e0:f0:00:fe:01"
template <>
struct State::KeyText<Switch::GroupId> {
    static std::string text(const Switch::GroupId& id) { return id.vlan.text() + '-' + id.addr.text(); }
    static std::optional<Switch::GroupId> parse(std::string_view t) {
        const std::size_t dash = t.find('-');
        if (dash == std::string_view::npos) return std::nullopt;
        const auto vlan = KeyText<VlanId>::parse(t.substr(0, dash));
        const auto addr = EthAddr::parse(t.substr(dash + 1));
        if (!vlan || !addr) return std::nullopt;
        return Switch::GroupId{*vlan, *addr};
    }
    static std::string expected() { return "a VLAN and an address like 2-91:e0:f0:00:fe:01"; }
    static Schema schema() {
        return {.type = "string", .pattern = "^[0-9]{1,4}-[0-9a-f]{2}(:[0-9a-f]{2}){5}$"};
    }
};

// Made once, in the source file beside this header.
extern template class State::Record<Switch::Refusal>;
extern template class State::Record<Switch::Refusals>;
