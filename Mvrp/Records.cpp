#include "Mvrp/Records.h"

template class State::Record<Mvrp::Config>;
template class State::Record<Mvrp::IntfStatus>;
template class State::Record<Mvrp::Status>;
