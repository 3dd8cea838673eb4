#include "Switch/Stp.h"

template class State::Record<Stp::MstInstanceStatus>;
template class State::Record<Stp::InstanceStatus>;
template class State::Record<Stp::Status>;

std::string Stp::baseTopology(const Status& status, const Bridging::Config* config, IntfId intf) {
    switch (status.mode()) {
        case Mode::None:
            return std::string{noStpName};
        case Mode::Rstp:
        case Mode::Mstp:
            return std::string{cistName};
        case Mode::Pvst: {
            const auto vlan =
                config != nullptr ? config->vlanConfig(Bridging::nativeVlan(config, intf)) : nullptr;
            return vlan ? pvstInstanceName(*vlan) : std::string{};
        }
        default:
            return {};
    }
}
