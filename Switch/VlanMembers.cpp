#include "Switch/VlanMembers.h"

template class State::Record<Bridging::WantedVlans>;
template class State::Record<Bridging::VlanRequests>;
template class State::Record<Bridging::DynamicVlans>;
template class State::Record<Bridging::VlanMembers>;
