#include "Switch/Stp.h"

template class State::Record<Stp::MstInstanceStatus>;
template class State::Record<Stp::InstanceStatus>;
template class State::Record<Stp::Status>;
