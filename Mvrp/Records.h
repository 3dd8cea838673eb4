/// MVRP's configuration and status records.
#pragma once

#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/PortChoice.h"
#include "Switch/VlanSet.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <set>

namespace Mvrp {

/// "mvrp/config"
class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Mvrp::Config";

    /// The ports on which MVRP runs: those whose entry is true.
    [[nodiscard]] const State::FlatMap<IntfId, bool>& intfEnable() const { return intfEnable_.ports(); }
    void intfEnableIs(IntfId id, bool v) { intfEnableField.sayIs(*this, id, v); }
    void intfEnableDel(IntfId id) { intfEnableField.sayIs(*this, id, std::nullopt); }
    /// The same in the operator's words, of which one may be for all ports of the bridge.
    [[nodiscard]] const PortChoice& choice() const { return intfEnable_; }
    /// The bridge's ports, for that.
    void bridgePortsAre(const std::set<IntfId>& ports) { intfEnableField.bridgePortsAre(*this, ports); }
    /// VLANs that a port's peer may ask for; of a port without an entry, the one that streams use there.
    [[nodiscard]] const State::FlatMap<IntfId, VlanSet>& allowed() const { return allowed_; }
    void allowedIs(IntfId id, const VlanSet& v) { setEntry(allowed_, id, v, "allowed"); }
    void allowedDel(IntfId id) { delEntry(allowed_, id, "allowed"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(intfEnableField);
        each(State::map("allowed", &Config::allowed_));
    }

private:
    static const PortChoiceField<Config> intfEnableField;

    PortChoice intfEnable_;
    State::FlatMap<IntfId, VlanSet> allowed_;
};
inline constexpr PortChoiceField<Config> Config::intfEnableField{"intfEnable", &Config::intfEnable_};

/// What one port says and hears.
class IntfStatus : public State::Record<IntfStatus> {
public:
    static constexpr std::string_view type = "Mvrp::IntfStatus";
    explicit IntfStatus(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    /// Declared by the peer.
    [[nodiscard]] const VlanSet& registered() const { return registered_; }
    void registeredIs(const VlanSet& v) { assign(registered_, v, "registered"); }
    /// Asked for since the port came up, and not allowed there.
    [[nodiscard]] const VlanSet& refused() const { return refused_; }
    void refusedIs(const VlanSet& v) { assign(refused_, v, "refused"); }
    /// Declared to the peer.
    [[nodiscard]] const VlanSet& declared() const { return declared_; }
    void declaredIs(const VlanSet& v) { assign(declared_, v, "declared"); }
    /// The port's by configuration.
    [[nodiscard]] const VlanSet& fixed() const { return fixed_; }
    void fixedIs(const VlanSet& v) { assign(fixed_, v, "fixed"); }
    /// VLANs that were asked for since the port came up and are not allowed there (11.2.3.2).
    [[nodiscard]] std::uint64_t failedRegistrations() const { return failedRegistrations_; }
    void failedRegistrationsInc() {
        assign(failedRegistrations_, failedRegistrations_ + 1, "failedRegistrations");
    }
    void failedRegistrationsClear() { assign(failedRegistrations_, std::uint64_t{0}, "failedRegistrations"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("registered", &IntfStatus::registered_));
        each(State::scalar("refused", &IntfStatus::refused_));
        each(State::scalar("declared", &IntfStatus::declared_));
        each(State::scalar("fixed", &IntfStatus::fixed_));
        each(State::scalar("failedRegistrations", &IntfStatus::failedRegistrations_));
    }

private:
    IntfId intfId_;
    VlanSet registered_;
    VlanSet refused_;
    VlanSet declared_;
    VlanSet fixed_;
    std::uint64_t failedRegistrations_ = 0;
};

/// "mvrp/status": the ports on which MVRP runs.
class Status : public State::Record<Status> {
public:
    static constexpr std::string_view type = "Mvrp::Status";

    [[nodiscard]] const State::Collection<IntfId, IntfStatus>& intfStatus() const { return intfStatus_; }
    [[nodiscard]] std::shared_ptr<const IntfStatus> intfStatus(IntfId id) const {
        return intfStatus_.get(id);
    }
    std::shared_ptr<IntfStatus> intfStatusIs(IntfId id) { return makeChild(intfStatus_, id, "intfStatus"); }
    void intfStatusDel(IntfId id) { delChild(intfStatus_, id, "intfStatus"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intfStatus", &Status::intfStatus_));
    }

private:
    State::Collection<IntfId, IntfStatus> intfStatus_;
};

}  // namespace Mvrp

// Made once, in the source file beside this header.
extern template class State::Record<Mvrp::Config>;
extern template class State::Record<Mvrp::IntfStatus>;
extern template class State::Record<Mvrp::Status>;
