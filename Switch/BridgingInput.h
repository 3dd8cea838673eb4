/// Bridging input: the forwarding entries that one agent asks of the bridge.
#pragma once

#include "State/Record.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <memory>
#include <optional>
#include <string_view>

namespace Bridging::Input {

/// The ports to which one destination address is forwarded.
class EthGroup : public State::Record<EthGroup> {
public:
    static constexpr std::string_view type = "Bridging::Input::EthGroup";
    explicit EthGroup(EthAddr addr) : addr_{addr} {}

    [[nodiscard]] EthAddr addr() const { return addr_; }
    [[nodiscard]] const State::FlatMap<IntfId, bool>& intf() const { return intf_; }
    /// True when the port is a member with its flag true.
    [[nodiscard]] bool intf(IntfId id) const { return intf_.get(id, false); }
    void intfIs(IntfId id, bool member) { setEntry(intf_, id, member, "intf"); }
    void intfDel(IntfId id) { delEntry(intf_, id, "intf"); }
    /// The port of the group's talker, which is a member only to hold the place while nobody listens; none:
    /// every member is there because somebody listens.
    [[nodiscard]] IntfId talkerIntf() const { return talkerIntf_; }
    void talkerIntfIs(IntfId v) { assign(talkerIntf_, v, "talkerIntf"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("intf", &EthGroup::intf_));
        each(State::scalar("talkerIntf", &EthGroup::talkerIntf_));
    }

private:
    EthAddr addr_;
    State::FlatMap<IntfId, bool> intf_;
    IntfId talkerIntf_;
};

/// The forwarding configuration of one VLAN.
class FdbConfig : public State::Record<FdbConfig> {
public:
    static constexpr std::string_view type = "Bridging::Input::FdbConfig";
    explicit FdbConfig(VlanId id) : vlanId_{id} {}

    [[nodiscard]] VlanId vlanId() const { return vlanId_; }
    [[nodiscard]] const State::Collection<EthAddr, EthGroup>& ethGroup() const { return ethGroup_; }
    [[nodiscard]] std::shared_ptr<EthGroup> ethGroup(EthAddr addr) { return ethGroup_.get(addr); }
    [[nodiscard]] std::shared_ptr<const EthGroup> ethGroup(EthAddr addr) const { return ethGroup_.get(addr); }
    std::shared_ptr<EthGroup> ethGroupIs(EthAddr addr) { return makeChild(ethGroup_, addr, "ethGroup"); }
    void ethGroupDel(EthAddr addr) { delChild(ethGroup_, addr, "ethGroup"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("ethGroup", &FdbConfig::ethGroup_));
    }

private:
    VlanId vlanId_;
    State::Collection<EthAddr, EthGroup> ethGroup_;
};

/// "bridging/input/config/msrp"
class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Bridging::Input::Config";

    /// Weight of this agent's entries against other agents'; 0 withdraws them.
    [[nodiscard]] std::uint32_t fdbConfigPriority() const { return fdbConfigPriority_; }
    void fdbConfigPriorityIs(std::uint32_t v) { assign(fdbConfigPriority_, v, "fdbConfigPriority"); }

    [[nodiscard]] const State::Collection<VlanId, FdbConfig>& fdbConfig() const { return fdbConfig_; }
    [[nodiscard]] std::shared_ptr<FdbConfig> fdbConfig(VlanId id) { return fdbConfig_.get(id); }
    [[nodiscard]] std::shared_ptr<const FdbConfig> fdbConfig(VlanId id) const { return fdbConfig_.get(id); }
    std::shared_ptr<FdbConfig> fdbConfigIs(VlanId id) { return makeChild(fdbConfig_, id, "fdbConfig"); }
    void fdbConfigDel(VlanId id) { delChild(fdbConfig_, id, "fdbConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("fdbConfigPriority", &Config::fdbConfigPriority_));
        each(State::collection("fdbConfig", &Config::fdbConfig_));
    }

private:
    std::uint32_t fdbConfigPriority_ = 0;
    State::Collection<VlanId, FdbConfig> fdbConfig_;
};

}  // namespace Bridging::Input

// Made once, in the source file beside this header.
extern template class State::Record<Bridging::Input::EthGroup>;
extern template class State::Record<Bridging::Input::FdbConfig>;
extern template class State::Record<Bridging::Input::Config>;
