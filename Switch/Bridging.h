/// Bridging configuration: VLANs with their member ports, the ports' switch settings, the bridge's address.
#pragma once

#include "State/Record.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <array>
#include <memory>
#include <optional>
#include <string_view>

namespace Bridging {

/// How one member port carries one VLAN.
class VlanPortConfig : public State::Record<VlanPortConfig> {
public:
    static constexpr std::string_view type = "Bridging::VlanPortConfig";
    template <class Key>
    explicit VlanPortConfig(Key, bool tagged = false) : tagged_{tagged} {}

    [[nodiscard]] bool tagged() const { return tagged_; }
    void taggedIs(bool v) { assign(tagged_, v, "tagged"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("tagged", &VlanPortConfig::tagged_));
    }

private:
    bool tagged_;
};

class VlanConfig : public State::Record<VlanConfig> {
public:
    static constexpr std::string_view type = "Bridging::VlanConfig";
    explicit VlanConfig(VlanId id) : vlanId_{id} {}

    [[nodiscard]] VlanId vlanId() const { return vlanId_; }
    [[nodiscard]] const State::Collection<IntfId, VlanPortConfig>& intf() const { return intf_; }
    [[nodiscard]] std::shared_ptr<const VlanPortConfig> intf(IntfId id) const { return intf_.get(id); }
    std::shared_ptr<VlanPortConfig> intfIs(IntfId id) { return makeChild(intf_, id, "intf"); }
    /// Takes the port in, or changes how it carries the VLAN, as one change.
    void intfIs(IntfId id, bool tagged) {
        const auto held = intf_.get(id);
        if (!held || held->tagged() != tagged)
            putChild(intf_, id, std::make_shared<VlanPortConfig>(id, tagged), "intf");
    }
    void intfDel(IntfId id) { delChild(intf_, id, "intf"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intf", &VlanConfig::intf_));
    }

private:
    VlanId vlanId_;
    State::Collection<IntfId, VlanPortConfig> intf_;
};

enum class SwitchportMode : std::uint8_t { access, trunk, routed };
constexpr auto switchportModeNames =
    std::to_array<State::EnumName<SwitchportMode>>({{SwitchportMode::access, "access"},
                                                    {SwitchportMode::trunk, "trunk"},
                                                    {SwitchportMode::routed, "routed"}});
constexpr const auto& enumNames(SwitchportMode) { return switchportModeNames; }

class SwitchIntfConfig : public State::Record<SwitchIntfConfig> {
public:
    static constexpr std::string_view type = "Bridging::SwitchIntfConfig";
    explicit SwitchIntfConfig(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] SwitchportMode switchportMode() const { return switchportMode_; }
    void switchportModeIs(SwitchportMode v) { assign(switchportMode_, v, "switchportMode"); }
    [[nodiscard]] VlanId nativeVlan() const { return nativeVlan_; }
    void nativeVlanIs(VlanId v) { assign(nativeVlan_, v, "nativeVlan"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("switchportMode", &SwitchIntfConfig::switchportMode_));
        each(State::scalar("nativeVlan", &SwitchIntfConfig::nativeVlan_));
    }

private:
    IntfId intfId_;
    SwitchportMode switchportMode_ = SwitchportMode::trunk;
    VlanId nativeVlan_{1};
};

/// "bridging/config"
class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Bridging::Config";

    [[nodiscard]] EthAddr bridgeMac() const { return bridgeMac_; }
    void bridgeMacIs(EthAddr v) { assign(bridgeMac_, v, "bridgeMac"); }

    [[nodiscard]] const State::Collection<VlanId, VlanConfig>& vlanConfig() const { return vlanConfig_; }
    [[nodiscard]] std::shared_ptr<const VlanConfig> vlanConfig(VlanId id) const {
        return vlanConfig_.get(id);
    }
    std::shared_ptr<VlanConfig> vlanConfigIs(VlanId id) { return makeChild(vlanConfig_, id, "vlanConfig"); }
    void vlanConfigDel(VlanId id) { delChild(vlanConfig_, id, "vlanConfig"); }

    [[nodiscard]] const State::Collection<IntfId, SwitchIntfConfig>& switchIntfConfig() const {
        return switchIntfConfig_;
    }
    [[nodiscard]] std::shared_ptr<const SwitchIntfConfig> switchIntfConfig(IntfId id) const {
        return switchIntfConfig_.get(id);
    }
    std::shared_ptr<SwitchIntfConfig> switchIntfConfigIs(IntfId id) {
        return makeChild(switchIntfConfig_, id, "switchIntfConfig");
    }
    void switchIntfConfigDel(IntfId id) { delChild(switchIntfConfig_, id, "switchIntfConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("bridgeMac", &Config::bridgeMac_));
        each(State::collection("vlanConfig", &Config::vlanConfig_));
        each(State::collection("switchIntfConfig", &Config::switchIntfConfig_));
    }

private:
    EthAddr bridgeMac_;
    State::Collection<VlanId, VlanConfig> vlanConfig_;
    State::Collection<IntfId, SwitchIntfConfig> switchIntfConfig_;
};

/// The VLAN of the port's untagged frames: its switch configuration's, else 1.
VlanId nativeVlan(const Config* config, IntfId intf);

}  // namespace Bridging

// Made once, in the source file beside this header.
extern template class State::Record<Bridging::VlanPortConfig>;
extern template class State::Record<Bridging::VlanConfig>;
extern template class State::Record<Bridging::SwitchIntfConfig>;
extern template class State::Record<Bridging::Config>;
