#include "Switch/Bridging.h"

template class State::Record<Bridging::VlanPortConfig>;
template class State::Record<Bridging::VlanConfig>;
template class State::Record<Bridging::SwitchIntfConfig>;
template class State::Record<Bridging::Config>;
