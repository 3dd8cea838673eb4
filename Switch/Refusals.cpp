#include "Switch/Refusals.h"

template class State::Record<Switch::Refusal>;
template class State::Record<Switch::Refusals>;
