#include "Msrp/types/Status.h"

template class State::Record<Msrp::IntfStatus>;
template class State::Record<Msrp::Status>;
