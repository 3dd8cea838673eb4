#include "Switch/BridgingTopology.h"

template class State::Record<Bridging::Topology::TopoPortConfig>;
template class State::Record<Bridging::Topology::TopoConfig>;
template class State::Record<Bridging::Topology::Config>;
template class State::Record<Bridging::Topology::Status>;
