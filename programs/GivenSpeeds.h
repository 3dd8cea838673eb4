/// The speeds that a configuration file gives for links whose speed the kernel does not know.  They stand in
/// the file where the daemon's own record of the links stands ("interface/status/eth/phy/all"), of which
/// nothing else can be given.
#pragma once

#include "State/Record.h"
#include "Switch/Interface.h"

#include <string_view>

class GivenSpeed : public State::Record<GivenSpeed> {
public:
    static constexpr std::string_view type = "Interface::EthPhyIntfStatus";
    explicit GivenSpeed(IntfId) {}

    [[nodiscard]] Interface::Speed speedEnum() const { return speedEnum_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("speedEnum", &GivenSpeed::speedEnum_));
    }

private:
    Interface::Speed speedEnum_ = Interface::Speed::speedUnknown;
};

class GivenSpeeds : public State::Record<GivenSpeeds> {
public:
    static constexpr std::string_view type = "AllEthPhyIntfStatusDir";

    [[nodiscard]] const State::Collection<IntfId, GivenSpeed>& intfStatus() const { return intfStatus_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("intfStatus", &GivenSpeeds::intfStatus_));
    }

private:
    State::Collection<IntfId, GivenSpeed> intfStatus_;
};
