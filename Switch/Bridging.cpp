#include "Switch/Bridging.h"

template class State::Record<Bridging::VlanPortConfig>;
template class State::Record<Bridging::VlanConfig>;
template class State::Record<Bridging::SwitchIntfConfig>;
template class State::Record<Bridging::Config>;

VlanId Bridging::nativeVlan(const Config* config, IntfId intf) {
    const auto port = config != nullptr ? config->switchIntfConfig(intf) : nullptr;
    return port ? port->nativeVlan() : VlanId{1};
}
