/// VLANs that ports join and leave by themselves: what is asked of the switch, and what has come of it.  The
/// administrator's own memberships are in Bridging.h.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/VlanSet.h"

#include <memory>
#include <string>

namespace Bridging {

/// What is asked for one port.
class WantedVlans : public State::Record<WantedVlans> {
public:
    static constexpr std::string_view type = "Bridging::WantedVlans";
    explicit WantedVlans(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    /// VLANs of which the port is to be a member, with tags.
    [[nodiscard]] const VlanSet& member() const { return member_; }
    void memberIs(const VlanSet& v) { assign(member_, v, "member"); }
    /// How often all that was learnt of a VLAN on the port was to be forgotten.
    [[nodiscard]] const State::FlatMap<VlanId, std::uint32_t>& flush() const { return flush_; }
    void flushInc(VlanId vlan) { setEntry(flush_, vlan, flush_.get(vlan) + 1, "flush"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("member", &WantedVlans::member_));
        each(State::map("flush", &WantedVlans::flush_));
    }

private:
    IntfId intfId_;
    VlanSet member_;
    State::FlatMap<VlanId, std::uint32_t> flush_;
};

/// "bridging/input/vlans/mvrp"
class VlanRequests : public State::Record<VlanRequests> {
public:
    static constexpr std::string_view type = "Bridging::VlanRequests";

    /// Whether a registration protocol runs: its frames then end in this switch.
    [[nodiscard]] bool running() const { return running_; }
    void runningIs(bool v) { assign(running_, v, "running"); }
    [[nodiscard]] const State::Collection<IntfId, WantedVlans>& port() const { return port_; }
    [[nodiscard]] std::shared_ptr<const WantedVlans> port(IntfId id) const { return port_.get(id); }
    std::shared_ptr<WantedVlans> portIs(IntfId id) { return makeChild(port_, id, "port"); }
    void portDel(IntfId id) { delChild(port_, id, "port"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("running", &VlanRequests::running_));
        each(State::collection("port", &VlanRequests::port_));
    }

private:
    bool running_ = false;
    State::Collection<IntfId, WantedVlans> port_;
};

/// What one port was given.
class DynamicVlans : public State::Record<DynamicVlans> {
public:
    static constexpr std::string_view type = "Bridging::DynamicVlans";
    explicit DynamicVlans(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    /// Those of its VLANs that it is a member of only because it was asked for.
    [[nodiscard]] const VlanSet& member() const { return member_; }
    void memberIs(const VlanSet& v) { assign(member_, v, "member"); }
    /// What it was asked for and could not get, in words; empty when it has everything.
    [[nodiscard]] const std::string& problem() const { return problem_; }
    void problemIs(const std::string& v) { assign(problem_, v, "problem"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("member", &DynamicVlans::member_));
        each(State::scalar("problem", &DynamicVlans::problem_));
    }

private:
    IntfId intfId_;
    VlanSet member_;
    std::string problem_;
};

/// "bridging/vlans"
class VlanMembers : public State::Record<VlanMembers> {
public:
    static constexpr std::string_view type = "Bridging::VlanMembers";

    [[nodiscard]] const State::Collection<IntfId, DynamicVlans>& port() const { return port_; }
    [[nodiscard]] std::shared_ptr<const DynamicVlans> port(IntfId id) const { return port_.get(id); }
    std::shared_ptr<DynamicVlans> portIs(IntfId id) { return makeChild(port_, id, "port"); }
    void portDel(IntfId id) { delChild(port_, id, "port"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("port", &VlanMembers::port_));
    }

private:
    State::Collection<IntfId, DynamicVlans> port_;
};

}  // namespace Bridging

// Made once, in the source file beside this header.
extern template class State::Record<Bridging::WantedVlans>;
extern template class State::Record<Bridging::VlanRequests>;
extern template class State::Record<Bridging::DynamicVlans>;
extern template class State::Record<Bridging::VlanMembers>;
