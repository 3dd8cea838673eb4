#include "Switch/Time.h"

template class State::Record<Switch::PortTime>;
template class State::Record<Switch::TimeStatus>;
