#include "Switch/BridgingInput.h"

template class State::Record<Bridging::Input::EthGroup>;
template class State::Record<Bridging::Input::FdbConfig>;
template class State::Record<Bridging::Input::Config>;
