/// Spanning-tree status: the mode, and each instance's bridge priority.
#pragma once

#include "State/Record.h"
#include "Switch/Bridging.h"

#include <array>
#include <memory>
#include <string>
#include <string_view>

namespace Stp {

enum class Mode : std::int32_t { None = -1, Disabled = 0, Rstp = 2, Mstp = 3, Pvst = 101 };
constexpr auto modeNames = std::to_array<State::EnumName<Mode>>({{Mode::None, "None"},
                                                                 {Mode::Disabled, "Disabled"},
                                                                 {Mode::Rstp, "Rstp"},
                                                                 {Mode::Mstp, "Mstp"},
                                                                 {Mode::Pvst, "Pvst"}});
constexpr const auto& enumNames(Mode) { return modeNames; }

/// Names of topologies and of the instances behind them.
inline constexpr std::string_view cistName = "Cist";
inline constexpr std::string_view mstName = "Mst";
inline constexpr std::string_view noStpName = "NoStp";
inline constexpr std::string_view backupName = "Bkup";
/// The topology of the multiple-spanning-tree instance of that number: "Mst1".
inline std::string mstInstanceName(unsigned instance) {
    return std::string{mstName} + std::to_string(instance);
}
/// The topology of one VLAN's own spanning tree: "Vl10".
inline std::string pvstInstanceName(const Bridging::VlanConfig& vlan) {
    return "Vl" + std::to_string(vlan.vlanId().value());
}

class MstInstanceStatus : public State::Record<MstInstanceStatus> {
public:
    static constexpr std::string_view type = "Stp::MstInstanceStatus";
    explicit MstInstanceStatus(std::string name) : name_{std::move(name)} {}

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] std::uint16_t bridgePriority() const { return bridgePriority_; }
    void bridgePriorityIs(std::uint16_t v) { assign(bridgePriority_, v, "bridgePriority"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("bridgePriority", &MstInstanceStatus::bridgePriority_));
    }

private:
    std::string name_;
    std::uint16_t bridgePriority_ = 0x8000;
};

class InstanceStatus : public State::Record<InstanceStatus> {
public:
    static constexpr std::string_view type = "Stp::InstanceStatus";
    explicit InstanceStatus(std::string name) : name_{std::move(name)} {}

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] std::shared_ptr<const MstInstanceStatus> mstInstanceStatus(const std::string& name) const {
        return mstInstanceStatus_.get(name);
    }
    std::shared_ptr<MstInstanceStatus> mstInstanceStatusIs(const std::string& name) {
        return makeChild(mstInstanceStatus_, name, "mstInstanceStatus");
    }
    void mstInstanceStatusDel(const std::string& name) {
        delChild(mstInstanceStatus_, name, "mstInstanceStatus");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("mstInstanceStatus", &InstanceStatus::mstInstanceStatus_));
    }

private:
    std::string name_;
    State::Collection<std::string, MstInstanceStatus> mstInstanceStatus_;
};

/// "stp/status"
class Status : public State::Record<Status> {
public:
    static constexpr std::string_view type = "Stp::Status";

    [[nodiscard]] Mode mode() const { return mode_; }
    void modeIs(Mode v) { assign(mode_, v, "mode"); }
    [[nodiscard]] std::shared_ptr<const InstanceStatus> stpInstanceStatus(const std::string& name) const {
        return stpInstanceStatus_.get(name);
    }
    std::shared_ptr<InstanceStatus> stpInstanceStatusIs(const std::string& name) {
        return makeChild(stpInstanceStatus_, name, "stpInstanceStatus");
    }
    void stpInstanceStatusDel(const std::string& name) {
        delChild(stpInstanceStatus_, name, "stpInstanceStatus");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("mode", &Status::mode_));
        each(State::collection("stpInstanceStatus", &Status::stpInstanceStatus_));
    }

private:
    Mode mode_ = Mode::None;
    State::Collection<std::string, InstanceStatus> stpInstanceStatus_;
};

/// The topology that a port's untagged frames follow; empty when the port has none.  Where every VLAN has a
/// tree of its own it is that of the native VLAN, once that is configured.
std::string baseTopology(const Status& status, const Bridging::Config* config, IntfId intf);

}  // namespace Stp

// Made once, in the source file beside this header.
extern template class State::Record<Stp::MstInstanceStatus>;
extern template class State::Record<Stp::InstanceStatus>;
extern template class State::Record<Stp::Status>;
